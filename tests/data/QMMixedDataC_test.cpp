#include "qmutils/data/QMMixedDataC.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <tuple>

#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"

namespace {

constexpr double kMaxDouble = std::numeric_limits<double>::max();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr unsigned kMaxUnsigned = 0xFFFFFFFFu;

class Value : public QMMixedDataC {
 public:
  using QMMixedDataC::FromTimeCounter;
  using QMMixedDataC::QMMixedDataC;
  using QMMixedDataC::StripPostFix;
};

using F = CMDFormat;

F::FormatFlagsT flags(unsigned bits) { return static_cast<F::FormatFlagsT>(bits); }

template <class Number>
std::string shown(unsigned bits, Number number, unsigned width = 0, unsigned precision = 2,
                  const char* locale = "C") {
  QMMixedDataC value(flags(bits), width, precision);
  value.SetValue(number);
  value.SetLocale(locale);
  CString text;
  return static_cast<const char*>(value.AToString(text, 1));
}

/// German: comma, and points between thousands. scripts/setup.sh makes it on a machine without.
constexpr const char* kGerman = "de_DE.UTF-8";

TEST(QMMixedDataC, HoldsWhatItWasMadeWith) {
  const std::tuple<QMMixedDataC, unsigned, const char*> kCases[] = {
      {QMMixedDataC(-5, 4, 0), 0x100, "-5"},
      {QMMixedDataC(42, 6, 0), 0x100, "000042"},
      {QMMixedDataC(7u, 3, 0), 0x10100, "007"},
      {QMMixedDataC(7ul, 0, 0), 0x400, "7"},
      {QMMixedDataC(4000000000u, 0, 0), 0x10100, "-294967296"},  // shown as a signed number
      {QMMixedDataC(4000000000ul, 0, 0), 0x400, "4000000000"},
      {QMMixedDataC(0x100000000ul, 0, 0), 0x400, "4294967295"},
      {QMMixedDataC(2.5, 0, 3), 0x200, "2.500"},
      {QMMixedDataC("text", 2), 0x800, "text"},
      {QMMixedDataC(static_cast<const char*>(nullptr), 2), 0x800, ""},
      {QMMixedDataC(), 0, ""},
      {QMMixedDataC(F::MD_TYPE_DOUBLE | F::MD_UNIT_MM, 0, 1), 0x200200, "0.0 mm"},
      {QMMixedDataC(F::MD_TYPE_STRING, 0, 1), 0x800, ""},
  };
  for (const auto& [value, bits, text] : kCases) {
    CString out("former");
    EXPECT_EQ(value.GetFlags(), bits) << text;
    EXPECT_STREQ(QMMixedDataC(value).AToString(out, 0), text);
    QMMixedDataC assigned("longer than a short string is", 3);
    assigned = value;
    out = "former";
    EXPECT_STREQ(assigned.AToString(out, 0), text);
    EXPECT_EQ(assigned.GetFlags(), bits) << text;
  }
}

TEST(QMMixedDataC, OtherTypesReadTheRawBytes) {
  double d;
  int i;
  unsigned u;
  unsigned long ul;
  CString text("x");
  QMMixedDataC value(-1, 0, 0);
  EXPECT_EQ(value.GetValue(&u), kMaxUnsigned);
  EXPECT_EQ(value.GetValue(&ul), kMaxUnsigned);
  EXPECT_EQ(value.GetValue(&d), 4294967295 * 0x1p-1074) << "zeroes behind the 32 bits";
  EXPECT_STREQ(value.GetValue(text), "");
  value.SetValue(1.0);
  EXPECT_EQ(value.GetValue(&i), 0) << "the double's first half";
  value.SetValue(1);
  EXPECT_NE(value.GetValue(&d), 1 * 0x1p-1074) << "its second half is still there";
  EXPECT_EQ(value.GetFlags(), 0x100u) << "the type stays";
  value.SetValue("text");
  EXPECT_EQ(value.GetValue(&d), 0.0);
  EXPECT_STREQ(value.GetValue(text), "text");

  QMMixedDataC longText("held by the value itself, not by its copy", 0);
  QMMixedDataC copy(longText), assigned;
  assigned = longText;
  longText.SetValue("x");
  EXPECT_STREQ(copy.GetValue(text), "held by the value itself, not by its copy");
  EXPECT_STREQ(assigned.GetValue(text), "held by the value itself, not by its copy");

  EXPECT_STREQ(value.SetLocale("de_DE"), "de_DE");
  EXPECT_STREQ(value.GetLocale(1), "de_DE");
  EXPECT_STREQ(value.GetLocale(0), "C");
  EXPECT_STREQ(value.SetLocale(nullptr), "");
}

TEST(QMMixedDataC, ComparesByTheLeftType) {
  const QMMixedDataC one(1.0, 0, 0), zero(0.0, 0, 0), minusZero(-0.0, 0, 0), nan(kNaN, 0, 0);
  EXPECT_TRUE(zero == minusZero);
  EXPECT_TRUE(one != zero);
  EXPECT_TRUE(nan == one) << "neither less nor greater";
  const QMMixedDataC abc("abc", 0), same("abc", 9), upper("ABC", 0);
  const QMMixedDataC unset(F::MD_TYPE_STRING, 0, 0);
  EXPECT_TRUE(abc == same);
  EXPECT_FALSE(abc == upper);
  EXPECT_TRUE(unset == abc) << "a text that is not set equals everything";
  EXPECT_FALSE(abc == unset);
  const QMMixedDataC minusOne(-1, 0, 0), max(kMaxUnsigned, 4, 0), other(5, 0, 0);
  EXPECT_TRUE(minusOne == max) << "32 bits, no sign, no format";
  EXPECT_TRUE(minusOne != other);
}

TEST(QMMixedDataC, KnowsItsExtremes) {
  const std::tuple<QMMixedDataC, bool, bool> kCases[] = {
      // minimum, maximum
      {QMMixedDataC(INT_MAX, 0, 0), false, true},
      {QMMixedDataC(INT_MIN, 0, 0), true, false},
      {QMMixedDataC(-1, 0, 0), false, false},
      {QMMixedDataC(0u, 0, 0), true, false},
      {QMMixedDataC(kMaxUnsigned, 0, 0), false, true},
      {QMMixedDataC(0ul, 0, 0), false, false},
      {QMMixedDataC(4294967295ul, 0, 0), false, false},
      {QMMixedDataC(F::MD_TYPE_ULONG | F::MD_UNSIGNED, 0, 0), true, false},
      {QMMixedDataC(kMaxDouble, 0, 0), false, true},
      {QMMixedDataC(-kMaxDouble, 0, 0), false, false},
      {QMMixedDataC(std::numeric_limits<double>::min(), 0, 0), true, false},
      {QMMixedDataC("", 0), false, false},
      {QMMixedDataC(), false, false},
  };
  for (const auto& [value, minimum, maximum] : kCases) {
    CString text;
    EXPECT_EQ(value.IsMinValue(), minimum) << QMMixedDataC(value).AToString(text, 0);
    EXPECT_EQ(value.IsMaxValue(), maximum) << QMMixedDataC(value).AToString(text, 0);
  }
}

TEST(QMMixedDataC, FormatsByTheRulesOfStreams) {
  constexpr unsigned kInt = F::MD_TYPE_INT;
  constexpr unsigned kDouble = F::MD_TYPE_DOUBLE;
  EXPECT_EQ(shown(kInt | F::MD_RADIX_HEX, 42, 6), "0x00002A") << "the prefix is outside the field";
  EXPECT_EQ(shown(kInt | F::MD_RADIX_HEX, -1, 12), "0xFFFFFFFF") << "negative: no field";
  EXPECT_EQ(shown(kInt | F::MD_UNSIGNED | F::MD_RADIX_HEX, -1, 9), "0x0FFFFFFFF");
  EXPECT_EQ(shown(kInt | F::MD_RADIX_OCTAL, 8, 5), "00010");
  EXPECT_EQ(shown(kInt | F::MD_RADIX_OCTAL, 8), "010");
  EXPECT_EQ(shown(kInt | F::MD_RADIX_DEFAULT, 42), "42");
  EXPECT_EQ(shown(kInt | 3, 42), "42");
  EXPECT_EQ(shown(kInt | F::MD_RIGHT, 42, 6), "000042");
  EXPECT_EQ(shown(kInt | F::MD_UNSIGNED, -3, 6), "0000-3") << "not negative, so it is padded";
  EXPECT_EQ(shown(kInt, -42, 6), "-42");
  EXPECT_EQ(shown(F::MD_TYPE_ULONG, 42ul, 4), "0042");

  EXPECT_EQ(shown(kDouble, 2.0, 8, 0), "0000002.") << "the point is always shown";
  EXPECT_EQ(shown(kDouble, -2.5, 10), "-2.50");
  EXPECT_EQ(shown(kDouble, -0.0, 8), "000-0.00");
  EXPECT_EQ(shown(kDouble | F::MD_GENERAL, 2.5, 0, 6), "2.50000");
  EXPECT_EQ(shown(kDouble | F::MD_GENERAL, 1e-9, 0, 3), "1.00e-09");
  EXPECT_EQ(shown(kDouble | F::MD_GENERAL | F::MD_RADIX_HEX, 1e-9, 0, 3), "0x1.00E-09");
  EXPECT_EQ(shown(kDouble, 1e15, 0, 6), "1099511627776.000000");
  EXPECT_EQ(shown(kDouble, kNaN, 5), "00nan");
  EXPECT_EQ(shown(kDouble, -std::numeric_limits<double>::infinity()), "-inf");
  EXPECT_EQ(shown(kDouble, -kMaxDouble, 0, 4294967295u).size(), 311u + 1100u);
  EXPECT_EQ(shown(kDouble, 1.0, 4294967295u).size(), 4096u);

  EXPECT_EQ(shown(kDouble, 1234567.5, 0, 2, kGerman), "1.234.567,50");
  EXPECT_EQ(shown(kInt | F::MD_UNIT_MM, 1234567, 12, 0, kGerman), "0001.234.567 mm");
  EXPECT_EQ(shown(kDouble, 1234567.5, 0, 2, "no such locale"), "1234567.50");

  QMMixedDataC text(F::MD_TYPE_STRING, 8, 0);
  CString out;
  EXPECT_STREQ(text.ToString(out, -7, 0), "      -7") << "a text value pads with blanks";
}

TEST(QMMixedDataC, ChoosesTheRange) {
  const struct {
    unsigned unit;
    double value;
    const char* text;
    double divisor;
  } kCases[] = {
      {F::MD_UNIT_BITRATE, 2500000, "2.50 Mb/s", 1e6},
      {F::MD_UNIT_BITRATE, 5e9, "5000.00 Mb/s", 1e6},
      {F::MD_UNIT_BITRATE, 1000, "1000.00 b/s", 1},
      {F::MD_UNIT_BITRATE, 1500, "1.50 Kb/s", 1e3},
      {F::MD_UNIT_POWER, 0.0005, "500.00 uW", 1e-6},
      {F::MD_UNIT_POWER, 0, "0.00 W", 1},
      {F::MD_UNIT_POWER, 1, "1000.00 mW", 1e-3},
      {F::MD_UNIT_POWER, 2e6, "2.00 MW", 1e6},
      {F::MD_UNIT_POWER, -3, "1.00", -3},
      {F::MD_UNIT_POWER, 1e-7, "1.00", 1e-7},
      {F::MD_UNIT_POWER | F::MD_AREA, 2500, "2.50 KW/cm^2", 1e3},
      {F::MD_UNIT_POWER | F::MD_AREA, -3, "1.00", -3},
      {F::MD_UNIT_MM | F::MD_AREA, 2e12, "0.20 sqmm", 1e13},
      {F::MD_UNIT_MM | F::MD_AREA, 2e6, "2.00 sqm", 1e6},
      {F::MD_UNIT_INCH | F::MD_AREA, 2, "2.00 sq\"", 1},
      {F::MD_UNIT_MM | F::MD_NO_UNITS, 2, "2.00", 7},
      {F::MD_UNIT_MM, 2, "2.00 mm", 7},
      {F::MD_UNIT_BITRATE | F::MD_NO_UNITS, 1500, "1.50", 1e3},
  };
  for (const auto& [unit, number, text, divisor] : kCases) {
    QMMixedDataC value(flags(F::MD_TYPE_DOUBLE | unit), 0, 2);
    value.SetDivisor(7);
    CString out;
    EXPECT_STREQ(value.ToString(out, number, 0), text);
    EXPECT_EQ(value.GetDivisor(), divisor) << text;
    EXPECT_EQ(value.GetPostFixDivisor(), divisor) << text;
  }
  EXPECT_EQ(shown(F::MD_TYPE_INT | F::MD_UNIT_BITRATE, 2500000), "2 Mb/s");
  EXPECT_EQ(shown(F::MD_TYPE_INT | F::MD_UNIT_POWER, 1), "1000 mW");

  // What was shown in a range is read back in it.
  QMMixedDataC rate(F::MD_TYPE_DOUBLE | F::MD_UNIT_BITRATE, 0, 3);
  rate.SetValue(2500000.0);
  CString text;
  rate.AToString(text, 0);
  rate.SetValue(0.0);
  rate.FromString(text, false);
  double number;
  EXPECT_EQ(rate.GetValue(&number), 2500000);
}

TEST(QMMixedDataC, NamesEveryUnit) {
  const std::tuple<unsigned, double, const char*> kCases[] = {
      {F::MD_UNIT_NONE, 1, ""},
      {F::MD_UNIT_INCH, 1, " \""},
      {F::MD_UNIT_POINT, 1, " pt"},
      {F::MD_UNIT_PERCENT, 1, " %"},
      {F::MD_UNIT_DEGREE, 1, " o"},
      {F::MD_UNIT_DPI, 1, " dpi"},
      {F::MD_UNIT_BITRATE, 1e9, " Gb/s"},
      {F::MD_UNIT_BITRATE, 7, " b/s"},
      {F::MD_UNIT_TIMECOUNTER, 1, ""},
      {F::MD_UNIT_CELSIUS, 1, " oC"},
      {F::MD_UNIT_ENERGY_DENSITY, 1, " uJ/cm^2"},
      {F::MD_UNIT_TIMECOUNTER_HMS, 1, ""},
      {F::MD_UNIT_POWER, 1e3, " KW"},
      {F::MD_UNIT_POWER, 7, ""},
      {0xD00000, 1, ""},
      {F::MD_UNIT_SCALED, 1, ""},
      {F::MD_UNIT_MM | F::MD_NO_UNITS, 1, ""},
      {F::MD_AREA, 1e12, " sqkm"},
      {F::MD_UNIT_INCH | F::MD_AREA, 1296, " sqyd"},
      {F::MD_UNIT_INCH | F::MD_AREA, 144, " sqft"},
      {F::MD_UNIT_POWER | F::MD_AREA, 1e-3, " mW/cm^2"},
      {F::MD_UNIT_POWER | F::MD_AREA | F::MD_PER_SECOND, 7, " mm/s"},
      {F::MD_UNIT_INCH | F::MD_PER_SECOND, 1296, " yd/s"},
      {F::MD_UNIT_INCH | F::MD_PER_SECOND, 144, " ft/s"},
      {F::MD_UNIT_INCH | F::MD_PER_SECOND, 1, " \"/s"},
      {F::MD_UNIT_MM | F::MD_PER_SECOND, 1e12, " km/s"},
      {F::MD_UNIT_MM | F::MD_PER_SECOND, 1e6, " m/s"},
      {F::MD_PER_SECOND, 1, " mm/s"},
  };
  for (const auto& [unit, divisor, text] : kCases) {
    QMMixedDataC value;
    value.SetPostFixDivisor(divisor);
    EXPECT_STREQ(value.GetPostFix(unit | F::MD_TYPE_DOUBLE), text) << std::hex << unit;
  }
  const std::tuple<const char*, unsigned, const char*, int> kStrips[] = {
      {"12 mm", F::MD_UNIT_MM, "12", 1},    {"12mm", F::MD_UNIT_MM, "12", 1},
      {"12 \t mm", F::MD_UNIT_MM, "12", 1}, {"12 MM", F::MD_UNIT_MM, "12 MM", 0},
      {"mm", F::MD_UNIT_MM, "mm", 0},       {"12 mm", F::MD_UNIT_NONE, "12 mm", 0},
  };
  for (const auto& [text, unit, rest, result] : kStrips) {
    CString stripped(text);
    EXPECT_EQ(Value().StripPostFix(stripped, unit), result) << text;
    EXPECT_STREQ(stripped, rest);
  }
}

TEST(QMMixedDataC, ConvertsUnits) {
  constexpr unsigned kDouble = F::MD_TYPE_DOUBLE | F::MD_CONVERT_UNITS;
  const struct {
    unsigned from, to;
    double factor;
  } kFactors[] = {
      {F::MD_UNIT_INCH, F::MD_UNIT_MM, 25.4},       {F::MD_UNIT_POINT, F::MD_UNIT_MM, 25.4 / 72},
      {F::MD_UNIT_DPI, F::MD_UNIT_MM, 1 / 25.4},    {F::MD_UNIT_MM, F::MD_UNIT_INCH, 1 / 25.4},
      {F::MD_UNIT_POINT, F::MD_UNIT_INCH, 1. / 72}, {F::MD_UNIT_MM, F::MD_UNIT_POINT, 72 / 25.4},
      {F::MD_UNIT_INCH, F::MD_UNIT_POINT, 72},      {F::MD_UNIT_MM, F::MD_UNIT_DPI, 25.4},
      {F::MD_UNIT_POINT, F::MD_UNIT_DPI, 72},       {F::MD_UNIT_INCH, F::MD_UNIT_DPI, 1},
      {F::MD_UNIT_DPI, F::MD_UNIT_INCH, 1},         {F::MD_UNIT_DPI, F::MD_UNIT_POINT, 1},
      {F::MD_UNIT_PERCENT, F::MD_UNIT_MM, 1},       {F::MD_UNIT_MM, F::MD_UNIT_SCALED, 4},
      {F::MD_UNIT_SCALED, F::MD_UNIT_MM, 0.25},
  };
  const QMMixedDataC any;
  for (const auto& [from, to, factor] : kFactors) {
    for (const unsigned precision : {0u, 2u, 4294967295u}) {
      EXPECT_NEAR(any.ConvertBetweenUnits(7.0, kDouble, from, to, precision, 4), 7 * factor, 1e-12)
          << std::hex << from << " " << to;
    }
  }
  for (const unsigned refusing :
       {unsigned(F::MD_TYPE_DOUBLE), kDouble | F::MD_NEVER_CONVERT, kDouble | F::MD_NO_UNITS}) {
    EXPECT_EQ(any.ConvertBetweenUnits(1.0, refusing, F::MD_UNIT_INCH, F::MD_UNIT_MM, 2, 1), 1.0);
  }

  // Areas come out multiplied by 10 to the power of the precision.
  constexpr unsigned kArea = kDouble | F::MD_AREA;
  EXPECT_DOUBLE_EQ(any.ConvertBetweenUnits(1.0, kArea, F::MD_UNIT_MM, F::MD_UNIT_INCH, 2, 1),
                   64516);
  EXPECT_DOUBLE_EQ(any.ConvertBetweenUnits(1.0, kArea, F::MD_UNIT_INCH, F::MD_UNIT_MM, 1, 1),
                   0.015500031000062);
  EXPECT_EQ(any.ConvertBetweenUnits(1.0, kArea, F::MD_UNIT_POINT, F::MD_UNIT_MM, 1, 1), 1.0);

  constexpr unsigned kInt = F::MD_TYPE_INT | F::MD_CONVERT_UNITS;
  const auto converted = [&](auto number, unsigned from, unsigned to) {
    return any.ConvertBetweenUnits(number, kInt, from, to, 0, 1e30);
  };
  EXPECT_EQ(converted(10, F::MD_UNIT_INCH, F::MD_UNIT_MM), 254);
  EXPECT_EQ(converted(1, F::MD_UNIT_INCH, F::MD_UNIT_MM), 25);
  EXPECT_EQ(converted(-1, F::MD_UNIT_INCH, F::MD_UNIT_MM), -25);
  EXPECT_EQ(converted(1u, F::MD_UNIT_MM, F::MD_UNIT_DPI), 26u) << "25.4 and 1.27";
  EXPECT_EQ(converted(1u, F::MD_UNIT_POINT, F::MD_UNIT_DPI), 75u) << "72 and 3.6";
  EXPECT_EQ(converted(254, F::MD_UNIT_MM, F::MD_UNIT_INCH), 10);
  EXPECT_EQ(converted(5, F::MD_UNIT_MM, F::MD_UNIT_SCALED), INT_MAX);
  EXPECT_EQ(converted(5u, F::MD_UNIT_MM, F::MD_UNIT_SCALED), kMaxUnsigned);

  const QMMixedDataC own(flags(kInt), 0, 0);
  int number = 10;
  EXPECT_EQ(own.ConvertBetweenUnits(&number, F::MD_UNIT_INCH, F::MD_UNIT_MM, 1), 254);
  EXPECT_EQ(number, 254);
}

TEST(QMMixedDataC, ReadsTexts) {
  QMMixedDataC value(F::MD_TYPE_DOUBLE, 0, 2);
  const std::tuple<const char*, double> kDoubles[] = {
      {"2.5", 2500}, {" -2.5 mm", -2500}, {"1e2x", 100000}, {"x", 0}, {"1e999", kMaxDouble * 1000},
  };
  value.SetPostFixDivisor(1000);
  for (const auto& [text, expected] : kDoubles) {
    double number = 7;
    EXPECT_EQ(value.FromString(text, number, 0), expected) << text;
    EXPECT_EQ(number, expected) << text;
  }
  const std::tuple<const char*, int, unsigned, unsigned long> kIntegers[] = {
      {"12 mm", 12, 12, 12},
      {"", 7, 7, 7},
      {"  ", 7, 7, 7},
      {"x", 0, 0, 0},
      {"4294967296", INT_MAX, kMaxUnsigned, 4294967295ul},
      {"-1", -1, kMaxUnsigned, 4294967295ul},
      {"0x10", 0, 0, 0},
  };
  for (const auto& [text, asInt, asUnsigned, asULong] : kIntegers) {
    int i = 7;
    unsigned u = 7;
    unsigned long ul = 7;
    EXPECT_EQ(value.FromString(text, i, 0), asInt) << text;
    EXPECT_EQ(value.FromString(text, u, 0), asUnsigned) << text;
    EXPECT_EQ(value.FromString(text, ul, 0), asULong) << text;
  }
  double number = 7;
  value.SetLocale(kGerman);
  EXPECT_EQ(value.FromString("1.234,5", number, 1), 1234500);
  EXPECT_EQ(value.FromString("1.5,5", number, 0), 1500);
  EXPECT_EQ(value.FromString(nullptr, number, 0), 1500);

  CString text;
  QMMixedDataC string("former", 3), integer(1, 0, 0);
  string.FromString("any length", false);
  EXPECT_STREQ(string.AToString(text, 0), "any length");
  integer.FromString("17 dpi", false);
  EXPECT_STREQ(integer.AToString(text, 0), "17");
}

TEST(QMMixedDataC, ChecksAndRepairsInput) {
  constexpr unsigned kInt = F::MD_TYPE_INT, kDouble = F::MD_TYPE_DOUBLE;
  const struct {
    unsigned bits;
    const char* text;
    const char* repaired;  // null: acceptable as it stands
  } kCases[] = {
      {kInt, "", nullptr},
      {kInt, "-12", nullptr},
      {kInt, "12x3", "123"},
      {kInt, "1-2", "12"},
      {kInt, "-+5", "-5"},
      {kInt, "12.5", "125"},
      {kInt, " 12", "12"},
      {kInt, "99999999999x", "2147483647"},
      {kInt | F::MD_UNSIGNED, "-5", "5"},
      {kInt | F::MD_UNSIGNED, "+", "0"},
      {kInt | F::MD_UNIT_MM, "12 mm", nullptr},
      {kInt | F::MD_UNIT_MM, "12 m", "12 mm"},
      {kDouble, "-1.5e-5", nullptr},
      {kDouble, "1.5e2.5", nullptr},
      {kDouble, "1.2.3", "1.23"},
      {kDouble, "-.5", "-5.00"},
      {kDouble, "1e1e1", "100000000000.00"},
      {kDouble, "1-5", "15.00"},
      {kDouble, "1,5", "15.00"},
      {kDouble | F::MD_UNIT_BITRATE, "2500000q", "2.50 Mb/s"},
      {F::MD_UNIT_TIMECOUNTER, "1:02:05.5", nullptr},
      {F::MD_UNIT_TIMECOUNTER, "1:02:05.5.", "00000001:02:05.500"},
      {F::MD_UNIT_TIMECOUNTER, "1:2:3:4", "00000001:02:34.000"},
      {F::MD_UNIT_TIMECOUNTER, "1h", "00000000:00:01.000"},
      {F::MD_UNIT_TIMECOUNTER, "-1:00", "00000000:01:00.000"},
      {F::MD_UNIT_TIMECOUNTER_HMS, "1h 02m 05s", nullptr},
      {F::MD_UNIT_TIMECOUNTER_HMS, "1h 02m 05", nullptr},
      {F::MD_UNIT_TIMECOUNTER_HMS, "1h 02m x5s", "1h 02m 05s"},
      {F::MD_UNIT_TIMECOUNTER_HMS, "-1h", "1h 00s"},
      {F::MD_UNIT_TIMECOUNTER_HMS, "1:2:3:4", "1h 02m 34s"},
  };
  for (const auto& [bits, text, repaired] : kCases) {
    QMMixedDataC value(flags(bits), 0, 2);
    CString input(text);
    EXPECT_EQ(value.ValidateInput(input, 0), repaired == nullptr) << text;
    EXPECT_STREQ(input, repaired != nullptr ? repaired : text);
  }
  QMMixedDataC limited("", 4);
  CString four("abcd"), six("abcdef");
  EXPECT_EQ(limited.ValidateInput(four, 0), 1);
  EXPECT_EQ(limited.ValidateInput(six, 0), 0);
  EXPECT_STREQ(six, "abcd");

  // The marks are those of the C runtime's locale, the form of what is written that of the value.
  ASSERT_NE(std::setlocale(LC_ALL, kGerman), nullptr);
  QMMixedDataC value(F::MD_TYPE_DOUBLE, 0, 2);
  CString comma("1.234,5"), twice("1,5,5");
  EXPECT_EQ(value.ValidateInput(comma, 0), 1);
  EXPECT_EQ(value.ValidateInput(twice, 0), 0);
  std::setlocale(LC_ALL, "C");
  EXPECT_STREQ(twice, "1.55");
}

TEST(QMMixedDataC, ShowsAndReadsElapsedTimes) {
  constexpr double kHuge = 9.2e15;
  const std::tuple<double, const char*, const char*> kCases[] = {
      {3725.5, "00000001:02:05.500", "1h 02m 05s"},
      {0, "00000000:00:00.000", "00s"},
      {1.001, "00000000:00:01.001", "01s"},
      {59.9996, "00000000:00:59.999", "59s"},
      {3600, "00000001:00:00.000", "1h 00s"},
      {359999999.999, "00099999:59:59.999", "99999h 59m 59s"},
      {-61.25, "-00000000:01:01.250", "-01m 01s"},
  };
  Value value(F::MD_TYPE_DOUBLE | F::MD_UNIT_TIMECOUNTER, 0, 0);
  double number;
  for (const auto& [seconds, text, textHMS] : kCases) {
    CString out, outHMS;
    EXPECT_STREQ(value.ToTimeCounterString(out, seconds), text);
    EXPECT_STREQ(value.ToTimeCounterStringHMS(outHMS, seconds), textHMS);
    EXPECT_NEAR(value.FromTimeCounter(out, &number), seconds, 0.0011) << text;
    EXPECT_EQ(value.FromTimeCounter(outHMS, nullptr), std::trunc(seconds)) << textHMS;
    value.FromString(text, false);
    CString again;
    EXPECT_STREQ(value.AToString(again, 0), text);
  }
  for (const auto& [text, seconds] : {std::pair{"5", 5.},
                                      {"2:05", 125},
                                      {"2:05.25", 125.25},
                                      {"", 0},
                                      {"x", 0},
                                      {":", 0},
                                      {"1h2:03", 3723},
                                      {"1.5h", 5400}}) {
    EXPECT_EQ(value.FromTimeCounter(text, nullptr), seconds) << text;
  }
  CString text;
  for (const double extreme : {kMaxDouble, -kMaxDouble, kHuge, kNaN}) {
    value.ToTimeCounterString(text, extreme);
    value.FromTimeCounter(text);
  }
  EXPECT_TRUE(std::isinf(value.FromTimeCounter(std::string(400, '9').c_str(), nullptr)));

  Value whole(F::MD_TYPE_INT | F::MD_UNIT_TIMECOUNTER_HMS, 0, 0);
  int seconds;
  whole.FromString("1:30", false);
  EXPECT_EQ(whole.GetValue(&seconds), 90);
  EXPECT_STREQ(whole.AToString(text, 0), "01m 30s");
}

/// Whether the n-th allocation of an operation failed.
bool fails(int n, const std::function<void()>& operation) {
  const qmtest::FailingAllocation nth(n);
  operation();
  return nth.hasFailed();
}

TEST(QMMixedDataC, WithoutMemoryEverythingStays) {
  qmtest::LogCapture log;
  const std::string longText(50, 't');
  QMMixedDataC density(F::MD_TYPE_DOUBLE | F::MD_UNIT_ENERGY_DENSITY, 40, 20);
  QMMixedDataC number(7.0, 0, 0), integer(7, 0, 0), text("former", 0);
  CString out, input;
  number.SetLocale(kGerman);
  const struct {
    const char* name;
    std::function<void()> operation;
    std::function<bool()> stayed;
  } kCases[] = {
      {"AToString", [&] { density.AToString(out, 0); }, [&] { return out == "former"; }},
      {"FromString", [&] { number.FromString("1.234,5", true); },
       [&] {
         double value;
         return number.GetValue(&value) == 7;
       }},
      {"ValidateInput", [&] { integer.ValidateInput(input, 0); },
       [&] { return input == "12x and more than a short string holds"; }},
      {"SetValue", [&] { text.SetValue(longText.c_str()); },
       [&] { return text.GetValue(out) == "former"; }},
      {"SetLocale", [&] { text.SetLocale(longText.c_str()); },
       [&] { return std::string(text.GetLocale(1)) == "former"; }},
  };
  for (const auto& [name, operation, stayed] : kCases) {
    for (int n = 1;; ++n) {
      out = "former";
      input = "12x and more than a short string holds";
      number.SetValue(7.0);
      text.SetValue("former");
      text.SetLocale("former");
      log.clear();
      const bool failed = fails(n, operation);
      if (!failed) {
        EXPECT_FALSE(stayed()) << name;
        EXPECT_GT(n, 1) << name;
        break;
      }
      // That a new locale cannot be remembered is the only failure without consequences.
      EXPECT_EQ(stayed(), log.contains("Memory allocation failed")) << name << " " << n;
    }
  }
  input = "12x and more than a short string holds";
  EXPECT_TRUE(fails(1, [&] { EXPECT_EQ(integer.ValidateInput(input, 0), 0); }));
}

}  // namespace
