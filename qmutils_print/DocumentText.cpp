#include "qmutils_print/DocumentText.h"

#include <glib.h>

namespace qm {

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
    const int size = g_unichar_to_utf8(static_cast<unsigned char>(text[0]), bytes);
    result.append(bytes, static_cast<std::size_t>(size));
    text.remove_prefix(1);
  }
  return result;
}

}  // namespace qm
