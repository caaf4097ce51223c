#include "qmutils/foundation/QMTime.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <ostream>

#include "qmutils/platform/clock.h"

namespace {

using namespace qm::platform;

constexpr std::uint64_t kTicksPerSecond = 10'000'000;

FILETIME toFileTime(const SYSTEMTIME& time) noexcept {
  FILETIME result{};
  systemTimeToFileTime(time, &result);
  return result;
}

/// Truncated toward zero; below 0 and NaN give 0.
unsigned whole(double value) noexcept {
  constexpr auto kMost = std::numeric_limits<unsigned>::max();
  if (!(value > 0)) return 0;
  return value >= kMost ? kMost : static_cast<unsigned>(value);
}

}  // namespace

bool IsZero(const FILETIME& time) { return time.dwLowDateTime == 0 && time.dwHighDateTime == 0; }

std::uint64_t ToSeconds(const FILETIME& time) {
  return (fileTimeTicks(time) + kTicksPerSecond / 2) / kTicksPerSecond;
}

std::uint64_t ToSeconds(const SYSTEMTIME& time) { return ToSeconds(toFileTime(time)); }

double ToRealSeconds(const FILETIME& time) {
  return static_cast<double>(static_cast<std::int64_t>(fileTimeTicks(time))) * 1e-7;
}

FILETIME ToFileTime(const std::uint64_t& seconds) {
  return fileTimeFromTicks(seconds * kTicksPerSecond);
}

FILETIME ToFileTime(const double& seconds) {
  const double ticks = seconds * 1e7;
  const double rounded = ticks < 0 ? std::ceil(ticks - 0.5) : std::floor(ticks + 0.5);
  constexpr double kLimit = 9223372036854775808.0;  // 2 to the 63rd
  std::int64_t value = 0;
  if (rounded >= kLimit) {
    value = std::numeric_limits<std::int64_t>::max();
  } else if (rounded < -kLimit) {
    value = std::numeric_limits<std::int64_t>::min();
  } else if (!std::isnan(rounded)) {
    value = static_cast<std::int64_t>(rounded);
  }
  return fileTimeFromTicks(static_cast<std::uint64_t>(value));
}

SYSTEMTIME ToSystemTime(const std::uint64_t& seconds) {
  SYSTEMTIME time{};
  fileTimeToSystemTime(ToFileTime(seconds), &time);
  return time;
}

SYSTEMTIME ToSystemTime(const std::tm& time) {
  return {static_cast<WORD>(time.tm_year + 1900), static_cast<WORD>(time.tm_mon + 1),
          static_cast<WORD>(time.tm_wday),        static_cast<WORD>(time.tm_mday),
          static_cast<WORD>(time.tm_hour),        static_cast<WORD>(time.tm_min),
          static_cast<WORD>(time.tm_sec),         0};
}

SYSTEMTIME GetSystemTime() { return utcSystemTime(); }
SYSTEMTIME GetLocalTime() { return localSystemTime(); }
FILETIME GetSystemTimeAsFileTime() { return toFileTime(GetSystemTime()); }
FILETIME GetLocalTimeAsFileTime() { return toFileTime(GetLocalTime()); }
std::uint64_t GetSystemTimeInSeconds() { return ToSeconds(GetSystemTimeAsFileTime()); }
std::uint64_t GetLocalTimeInSeconds() { return ToSeconds(GetLocalTimeAsFileTime()); }

void Split(double seconds, unsigned& days, unsigned& hours, unsigned& minutes, unsigned& secs,
           unsigned& ms) {
  // Multiplied by the constants in this order, not divided: that decides the last bit.
  constexpr double kPerSixty = 1.0 / 60;
  constexpr double kPerTwentyFour = 1.0 / 24;
  ms = whole(std::fmod(seconds, 1) * 1000);
  secs = whole(std::fmod(seconds, 60));
  minutes = whole(std::fmod(seconds * kPerSixty, 60));
  hours = whole(std::fmod(seconds * kPerSixty * kPerSixty, 24));
  days = whole(seconds * kPerSixty * kPerSixty * kPerTwentyFour);
}

void Split(double seconds, unsigned& hours, unsigned& minutes, unsigned& secs, unsigned& ms) {
  unsigned days = 0;
  Split(seconds, days, hours, minutes, secs, ms);
}

std::ostream& operator<<(std::ostream& os, const SYSTEMTIME& time) {
  constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const char* day = time.wDayOfWeek < 7 ? kDays[time.wDayOfWeek] : "???";
  const char* month = time.wMonth >= 1 && time.wMonth <= 12 ? kMonths[time.wMonth - 1] : "???";
  char text[64];
  std::snprintf(text, sizeof text, "%s %s %02u %02u:%02u:%02u.%03u %04u", day, month, time.wDay,
                time.wHour, time.wMinute, time.wSecond, time.wMilliseconds, time.wYear);
  return os << text;
}

std::ostream& operator<<(std::ostream& os, const FILETIME& time) {
  SYSTEMTIME split{};
  return fileTimeToSystemTime(time, &split) ? os << split : os << "Invalid File Time";
}
