#include <charconv>
#include <cstdint>
#include <cstdio>

#include "programs/testtool/Command.h"
#include "qmutils/foundation/QMErrors.h"

namespace programs {
namespace {

constexpr QMErrors::QMErrorT kCatalogue[] = {
#define QM_ERROR_ROW(code, identifier, message) QMErrors::identifier,
#include "qmutils/foundation/QMErrorCatalogue.inc"
#undef QM_ERROR_ROW
};

void print(QMErrors::QMErrorT code) {
  std::printf("0x%08X  %s\n", static_cast<unsigned>(code), QMErrToStr(code));
}

/// Decimal, also negative, or hexadecimal with 0x.
bool parseCode(const std::string& text, QMErrors::QMErrorT& code) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const char* const end = text.data() + text.size();
  std::int64_t value = 0;
  const auto [rest, error] =
      std::from_chars(text.data() + (hex ? 2 : 0), end, value, hex ? 16 : 10);
  if (error != std::errc() || rest != end || value < (hex ? 0 : INT32_MIN) || value > UINT32_MAX) {
    return false;
  }
  code = static_cast<QMErrors::QMErrorT>(static_cast<std::uint32_t>(value));
  return true;
}

int run(const Arguments& arguments) {
  if (arguments.empty()) return usageError(kErrorCommand, "no code given");
  for (const std::string& argument : arguments) {
    QMErrors::QMErrorT code;
    if (argument == "--all") {
      for (QMErrors::QMErrorT row : kCatalogue) print(row);
    } else if (parseCode(argument, code)) {
      print(code);
    } else {
      return usageError(kErrorCommand, "'" + argument + "' is no result code");
    }
  }
  return kSuccess;
}

}  // namespace

const Command kErrorCommand = {
    "error", "print the text of result codes",
    "usage: testtool error CODE... | --all\n"
    "Prints each result code in hexadecimal with its text and decimal number. A CODE is decimal "
    "or,\n"
    "with 0x, hexadecimal: 2013, 0x5007, 0x20000005 (a system error), 0x60000002 (an errno).\n"
    "  --all   the whole catalogue, in its order\n",
    run};

}  // namespace programs
