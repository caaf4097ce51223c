// What a command of the test tool is: a name, a help text, and a function. Each command has a file
// of its own; main.cpp has the list.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "qmutils/foundation/QMErrors.h"

namespace programs {

/// Exit statuses.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kUsageError = 2;
inline constexpr int kInterrupted = 130;

using Arguments = std::vector<std::string>;

struct Command {
  const char* name;
  const char* summary;
  const char* help;
  int (*run)(const Arguments& arguments);
};

extern const Command kBeepCommand;
extern const Command kConfigCommand;
extern const Command kConnectCommand;
extern const Command kDecodeCommand;
extern const Command kEncodeCommand;
extern const Command kErrorCommand;
extern const Command kExposeCommand;
extern const Command kGuidCommand;
extern const Command kHistoryCommand;
extern const Command kIniCommand;
extern const Command kLogCommand;
extern const Command kPlayCommand;
extern const Command kPoolCommand;
extern const Command kPrefsCommand;
extern const Command kPrintCommand;
extern const Command kSerialCommand;
extern const Command kServeCommand;
extern const Command kValueCommand;
extern const Command kVersionCommand;
extern const Command kXmlCommand;

/// Complains about the command line; gives kUsageError.
int usageError(const Command& command, const std::string& complaint);

/// The file or folder that an argument names, as an absolute path; empty when it names none.
std::filesystem::path toPath(const std::string& argument);

/// A result's text, and behind it why the system did not open or write the file.
std::string explained(QMErrors::QMErrorT result);

/// True for a character that is no text; tabs and line ends are.
bool isControl(char c);
/// Somebody else's text as standard output may show it: on a terminal with '?' in place of what the
/// terminal would obey.
std::string shownText(std::string_view text);

/// Takes the value of an option from the list; false when there is none.
bool takeValue(const Arguments& arguments, std::size_t& index, std::string& value);
/// The whole text as a number in that range.
bool parseNumber(const std::string& text, long long low, long long high, long long& number);
bool parseNumber(const std::string& text, double low, double high, double& number);

}  // namespace programs
