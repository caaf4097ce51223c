// Message boxes and questions to the operator, behind a hook that a host or a test replaces.
#pragma once

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// Shows a text and gives the button pressed (IDOK, IDYES, IDNO). Called on whatever thread needs
/// the answer; `text` and `caption` are never null.
using PromptHook = int (*)(const char* text, const char* caption, UINT style);

/// Installs a hook (null: the system's own boxes) and returns the one in force before (null: the
/// system's). May be called from any thread.
QMUTILS_API PromptHook setPromptHook(PromptHook hook) noexcept;

/// A message box: through the hook when there is one; else in a dialog where a display and a dialog
/// program are at hand; else caption and text go to standard error and the answer is IDOK, or IDNO
/// to a Yes/No question. It never blocks a process without a display. Null texts count as empty.
QMUTILS_API int messageBox(const char* text, const char* caption, UINT style) noexcept;

}  // namespace qm::platform
