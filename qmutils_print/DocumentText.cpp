#include "qmutils_print/DocumentText.h"

#include <glib.h>

namespace qm {

namespace {

/// What Windows-1252 has in the places 80 to 9F (0: nothing); in all others it is as Latin-1.
constexpr gunichar kWindows1252[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

gunichar characterOf(unsigned char byte) {
  const gunichar named = byte >= 0x80 && byte < 0xA0 ? kWindows1252[byte - 0x80] : 0;
  return named != 0 ? named : byte;
}

}  // namespace

std::string documentText(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const char* end = text.data();
    // NUL characters are not valid for GLib, but no text here has one.
    g_utf8_validate(text.data(), static_cast<gssize>(text.size()), &end);
    const auto valid = static_cast<std::size_t>(end - text.data());
    result.append(text.substr(0, valid));
    text.remove_prefix(valid);
    if (text.empty()) break;
    char bytes[6];
    const int size = g_unichar_to_utf8(characterOf(static_cast<unsigned char>(text[0])), bytes);
    result.append(bytes, static_cast<std::size_t>(size));
    text.remove_prefix(1);
  }
  return result;
}

}  // namespace qm
