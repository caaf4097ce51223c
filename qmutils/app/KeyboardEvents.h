// The process's keyboard listeners. Internal to the library.
#pragma once

#include "qmutils/concurrency/QMWindowsKeyboardEventMultiCasterC.h"

namespace qm {

/// Made at its first use, which may be before static members are, and never destroyed: listeners
/// may be removed after main().
QMWindowsKeyboardEventMultiCasterC& keyboardEvents() noexcept;

}  // namespace qm
