// The one text form of pointers and handles: "0x" and upper-case hexadecimal, at least eight
// digits, so that null reads 0x00000000 and logs of different machines compare.
//
//   log << qm::PointerText(handle).view();
//
// Holds its text itself: no allocation, no locale, cannot fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>

namespace qm {

class PointerText {
 public:
  explicit PointerText(const void* pointer) noexcept {
    auto value = reinterpret_cast<std::uintptr_t>(pointer);
    char* p = text_ + kSize;
    *--p = '\0';
    for (int digits = 0; digits < kLeastDigits || value != 0; ++digits, value >>= 4) {
      *--p = "0123456789ABCDEF"[value & 0xF];
    }
    *--p = 'x';
    *--p = '0';
    start_ = static_cast<std::size_t>(p - text_);
  }

  /// Valid as long as this object.
  std::string_view view() const noexcept { return {text_ + start_, kSize - 1 - start_}; }
  const char* c_str() const noexcept { return text_ + start_; }

 private:
  static constexpr int kLeastDigits = 8;
  static constexpr std::size_t kSize = 2 + 2 * sizeof(std::uintptr_t) + 1;
  char text_[kSize];
  std::size_t start_;
};

inline std::ostream& operator<<(std::ostream& os, const PointerText& text) {
  return os << text.view();
}

}  // namespace qm
