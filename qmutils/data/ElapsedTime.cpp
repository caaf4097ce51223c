#include "qmutils/data/ElapsedTime.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

#include "qmutils/data/Saturated.h"

namespace qm {

namespace {

struct Split {
  explicit Split(double seconds) {
    // Cut, not rounded; but 1.001 s, a little less in binary, still has its last millisecond.
    constexpr double kTolerance = 0.0005;
    auto left = saturated<std::int64_t>(std::fabs(seconds) * 1000 + kTolerance);
    sign = seconds < 0 && left != 0 ? "-" : "";
    milliseconds = static_cast<int>(left % 1000);
    left /= 1000;
    this->seconds = static_cast<int>(left % 60);
    left /= 60;
    minutes = static_cast<int>(left % 60);
    hours = left / 60;
  }
  const char* sign;
  long long hours;
  int minutes;
  int seconds;
  int milliseconds;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isBlank(char c) { return c == ' ' || c == '\t'; }

void skipBlanks(std::string_view& text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
}

double takeNumber(std::string_view& text) {
  double number = 0;
  for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1)) {
    number = number * 10 + (text.front() - '0');
  }
  return number;
}

/// Behind the '.'.
double takeFraction(std::string_view& text) {
  double number = 0;
  double scale = 1;
  constexpr double kFinest = 1e15;  // what more digits say is lost in a double anyway
  for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1)) {
    if (scale >= kFinest) continue;
    number = number * 10 + (text.front() - '0');
    scale *= 10;
  }
  return number / scale;
}

/// Seconds in one of the unit that a letter names; 0 for no such letter.
double secondsIn(char letter) {
  switch (letter) {
    case 'h':
      return 3600;
    case 'm':
      return 60;
    case 's':
      return 1;
    default:
      return 0;
  }
}

}  // namespace

void elapsedTimeText(char (&text)[kElapsedTimeSize], double seconds) noexcept {
  const Split time(seconds);
  std::snprintf(text, sizeof text, "%s%08lld:%02d:%02d.%03d", time.sign, time.hours, time.minutes,
                time.seconds, time.milliseconds);
}

void elapsedTimeTextHMS(char (&text)[kElapsedTimeSize], double seconds) noexcept {
  const Split time(seconds);
  int length = std::snprintf(text, sizeof text, "%s", time.sign);
  const auto append = [&](const char* format, auto value) {
    length +=
        std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length), format, value);
  };
  if (time.hours != 0) append("%lldh ", time.hours);
  if (time.minutes != 0) append("%02dm ", time.minutes);
  append("%02ds", time.seconds);
}

double secondsOfText(std::string_view text, std::size_t* end) noexcept {
  const std::size_t length = text.size();
  skipBlanks(text);
  const bool negative = text.starts_with('-');
  if (negative) text.remove_prefix(1);
  double total = 0;  // of the fields behind which a letter stood
  double field = 0;  // the others, the last one in seconds
  for (;;) {
    skipBlanks(text);
    field += takeNumber(text);
    if (text.starts_with('.')) {
      text.remove_prefix(1);
      field += takeFraction(text);
    }
    const double unit = text.empty() ? 0 : secondsIn(text.front());
    if (unit != 0) {
      total += field * unit;
      field = 0;
    } else if (text.starts_with(':')) {
      field *= 60;
    } else {
      break;
    }
    text.remove_prefix(1);
  }
  if (end != nullptr) *end = length - text.size();
  total += field;
  return negative ? -total : total;
}

}  // namespace qm
