// Units of the typed value as tables: postfixes, ranges, conversion factors. Internal to the data
// floor. Pure functions; any thread may call them.
#pragma once

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

}  // namespace qm
