#include "qmutils/foundation/TextFileFormat.h"

#include <cstring>
#include <initializer_list>

namespace qm {

namespace {

/// The length of a conversion without its final letter: '%', flags, width, precision, size.
std::size_t lengthBeforeLetter(const char* conversion) noexcept {
  std::size_t length = 1;
  for (const char* group : {"-+ #0'", "0123456789*", ".", "0123456789*", "hljztL"}) {
    length += std::strspn(conversion + length, group);
  }
  return length;
}

}  // namespace

std::size_t collapseFormatted(char* text) noexcept {
  const char* from = text;
  char* to = text;
  while (*from != '\0') {
    std::size_t kept = 1;
    std::size_t consumed = 1;
    if (*from == '%') {
      const std::size_t beforeLetter = lengthBeforeLetter(from);
      const char letter = from[beforeLetter];
      if (letter == '%' && beforeLetter == 1) {
        consumed = 2;
      } else if (letter == 'n') {
        kept = 0;
        consumed = beforeLetter + 1;
      }
    }
    std::memmove(to, from, kept);
    to += kept;
    from += consumed;
  }
  *to = '\0';
  return static_cast<std::size_t>(to - text);
}

}  // namespace qm
