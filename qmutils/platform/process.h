// Child processes: launching without a shell, waiting, exit codes, termination.
//
// All functions may be called from any thread; failures set the last error.
#pragma once

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// What a launch gives back. Both handles are waitable (waitable.h), signalled when the process
/// has ended, and closed by the caller; the process does not depend on them.
struct ProcessInformation {
  HANDLE process = nullptr;
  HANDLE mainThread = nullptr;
  DWORD processId = 0;
  DWORD threadId = 0;
};

/// Launches a program from one command line, split by the Windows quoting rules and never given
/// to a shell. A command with unquoted blanks is tried prefix by prefix ("C:\My Dir\tool.exe -x").
/// The child inherits no descriptor except standard input, output and error, and stands in a
/// process group of its own, so that Ctrl-C in the parent's terminal does not reach it.
/// `creationFlags`: a priority class, with DETACHED_PROCESS also without standard input.
/// `showState` is the initial window state (2: minimised), for systems with windows.
/// Fails with 2 (not found), 5 (not executable), 193 (not a program), 8.
bool createProcess(const char* commandLine, DWORD creationFlags, WORD showState,
                   ProcessInformation* information) noexcept;

/// STILL_ACTIVE (259) while it runs. The code given to terminateProcess() comes back whole; a
/// process that ends by itself gives its 8-bit status, one killed by a signal 128 + the signal.
bool processExitCode(HANDLE process, DWORD* code) noexcept;

/// Ends the process at once, with that exit code; the handle is signalled soon after. Fails with 5
/// when it has already ended.
bool terminateProcess(HANDLE process, DWORD exitCode) noexcept;

QMUTILS_API DWORD currentProcessId() noexcept;

/// True when the process that launched this one has ended, be it before this one came up. A forked
/// child that has not started a program of its own gets no useful answer.
QMUTILS_API bool parentIsGone() noexcept;

}  // namespace qm::platform
