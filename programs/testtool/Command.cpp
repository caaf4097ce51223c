#include "programs/testtool/Command.h"

#include <charconv>
#include <cstdio>
#include <system_error>

#include "qmutils/platform/file.h"

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
