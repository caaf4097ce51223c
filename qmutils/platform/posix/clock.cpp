#include "qmutils/platform/clock.h"

#include <time.h>

#include <atomic>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/unix_time.h"
#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform {

namespace {

constexpr std::int64_t kNanosecondsPerMs = 1'000'000;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t kTicksPerMs = 10'000;
constexpr std::uint64_t kTicksPerDay = 86'400 * kTicksPerSecond;
constexpr unsigned kFirstYear = 1601;
constexpr unsigned kLastYear = 30827;

std::atomic<TimeSource*> replacement{nullptr};

timespec read(clockid_t clock) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return now;
}

constexpr bool isLeapYear(unsigned year) noexcept {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

constexpr unsigned daysInMonth(unsigned year, unsigned month) noexcept {
  constexpr unsigned char kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

// Counting years from March puts the leap day at the end of the year, so that the day of the year
// of a month's first day is one linear formula: (153 * month + 2) / 5 with March as month 0.
// Periods of 400 years repeat exactly. 1600-03-01, where counting starts, is 306 days before
// 1601-01-01.
constexpr unsigned kMarchYear = 1600;
constexpr unsigned kDaysFromMarch1600 = 306;
constexpr unsigned kDaysPer400Years = 146'097;

constexpr unsigned daysSince1601(unsigned year, unsigned month, unsigned day) noexcept {
  const unsigned marchYears = year - kMarchYear - (month <= 2 ? 1 : 0);
  const unsigned marchMonth = (month + 9) % 12;
  return marchYears * 365 + marchYears / 4 - marchYears / 100 + marchYears / 400 +
         (153 * marchMonth + 2) / 5 + day - 1 - kDaysFromMarch1600;
}
static_assert(daysSince1601(1601, 1, 1) == 0);
static_assert(daysSince1601(1970, 1, 1) == 134'774);

constexpr void setDate(unsigned days, SYSTEMTIME* time) noexcept {
  const unsigned fromMarch = days + kDaysFromMarch1600;
  const unsigned era = fromMarch / kDaysPer400Years;
  const unsigned dayOfEra = fromMarch % kDaysPer400Years;
  // Takes out the leap days before the division: one each 4 years (1,461 days), less one each 100
  // years (36,524), plus the one at the era's end.
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned marchMonth = (5 * dayOfYear + 2) / 153;
  const unsigned month = marchMonth < 10 ? marchMonth + 3 : marchMonth - 9;
  time->wDay = static_cast<WORD>(dayOfYear - (153 * marchMonth + 2) / 5 + 1);
  time->wMonth = static_cast<WORD>(month);
  time->wYear = static_cast<WORD>(kMarchYear + era * 400 + yearOfEra + (month <= 2 ? 1 : 0));
  time->wDayOfWeek = static_cast<WORD>((days + 1) % 7);  // 1601-01-01 was a Monday
}

SYSTEMTIME split(std::uint64_t ticks) noexcept {
  SYSTEMTIME time{};
  setDate(static_cast<unsigned>(ticks / kTicksPerDay), &time);
  const auto ms = static_cast<unsigned>(ticks % kTicksPerDay / kTicksPerMs);
  time.wHour = static_cast<WORD>(ms / 3'600'000);
  time.wMinute = static_cast<WORD>(ms / 60'000 % 60);
  time.wSecond = static_cast<WORD>(ms / 1000 % 60);
  time.wMilliseconds = static_cast<WORD>(ms % 1000);
  return time;
}

bool isValid(const SYSTEMTIME& time) noexcept {
  return time.wYear >= kFirstYear && time.wYear <= kLastYear && time.wMonth >= 1 &&
         time.wMonth <= 12 && time.wDay >= 1 && time.wDay <= daysInMonth(time.wYear, time.wMonth) &&
         time.wHour < 24 && time.wMinute < 60 && time.wSecond < 60 && time.wMilliseconds < 1000;
}

}  // namespace

TimeSource* replaceTimeSource(TimeSource* source) noexcept { return replacement.exchange(source); }

bool timeSourceReplaced() noexcept { return replacement.load() != nullptr; }

std::int64_t monotonicNanoseconds() noexcept {
  if (TimeSource* source = replacement.load()) return source->monotonicNanoseconds();
  const timespec now = read(CLOCK_MONOTONIC);
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

std::int64_t performanceCounter() noexcept { return monotonicNanoseconds(); }
std::int64_t performanceFrequency() noexcept { return kNanosecondsPerSecond; }

std::uint64_t utcTicks() noexcept {
  if (TimeSource* source = replacement.load()) return source->utcTicks();
  return ticksFromTimespec(read(CLOCK_REALTIME));
}

SYSTEMTIME localSystemTimeAt(std::uint64_t ticks) noexcept {
  const time_t seconds = unixSecondsFromTicks(ticks);
  tm local{};
  {
    const SuspensionDeferral zoneLock;  // the C library's
    localtime_r(&seconds, &local);      // fails only for years beyond an int
  }
  SYSTEMTIME time{};
  time.wYear = static_cast<WORD>(local.tm_year + 1900);
  time.wMonth = static_cast<WORD>(local.tm_mon + 1);
  time.wDayOfWeek = static_cast<WORD>(local.tm_wday);
  time.wDay = static_cast<WORD>(local.tm_mday);
  time.wHour = static_cast<WORD>(local.tm_hour);
  time.wMinute = static_cast<WORD>(local.tm_min);
  time.wSecond = static_cast<WORD>(local.tm_sec);
  time.wMilliseconds = static_cast<WORD>(ticks % kTicksPerSecond / kTicksPerMs);
  return time;
}

SYSTEMTIME utcSystemTime() noexcept { return split(utcTicks()); }
SYSTEMTIME localSystemTime() noexcept { return localSystemTimeAt(utcTicks()); }

bool fileTimeToSystemTime(const FILETIME& from, SYSTEMTIME* to) noexcept {
  const std::uint64_t ticks = fileTimeTicks(from);
  if (static_cast<std::int64_t>(ticks) < 0) {
    setLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  *to = split(ticks);
  return true;
}

bool systemTimeToFileTime(const SYSTEMTIME& from, FILETIME* to) noexcept {
  if (!isValid(from)) {
    setLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  const std::uint64_t ms =
      ((std::uint64_t{from.wHour} * 60 + from.wMinute) * 60 + from.wSecond) * 1000 +
      from.wMilliseconds;
  *to = fileTimeFromTicks(daysSince1601(from.wYear, from.wMonth, from.wDay) * kTicksPerDay +
                          ms * kTicksPerMs);
  return true;
}

Deadline Deadline::after(DWORD timeoutMs) noexcept {
  if (timeoutMs == INFINITE) return Deadline(kNever);
  return Deadline(monotonicNanoseconds() + timeoutMs * kNanosecondsPerMs);
}

bool Deadline::passed() const noexcept {
  return !never() && monotonicNanoseconds() >= nanoseconds_;
}

DWORD Deadline::remainingMs() const noexcept {
  if (never()) return INFINITE;
  const std::int64_t left = nanoseconds_ - monotonicNanoseconds();
  if (left <= 0) return 0;
  const std::int64_t ms = (left + kNanosecondsPerMs - 1) / kNanosecondsPerMs;
  return ms >= INFINITE ? INFINITE - 1 : static_cast<DWORD>(ms);
}

}  // namespace qm::platform
