// Doubles as integers, without undefined behaviour for what does not fit. Internal to the library.
#pragma once

#include <cmath>
#include <limits>

namespace qm {

/// Truncates toward zero; what does not fit becomes the nearest number, not-a-number becomes 0.
template <class Integer>
Integer saturated(double value) noexcept {
  using Limits = std::numeric_limits<Integer>;
  if (std::isnan(value)) return 0;
  if (value <= static_cast<double>(Limits::min())) return Limits::min();
  // The largest 64-bit number is no double; the next one above it is.
  if (value >= static_cast<double>(Limits::max())) return Limits::max();
  return static_cast<Integer>(value);
}

}  // namespace qm
