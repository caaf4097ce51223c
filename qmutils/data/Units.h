// Units of the typed value as tables: postfixes, ranges, conversion factors. Internal to the data
// floor. Pure functions; any thread may call them.
#pragma once

#include <cmath>
#include <limits>
#include <optional>

namespace qm {

/// The text behind a number, by unit code and modifiers (CMDFormat) and the divisor of its range.
/// Divisors are compared exactly. A constant, empty for none.
const char* postFix(unsigned flags, double divisor) noexcept;

/// What a number of a ranged unit (bit rate, power, area) is divided by before it is shown.
std::optional<double> rangeFactor(unsigned flags, double value) noexcept;

/// `value` in another unit if `flags` want the conversion and there is a factor between the two,
/// else as it is.
double convertUnits(double value, unsigned flags, unsigned fromUnit, unsigned toUnit,
                    unsigned precision, double scale) noexcept;

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
