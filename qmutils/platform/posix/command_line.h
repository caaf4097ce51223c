// Splitting a command line into arguments by the Windows quoting rules, which every program of the
// suite writes its command lines for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qm::platform::posix {

/// The arguments behind the program: separated by blanks and tabs; double quotes hold blanks
/// together; 2n backslashes before a quote are n backslashes, 2n + 1 are n and a plain quote;
/// inside quotes two quotes are one.
std::vector<std::string> splitArguments(std::string_view text);

/// One way to read a command line: its beginning as the program, the rest as arguments.
struct CommandReading {
  std::string program;
  std::string_view rest;
};

/// All ways, in the order in which they are tried: a quoted program has one; an unquoted one ends
/// at the first blank, or the second, and so on ("C:\My Dir\tool.exe -x").
std::vector<CommandReading> readCommand(std::string_view commandLine);

}  // namespace qm::platform::posix
