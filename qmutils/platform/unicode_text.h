// Conversion between UTF-8 and 16-bit text. Never fails: half a surrogate pair becomes U+FFFD, and
// a byte that is no UTF-8 stands for the character of its own number, so that single-byte text of
// older files stays readable.
//
// No allocation; each function depends on its arguments alone.
#pragma once

#include <cstddef>
#include <string_view>

namespace qm::platform {

/// Turns 16-bit units into UTF-8, one at a time.
class Utf8Encoder {
 public:
  /// The UTF-8 bytes that `unit` completes; empty for the first half of a surrogate pair. Valid
  /// until the next call.
  std::string_view add(char16_t unit) noexcept;
  /// U+FFFD when the text ended inside a surrogate pair, else empty.
  std::string_view finish() noexcept;

 private:
  void put(char32_t character) noexcept;
  std::string_view bytes() const noexcept { return {bytes_, size_}; }

  char16_t high_ = 0;
  std::size_t size_ = 0;
  char bytes_[8];
};

/// Turns UTF-8 into 16-bit units: writes at most `room` units (never half a pair) and returns how
/// many.
std::size_t utf16FromUtf8(std::string_view text, char16_t* units, std::size_t room) noexcept;

}  // namespace qm::platform
