// Modules: where the running program and the loaded libraries lie, and libraries loaded for what
// they contain. Any thread may call these functions.
#pragma once

#include <string>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// The running program, whose path is that of its executable file.
HINSTANCE programModule() noexcept;

/// The full path of a module's file; empty on failure, with the last error set (126 for a handle
/// that is no loaded module). Null stands for the running program.
std::string modulePath(HINSTANCE module);

/// The same for the program that another process runs (87: there is no such process, 5: it is
/// somebody else's).
std::string processModulePath(DWORD processId);

/// Loads a library, for as long as the program runs: what was taken from it may be in use anywhere.
/// Null with the last error set: 126 when the file or one that it needs is not there, 193 when it
/// is no library.
HINSTANCE loadLibrary(const char* path);

/// A text of the user interface by its number, which lives as long as the module; null when the
/// module has none. Where the system has no such tables a module, in most cases a language library,
/// exports them as a function: extern "C" const char* qmutils_text(unsigned int id).
QMUTILS_API const char* moduleText(HINSTANCE module, UINT id);

/// The module that texts and pictures of the user interface are taken from: the running program
/// until another one is set. Gives the one before.
QMUTILS_API HINSTANCE resourceModule() noexcept;
QMUTILS_API HINSTANCE setResourceModule(HINSTANCE module) noexcept;

}  // namespace qm::platform
