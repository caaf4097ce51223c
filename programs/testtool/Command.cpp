#include "programs/testtool/Command.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <system_error>

#include "qmutils/platform/file.h"
#include "qmutils/platform/terminal.h"

namespace programs {
namespace {

template <class Number>
bool parseWhole(const std::string& text, Number low, Number high, Number& number) {
  const char* const end = text.data() + text.size();
  Number value{};
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end || !(value >= low && value <= high)) return false;
  number = value;
  return true;
}

}  // namespace

int usageError(const Command& command, const std::string& complaint) {
  std::fprintf(stderr, "testtool %s: %s\nTry: testtool %s --help\n", command.name,
               complaint.c_str(), command.name);
  return kUsageError;
}

std::filesystem::path toPath(const std::string& argument) {
  if (argument.empty()) return {};
  std::error_code error;
  auto path = std::filesystem::absolute(qm::platform::nativePath(argument.c_str()), error);
  if (error) path.clear();
  return path;
}

std::string explained(QMErrors::QMErrorT result) {
  std::string text = QMErrToStr(result);
  if (result != QMErrors::FailedToOpenFile && result != QMErrors::FailedToWriteToFile) return text;
  const QMErrors::QMErrorT reason = QMErrors::lastOsError();
  return reason == QMErrors::NoError ? text : text + " (" + QMErrToStr(reason) + ")";
}

bool isControl(char c) {
  return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\n' && c != '\r';
}

std::string shownText(std::string_view text) {
  std::string shown(text);
  if (qm::platform::isTerminal(stdout)) {
    std::ranges::replace_if(
        shown, [](char c) { return isControl(c) || c == '\r'; }, '?');
  }
  return shown;
}

bool takeValue(const Arguments& arguments, std::size_t& index, std::string& value) {
  if (index + 1 >= arguments.size()) return false;
  value = arguments[++index];
  return true;
}

bool parseNumber(const std::string& text, long long low, long long high, long long& number) {
  return parseWhole(text, low, high, number);
}

bool parseNumber(const std::string& text, double low, double high, double& number) {
  return parseWhole(text, low, high, number);
}

}  // namespace programs
