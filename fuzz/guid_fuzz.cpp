// Any text as a GUID, given as characters and as a stream: a result, and what was read is written
// as the digits that were read, and reads back as the same GUID.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "qmutils/data/GuidC.h"

namespace {

void dropLine(unsigned, int, char*) {}

unsigned silence() { return 0; }

void require(bool holds) {
  if (!holds) std::abort();
}

/// The digits and dashes in lower case, up to the end of a C text.
std::string digitsOf(const std::string& text) {
  std::string digits;
  for (const char c : text) {
    if (c == '\0') break;
    if (c != '{' && c != '}')
      digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return digits;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QMLogStreamC hooks(dropLine, nullptr, nullptr, silence);
  const std::string text(reinterpret_cast<const char*>(data), size);
  GuidC guid;
  if (guid.FromString(text.c_str()) == QMErrors::NoError) {
    std::ostringstream os;
    require(guid.IsValid() == 1 && guid.ToString(os, false) == QMErrors::NoError);
    require(os.str() == digitsOf(text));
  } else {
    require(guid == GUID{});
  }
  std::istringstream is(text);
  GuidC read;
  while (is >> read) {
    std::stringstream again;
    GuidC back;
    require(again << read && again >> back && back == read);
  }
  return 0;
}
