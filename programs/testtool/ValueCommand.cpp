#include <algorithm>
#include <clocale>
#include <cstdio>
#include <iterator>
#include <string>

#include "programs/testtool/Command.h"
#include "qmutils/data/QMMixedDataC.h"

namespace programs {
namespace {

using Format = CMDFormat;

struct Word {
  const char* word;
  Format::FormatFlagsT flags;
};

constexpr Word kTypes[] = {
    {"double", Format::MD_TYPE_DOUBLE},
    {"int", Format::MD_TYPE_INT},
    {"unsigned", Format::MD_TYPE_INT | Format::MD_UNSIGNED},
    {"ulong", Format::MD_TYPE_ULONG},
    {"text", Format::MD_TYPE_STRING},
};

constexpr Word kUnits[] = {
    {"none", Format::MD_UNIT_NONE},
    {"inch", Format::MD_UNIT_INCH},
    {"mm", Format::MD_UNIT_MM},
    {"point", Format::MD_UNIT_POINT},
    {"percent", Format::MD_UNIT_PERCENT},
    {"degree", Format::MD_UNIT_DEGREE},
    {"dpi", Format::MD_UNIT_DPI},
    {"bitrate", Format::MD_UNIT_BITRATE},
    {"time", Format::MD_UNIT_TIMECOUNTER},
    {"hms", Format::MD_UNIT_TIMECOUNTER_HMS},
    {"celsius", Format::MD_UNIT_CELSIUS},
    {"energy", Format::MD_UNIT_ENERGY_DENSITY},
    {"power", Format::MD_UNIT_POWER},
    {"scaled", Format::MD_UNIT_SCALED},
};

constexpr Word kSwitches[] = {
    {"--area", Format::MD_AREA},         {"--per-second", Format::MD_PER_SECOND},
    {"--no-units", Format::MD_NO_UNITS}, {"--general", Format::MD_GENERAL},
    {"--hex", Format::MD_RADIX_HEX},     {"--octal", Format::MD_RADIX_OCTAL},
};

template <std::size_t N>
bool findWord(const Word (&table)[N], const std::string& word, unsigned& flags) {
  const auto* found = std::ranges::find(table, word, &Word::word);
  if (found == std::end(table)) return false;
  flags |= found->flags;
  return true;
}

struct Request {
  std::string text;
  bool hasText = false;
  unsigned type = 0;
  unsigned unit = 0;
  unsigned to = 0;
  bool converts = false;
  unsigned switches = 0;
  std::string locale = "C";
  long long width = 0;
  long long precision = 6;
  double scale = 1;

  QMMixedDataC valueIn(unsigned ofUnit) const {
    QMMixedDataC value(static_cast<Format::FormatFlagsT>(type | ofUnit | switches),
                       static_cast<unsigned>(width), static_cast<unsigned>(precision));
    value.SetLocale(locale.c_str());
    return value;
  }
};

bool isTime(unsigned unit) {
  return unit == Format::MD_UNIT_TIMECOUNTER || unit == Format::MD_UNIT_TIMECOUNTER_HMS;
}

/// False for units without a factor between them, which the library leaves as they are.
bool isConvertible(const Request& request) {
  constexpr unsigned kFlags = Format::MD_TYPE_DOUBLE | Format::MD_CONVERT_UNITS;
  if (request.unit == request.to || (isTime(request.unit) && isTime(request.to))) return true;
  return QMMixedDataC().ConvertBetweenUnits(1.0, kFlags, request.unit, request.to, 6, 2.0) != 1.0;
}

/// Empty, or what is wrong with the command line.
std::string parse(const Arguments& arguments, Request& request) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    std::string value;
    const auto wants = [&](const char* option) {
      return argument == option && takeValue(arguments, i, value);
    };
    if (findWord(kSwitches, argument, request.switches)) continue;
    if (wants("--type")) {
      request.type = 0;
      if (!findWord(kTypes, value, request.type)) return "there is no type '" + value + "'";
    } else if (wants("--unit")) {
      request.unit = 0;
      if (!findWord(kUnits, value, request.unit)) return "there is no unit '" + value + "'";
    } else if (wants("--to")) {
      request.to = 0;
      request.converts = true;
      if (!findWord(kUnits, value, request.to)) return "there is no unit '" + value + "'";
    } else if (wants("--locale")) {
      request.locale = value;
    } else if (wants("--width")) {
      if (!parseNumber(value, 0LL, 4096LL, request.width)) return "--width wants 0 to 4096";
    } else if (wants("--precision")) {
      if (!parseNumber(value, 0LL, 300LL, request.precision)) return "--precision wants 0 to 300";
    } else if (wants("--scale")) {
      if (!parseNumber(value, 1e-300, 1e300, request.scale)) return "--scale wants a number over 0";
    } else if (!request.hasText && !argument.starts_with("--")) {
      request.text = argument;
      request.hasText = true;
    } else {
      return "unknown argument '" + argument + "', or its value is missing";
    }
  }
  if (!request.hasText) return "no value given";
  if (request.type == 0) request.type = Format::MD_TYPE_DOUBLE;
  if (request.converts && (request.switches & Format::MD_AREA) != 0) {
    return "areas are not converted";
  }
  if (request.type == Format::MD_TYPE_STRING && (request.converts || request.unit != 0)) {
    return "a text has no unit";
  }
  if (request.converts && !isConvertible(request)) return "there is no factor between these units";
  return {};
}

/// Lets a value understand a postfix of its unit other than the plain one: Kb/s, mW, sqm. Not
/// those of speeds, which stand for the factors of areas.
void matchRange(QMMixedDataC& value, const std::string& text) {
  constexpr double kDivisors[] = {1, 1e-6, 1e-3, 1e3, 1e6, 1e9, 1e12, 144, 1296};
  const unsigned flags = value.GetFlags();
  if ((flags & Format::MD_TYPE_DOUBLE) == 0 || (flags & Format::MD_PER_SECOND) != 0) return;
  for (const double divisor : kDivisors) {
    value.SetPostFixDivisor(divisor);
    const std::string postFix = value.GetPostFix(flags);
    if (!postFix.empty() && text.ends_with(postFix)) return;
  }
  value.SetPostFixDivisor(1);
}

/// True when a number of an integer type was beyond its range, or there was no number at all.
bool isMisread(const Request& request, const QMMixedDataC& value, const CString& text) {
  if (request.type == Format::MD_TYPE_STRING || isTime(request.unit)) return false;
  if (text.view().find_first_of("0123456789") == std::string_view::npos) return true;
  if (request.type == Format::MD_TYPE_DOUBLE) return false;
  QMMixedDataC plain(Format::MD_TYPE_DOUBLE, 0, 0);
  plain.SetLocale(request.locale.c_str());
  double given = 0;
  plain.FromString(text, given, 1);
  int number = value.GetValue(&number);
  unsigned natural = value.GetValue(&natural);
  const double read = request.type == Format::MD_TYPE_INT ? static_cast<double>(number)
                                                          : static_cast<double>(natural);
  return given != read;
}

QMMixedDataC converted(const Request& request, const QMMixedDataC& from) {
  const unsigned flags = (from.GetFlags() | Format::MD_CONVERT_UNITS) & ~Format::MD_NO_UNITS;
  const auto precision = static_cast<unsigned>(request.precision);
  const auto convert = [&](auto number) {
    from.GetValue(&number);
    return from.ConvertBetweenUnits(number, flags, request.unit, request.to, precision,
                                    request.scale);
  };
  QMMixedDataC value = request.valueIn(request.to);
  if (request.type == Format::MD_TYPE_DOUBLE) {
    value.SetValue(convert(0.0));
  } else if (request.type == Format::MD_TYPE_INT) {
    value.SetValue(convert(0));
  } else {
    value.SetValue(convert(0u));
  }
  return value;
}

int run(const Arguments& arguments) {
  Request request;
  const std::string complaint = parse(arguments, request);
  if (!complaint.empty()) return usageError(kValueCommand, complaint);

  // Input is checked by the marks of the C runtime's locale.
  if (std::setlocale(LC_ALL, request.locale.c_str()) == nullptr) {
    return usageError(kValueCommand, "there is no locale '" + request.locale + "'");
  }
  QMMixedDataC value = request.valueIn(request.unit);
  matchRange(value, request.text);
  CString text(request.text.c_str());
  if (value.ValidateInput(text, 1) == 0) {
    std::fprintf(stderr, "testtool value: '%s' is no such value; it would be taken as '%s'\n",
                 request.text.c_str(), static_cast<const char*>(text));
    return kFailure;
  }
  value.FromString(text, true);
  if (isMisread(request, value, text)) {
    std::fprintf(stderr, "testtool value: '%s' is no number of this type\n", request.text.c_str());
    return kFailure;
  }
  if (request.converts) value = converted(request, value);
  value.AToString(text, 1);
  std::puts(text);
  return kSuccess;
}

}  // namespace

const Command kValueCommand = {
    "value", "check, convert and format a value with a unit",
    "usage: testtool value VALUE [OPTIONS]\n"
    "Reads a value as an operator types it ('12.5', '12.5 mm', '1:02:05.5', '2.5 Mb/s'), checks "
    "it,\n"
    "and prints it in the form of its type and unit.\n"
    "  --type TYPE      double, int, unsigned, ulong, text (double)\n"
    "  --unit UNIT      none, inch, mm, point, percent, degree, dpi, bitrate, time, hms, celsius,\n"
    "                   energy, power, scaled (none)\n"
    "  --to UNIT        convert into that unit; dpi and mm: dots per inch and per millimetre\n"
    "  --scale FACTOR   how many of 'scaled' are one of the other unit (1)\n"
    "  --area, --per-second, --no-units\n"
    "  --precision N    digits behind the decimal point (6)\n"
    "  --width N        pad to that width; of a text, its greatest length\n"
    "  --general, --hex, --octal\n"
    "  --locale NAME    the locale of the input and the result, '' for the environment's (C)\n"
    "The library's rules show: nothing above 2^40 is shown, powers below 1 uW are shown as 1, "
    "rates\n"
    "and areas choose their range.\n"
    "For instance: testtool value 12.5 --unit mm --to inch\n",
    run};

}  // namespace programs
