// Names that are compared without regard to the case of A-Z, whatever the locale.
#pragma once

#include <algorithm>
#include <string_view>

namespace qm::platform {

constexpr char foldedCase(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool isSameName(std::string_view a, std::string_view b) noexcept {
  return std::ranges::equal(a, b, {}, foldedCase, foldedCase);
}

/// For containers, also with look-ups by view.
struct NameLess {
  using is_transparent = void;
  constexpr bool operator()(std::string_view a, std::string_view b) const noexcept {
    return std::ranges::lexicographical_compare(a, b, {}, foldedCase, foldedCase);
  }
};

}  // namespace qm::platform
