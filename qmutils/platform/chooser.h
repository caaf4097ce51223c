// Lets the operator choose a folder, a file, a computer or a printer, behind a hook that a host or
// a test replaces.
#pragma once

#include <string>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

struct ChooserRequest {
  enum Kind { Folder, File, Computer, Printer };
  Kind kind = Folder;
  HWND owner = nullptr;
  const char* title = "";
  /// The folder to begin with; empty for the system's choice.
  const char* start = "";
};

/// Called on the thread that asks. Gives 0 with the choice, 1223 when the operator chose nothing,
/// or another system error number.
using ChooserHook = DWORD (*)(const ChooserRequest& request, std::string& choice);

/// Installs a hook (null: the system's own dialogs) and returns the one in force before (null: the
/// system's). May be called from any thread.
QMUTILS_API ChooserHook setChooserHook(ChooserHook hook) noexcept;

/// Asks the operator: through the hook when there is one, else in a dialog where a display and a
/// dialog program are at hand, else fails with 50. The choice is a path, or a computer's or
/// printer's name. May throw std::bad_alloc.
QMUTILS_API DWORD choose(const ChooserRequest& request, std::string& choice);

}  // namespace qm::platform
