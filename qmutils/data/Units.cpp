#include "qmutils/data/Units.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>

#include "qmutils/data/CMDFormat.h"

namespace qm {

namespace {

using Format = CMDFormat;

constexpr unsigned kModifiers =
    Format::MD_UNIT | Format::MD_NO_UNITS | Format::MD_AREA | Format::MD_PER_SECOND;

struct RangeText {
  double divisor;
  const char* text;
};

constexpr RangeText kBitRate[] = {{1e3, " Kb/s"}, {1e6, " Mb/s"}, {1e9, " Gb/s"}};
constexpr RangeText kInchArea[] = {{1296, " sqyd"}, {144, " sqft"}};
constexpr RangeText kArea[] = {{1e12, " sqkm"}, {1e6, " sqm"}};
// Speeds use the divisors of areas, as the values of installed programs do.
constexpr RangeText kInchSpeed[] = {{1296, " yd/s"}, {144, " ft/s"}};
constexpr RangeText kSpeed[] = {{1e12, " km/s"}, {1e6, " m/s"}};
constexpr RangeText kPowerDensity[] = {
    {1e6, " MW/cm^2"}, {1e3, " KW/cm^2"}, {1, " W/cm^2"}, {1e-3, " mW/cm^2"}, {1e-6, " uW/cm^2"}};
constexpr RangeText kPower[] = {
    {1e6, " MW"}, {1e3, " KW"}, {1, " W"}, {1e-3, " mW"}, {1e-6, " uW"}};

struct UnitText {
  unsigned unit;
  const char* text;
};

constexpr UnitText kUnitTexts[] = {
    {Format::MD_UNIT_INCH, " \""},    {Format::MD_UNIT_MM, " mm"},
    {Format::MD_UNIT_POINT, " pt"},   {Format::MD_UNIT_PERCENT, " %"},
    {Format::MD_UNIT_DEGREE, " o"},   {Format::MD_UNIT_DPI, " dpi"},
    {Format::MD_UNIT_CELSIUS, " oC"}, {Format::MD_UNIT_ENERGY_DENSITY, " uJ/cm^2"},
};

template <std::size_t N>
const char* rangeText(const RangeText (&table)[N], double divisor, const char* otherwise) {
  const auto* found = std::ranges::find(table, divisor, &RangeText::divisor);
  return found != std::end(table) ? found->text : otherwise;
}

/// value * multiplier / divider, with the last factor applied after rounding.
struct Conversion {
  unsigned from;
  unsigned to;
  double multiplier;
  double divider;
  double afterRounding;
};

constexpr double kMMPerInch = 25.4;
constexpr double kPointsPerInch = 72;

constexpr Conversion kConversions[] = {
    {Format::MD_UNIT_INCH, Format::MD_UNIT_MM, kMMPerInch, 1, 1},
    {Format::MD_UNIT_POINT, Format::MD_UNIT_MM, kMMPerInch, kPointsPerInch, 1},
    {Format::MD_UNIT_DPI, Format::MD_UNIT_MM, 1, kMMPerInch, 1},
    {Format::MD_UNIT_MM, Format::MD_UNIT_INCH, 1, kMMPerInch, 1},
    {Format::MD_UNIT_POINT, Format::MD_UNIT_INCH, 1, kPointsPerInch, 1},
    {Format::MD_UNIT_MM, Format::MD_UNIT_POINT, kPointsPerInch, kMMPerInch, 1},
    {Format::MD_UNIT_INCH, Format::MD_UNIT_POINT, kPointsPerInch, 1, 1},
    {Format::MD_UNIT_MM, Format::MD_UNIT_DPI, 1, 1, kMMPerInch},
    {Format::MD_UNIT_POINT, Format::MD_UNIT_DPI, 1, 1, kPointsPerInch},
};

/// Square inches and square millimetres. The result still has the factor `p`: installed programs
/// divide it away themselves.
double convertArea(double value, unsigned fromUnit, unsigned toUnit, double p) {
  if (fromUnit == Format::MD_UNIT_INCH && toUnit == Format::MD_UNIT_MM) {
    return p * value * 0.0015500031000062;
  }
  if (fromUnit == Format::MD_UNIT_MM && toUnit == Format::MD_UNIT_INCH) return p * value * 645.16;
  return value;
}

}  // namespace

const char* postFix(unsigned flags, double divisor) noexcept {
  flags &= kModifiers;
  const unsigned unit = flags & Format::MD_UNIT;
  const bool inch = unit == Format::MD_UNIT_INCH;
  const bool power = unit == Format::MD_UNIT_POWER;
  if ((flags & Format::MD_NO_UNITS) != 0) return "";
  if (unit == Format::MD_UNIT_BITRATE) return rangeText(kBitRate, divisor, " b/s");
  if ((flags & Format::MD_AREA) != 0 && !power) {
    return inch ? rangeText(kInchArea, divisor, " sq\"") : rangeText(kArea, divisor, " sqmm");
  }
  if ((flags & Format::MD_AREA) != 0) {
    const char* const density = rangeText(kPowerDensity, divisor, nullptr);
    if (density != nullptr) return density;
  }
  if ((flags & Format::MD_PER_SECOND) != 0) {
    return inch ? rangeText(kInchSpeed, divisor, " \"/s") : rangeText(kSpeed, divisor, " mm/s");
  }
  if (power) return rangeText(kPower, divisor, "");
  const auto* found = std::ranges::find(kUnitTexts, unit, &UnitText::unit);
  return found != std::end(kUnitTexts) ? found->text : "";
}

std::optional<double> rangeFactor(unsigned flags, double value) noexcept {
  const unsigned unit = flags & Format::MD_UNIT;
  if (unit == Format::MD_UNIT_BITRATE) {
    // Nothing is ever shown in Gb/s; installed programs rely on it.
    if (value > 1e6) return 1e6;
    return value > 1e3 ? 1e3 : 1;
  }
  if (unit == Format::MD_UNIT_POWER) {
    for (const double factor : {1e6, 1e3, 1.0, 1e-3, 1e-6}) {
      if (value > factor) return factor;
    }
    return value == 0 ? 1 : value;  // tiny and negative powers are shown as 1
  }
  if ((flags & Format::MD_AREA) != 0) {
    if (value > 1e12) return 1e13;  // not the divisor of " sqkm", so the postfix is " sqmm"
    return value > 1e6 ? 1e6 : 1;
  }
  return std::nullopt;
}

double convertUnits(double value, unsigned flags, unsigned fromUnit, unsigned toUnit,
                    unsigned precision, double scale) noexcept {
  const bool wanted = (flags & Format::MD_CONVERT_UNITS) != 0 &&
                      (flags & (Format::MD_NEVER_CONVERT | Format::MD_NO_UNITS)) == 0;
  if (!wanted || fromUnit == toUnit) return value;

  const bool isDouble = (flags & Format::MD_TYPE_DOUBLE) != 0;
  const bool area = (flags & Format::MD_AREA) != 0;
  // Powers of ten end soon after 300. Elsewhere p cancels out of a double, and need not make large
  // numbers infinite on the way.
  const unsigned maxPrecision = area ? 300 : 15;
  const double p = isDouble ? std::pow(10.0, std::clamp(precision, 1u, maxPrecision)) : 10;
  const double half = isDouble ? 0 : 0.5;
  if (area) return convertArea(value, fromUnit, toUnit, p);
  if (toUnit == Format::MD_UNIT_SCALED) return value * scale;
  if (fromUnit == Format::MD_UNIT_SCALED) return value / scale;
  for (const Conversion& c : kConversions) {
    if (c.from != fromUnit || c.to != toUnit) continue;
    return (p * value * c.multiplier + half) * c.afterRounding / (p * c.divider);
  }
  return value;
}

}  // namespace qm
