// Conversions between FILETIME (100 ns ticks since 1601), seconds since 1601, SYSTEMTIME and tm;
// the current time in each; durations split into days to milliseconds; times written on streams.
//
// A value stays in the time base (UTC or local) it came from. All functions may be called from any
// thread; none fails loudly: a time that cannot be represented gives zeros.
#pragma once

#include <concepts>
#include <cstdint>
#include <ctime>
#include <iosfwd>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

QMUTILS_API bool IsZero(const FILETIME& time);

/// Rounded to the nearest second, halves up.
QMUTILS_API std::uint64_t ToSeconds(const FILETIME& time);
QMUTILS_API std::uint64_t ToSeconds(const SYSTEMTIME& time);
QMUTILS_API double ToRealSeconds(const FILETIME& time);

QMUTILS_API FILETIME ToFileTime(const std::uint64_t& seconds);
/// Rounded to the nearest tick, halves away from zero; beyond the range the nearest end, NaN as 0.
QMUTILS_API FILETIME ToFileTime(const double& seconds);
/// Where `unsigned long long` is another type than std::uint64_t.
template <std::same_as<unsigned long long> Seconds>
requires(!std::same_as<Seconds, std::uint64_t>) FILETIME ToFileTime(const Seconds& seconds) {
  return ToFileTime(static_cast<std::uint64_t>(seconds));
}

QMUTILS_API SYSTEMTIME ToSystemTime(const std::uint64_t& seconds);
/// Milliseconds 0.
QMUTILS_API SYSTEMTIME ToSystemTime(const std::tm& time);

// Now, with millisecond resolution.
QMUTILS_API FILETIME GetSystemTimeAsFileTime();
QMUTILS_API FILETIME GetLocalTimeAsFileTime();
QMUTILS_API SYSTEMTIME GetSystemTime();
QMUTILS_API SYSTEMTIME GetLocalTime();
QMUTILS_API std::uint64_t GetSystemTimeInSeconds();
QMUTILS_API std::uint64_t GetLocalTimeInSeconds();

/// Splits a duration in seconds, each piece truncated. Negative durations give 0.
QMUTILS_API void Split(double seconds, unsigned& days, unsigned& hours, unsigned& minutes,
                       unsigned& secs, unsigned& ms);
/// The same without the days; hours stay within 0..23.
QMUTILS_API void Split(double seconds, unsigned& hours, unsigned& minutes, unsigned& secs,
                       unsigned& ms);

/// "Mon Nov 06 14:03:07.045 2006"; "???" for a weekday or month that does not exist.
QMUTILS_API std::ostream& operator<<(std::ostream& os, const SYSTEMTIME& time);
/// The same, or "Invalid File Time".
QMUTILS_API std::ostream& operator<<(std::ostream& os, const FILETIME& time);
