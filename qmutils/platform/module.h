// Modules: where the running program and the loaded libraries lie.
#pragma once

#include <string>

#include "qmutils/platform/types.h"

namespace qm::platform {

/// The running program, whose path is that of its executable file.
HINSTANCE programModule() noexcept;

/// The full path of a module's file; empty on failure, with the last error set (126 for a handle
/// that is no loaded module). Null stands for the running program.
std::string modulePath(HINSTANCE module);

}  // namespace qm::platform
