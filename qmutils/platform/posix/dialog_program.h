// The desktop's dialogs, shown by a program of their own so that the library needs no toolkit. For
// platform/posix/ only. May throw std::bad_alloc.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qm::platform::posix {

/// Whether there is a display to show dialogs on.
bool hasDisplay() noexcept;

/// The full path of a program on the search path; empty when there is none.
std::string findProgram(const char* name);

/// The dialog program's full path; empty when there is none or no display to show it on.
std::string findDialogProgram();

struct ProgramResult {
  int status = 0;  ///< the exit status
  std::string output;
  std::string errors;
};

/// Runs a program with signals at their defaults and waits for its end; nothing when it could not
/// be run to its end. With `capture` its output and errors are collected.
std::optional<ProgramResult> runProgram(const std::string& program,
                                        std::vector<std::string> arguments, bool capture);

}  // namespace qm::platform::posix
