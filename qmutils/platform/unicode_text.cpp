#include "qmutils/platform/unicode_text.h"

namespace qm::platform {

namespace {

constexpr char16_t kReplacement = 0xFFFD;

constexpr bool isHighSurrogate(char16_t unit) noexcept { return (unit & 0xFC00) == 0xD800; }
constexpr bool isLowSurrogate(char16_t unit) noexcept { return (unit & 0xFC00) == 0xDC00; }

/// Takes one character from the front of `text`.
char32_t takeCharacter(std::string_view* text) noexcept {
  const auto byteAt = [text](std::size_t i) { return static_cast<unsigned char>((*text)[i]); };
  const unsigned lead = byteAt(0);
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
  char32_t character = length == 1 ? lead : lead & (0x7Fu >> length);
  bool isValid = lead < 0xF8 && length <= text->size();
  for (std::size_t i = 1; isValid && i < length; ++i) {
    isValid = (byteAt(i) & 0xC0) == 0x80;
    character = character << 6 | (byteAt(i) & 0x3Fu);
  }
  // Also no UTF-8: a longer form than needed, surrogates, and numbers past the last character.
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  isValid = isValid && character >= kSmallest[length] && character <= 0x10FFFF &&
            (character & 0xFFFFF800) != 0xD800;
  text->remove_prefix(isValid ? length : 1);
  return isValid ? character : lead;
}

}  // namespace

void Utf8Encoder::put(char32_t c) noexcept {
  const auto putByte = [this](char32_t byte) { bytes_[size_++] = static_cast<char>(byte); };
  if (c < 0x80) {
    putByte(c);
  } else if (c < 0x800) {
    putByte(0xC0 | c >> 6);
    putByte(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    putByte(0xE0 | c >> 12);
    putByte(0x80 | (c >> 6 & 0x3F));
    putByte(0x80 | (c & 0x3F));
  } else {
    putByte(0xF0 | c >> 18);
    putByte(0x80 | (c >> 12 & 0x3F));
    putByte(0x80 | (c >> 6 & 0x3F));
    putByte(0x80 | (c & 0x3F));
  }
}

std::string_view Utf8Encoder::add(char16_t unit) noexcept {
  size_ = 0;
  if (high_ != 0 && isLowSurrogate(unit)) {
    put(0x10000 + ((high_ & 0x3FFu) << 10) + (unit & 0x3FFu));
    high_ = 0;
    return bytes();
  }
  if (high_ != 0) put(kReplacement);
  high_ = isHighSurrogate(unit) ? unit : u'\0';
  if (high_ == 0) put(isLowSurrogate(unit) ? kReplacement : unit);
  return bytes();
}

std::string_view Utf8Encoder::finish() noexcept {
  size_ = 0;
  if (high_ != 0) put(kReplacement);
  high_ = 0;
  return bytes();
}

std::size_t utf16FromUtf8(std::string_view text, char16_t* units, std::size_t room) noexcept {
  std::size_t count = 0;
  while (!text.empty()) {
    const char32_t character = takeCharacter(&text);
    const std::size_t needed = character >= 0x10000 ? 2 : 1;
    if (count + needed > room) break;
    if (needed == 2) {
      units[count++] = static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10));
      units[count++] = static_cast<char16_t>(0xDC00 + (character & 0x3FF));
    } else {
      units[count++] = static_cast<char16_t>(character);
    }
  }
  return count;
}

}  // namespace qm::platform
