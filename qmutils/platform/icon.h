// Icons. Where the system has no icon handles of its own an icon is the path of a picture file, for
// whatever draws the user interface. Icons are never destroyed, and one file has one icon. Any
// thread may call these functions; they throw std::bad_alloc.
#pragma once

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// The icon in a picture file (PNG, SVG, ICO, XPM); null when it is none.
HICON iconFromFile(const char* path);

/// The icon that a module has under a number, in the folder "icons" beside its file ("7.png"); null
/// when there is none.
HICON iconOfModule(HINSTANCE module, UINT id);

/// The path of an icon's file, which lives as long as the program; null for no icon.
QMUTILS_API const char* iconPath(HICON icon) noexcept;

}  // namespace qm::platform
