#include "qmutils/platform/posix/command_line.h"

namespace qm::platform::posix {
namespace {

bool isBlank(char c) noexcept { return c == ' ' || c == '\t'; }

std::string_view withoutLeadingBlanks(std::string_view text) noexcept {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  return text;
}

/// Reads one argument from the front of `text` and removes it.
std::string takeArgument(std::string_view& text) {
  std::string argument;
  bool quoted = false;
  while (!text.empty() && (quoted || !isBlank(text.front()))) {
    std::size_t backslashes = text.find_first_not_of('\\');
    if (backslashes == std::string_view::npos) backslashes = text.size();
    const bool beforeQuote = backslashes < text.size() && text[backslashes] == '"';
    argument.append(beforeQuote ? backslashes / 2 : backslashes, '\\');
    text.remove_prefix(backslashes);
    if (!beforeQuote) {
      if (backslashes == 0) {
        argument += text.front();
        text.remove_prefix(1);
      }
      continue;
    }
    text.remove_prefix(1);
    if (backslashes % 2 == 1) {
      argument += '"';
    } else if (quoted && !text.empty() && text.front() == '"') {
      argument += '"';
      text.remove_prefix(1);
    } else {
      quoted = !quoted;
    }
  }
  return argument;
}

}  // namespace

std::vector<std::string> splitArguments(std::string_view text) {
  std::vector<std::string> arguments;
  for (text = withoutLeadingBlanks(text); !text.empty(); text = withoutLeadingBlanks(text)) {
    arguments.push_back(takeArgument(text));
  }
  return arguments;
}

std::vector<CommandReading> readCommand(std::string_view commandLine) {
  const std::string_view text = withoutLeadingBlanks(commandLine);
  if (text.empty()) return {};
  if (text.front() == '"') {
    const std::size_t end = text.find('"', 1);
    if (end == std::string_view::npos) return {{std::string(text.substr(1)), {}}};
    return {{std::string(text.substr(1, end - 1)), text.substr(end + 1)}};
  }
  std::vector<CommandReading> readings;
  for (std::size_t i = 1; i <= text.size(); ++i) {
    if (i < text.size() && (!isBlank(text[i]) || isBlank(text[i - 1]))) continue;
    readings.push_back({std::string(text.substr(0, i)), text.substr(i)});
  }
  return readings;
}

}  // namespace qm::platform::posix
