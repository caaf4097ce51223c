// Clocks: a monotonic counter for intervals and deadlines, the wall clock, and conversions between
// FILETIME (100 ns ticks since 1601) and SYSTEMTIME over the whole range of both.
//
// Every wait, sleep and time stamp of the library reads the time here. A test replaces the source
// and so drives time-outs of minutes and days in milliseconds. All functions may be called from
// any thread.
#pragma once

#include <cstdint>

#include "qmutils/platform/types.h"

namespace qm::platform {

/// Where the time comes from. A replacement must outlive its use and be callable from any thread.
class TimeSource {
 public:
  virtual ~TimeSource() = default;
  /// Nanoseconds of a clock that never goes back; its start is arbitrary but not negative.
  virtual std::int64_t monotonicNanoseconds() noexcept = 0;
  /// UTC as 100 ns ticks since 1601.
  virtual std::uint64_t utcTicks() noexcept = 0;
};

/// Installs a source (null: the system's) and returns the one in force before (null: the
/// system's). Waits in progress notice within a few milliseconds.
TimeSource* replaceTimeSource(TimeSource* source) noexcept;
/// True while a replacement is installed; waits then look at the clock again every millisecond.
bool timeSourceReplaced() noexcept;

std::int64_t monotonicNanoseconds() noexcept;

/// Ticks of the performance counter and their number per second.
std::int64_t performanceCounter() noexcept;
std::int64_t performanceFrequency() noexcept;

/// UTC now, as 100 ns ticks since 1601.
std::uint64_t utcTicks() noexcept;
/// The local date and time of a UTC moment, by the time zone's rules of that moment.
SYSTEMTIME localSystemTimeAt(std::uint64_t utcTicks) noexcept;

/// Now, with millisecond resolution.
SYSTEMTIME utcSystemTime() noexcept;
SYSTEMTIME localSystemTime() noexcept;

/// Fails (false, last error 87) for ticks with the top bit set.
bool fileTimeToSystemTime(const FILETIME& from, SYSTEMTIME* to) noexcept;
/// Fails (false, last error 87) for a date that does not exist or a year outside 1601..30827;
/// the day of week is ignored.
bool systemTimeToFileTime(const SYSTEMTIME& from, FILETIME* to) noexcept;

inline std::uint64_t fileTimeTicks(const FILETIME& time) noexcept {
  return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}
inline FILETIME fileTimeFromTicks(std::uint64_t ticks) noexcept {
  return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

/// A point in time at which a wait gives up. Kept absolute so that a wait that is interrupted or
/// repeated never lasts longer than asked.
class Deadline {
 public:
  /// `timeoutMs` from now; INFINITE never passes.
  static Deadline after(DWORD timeoutMs) noexcept;

  bool never() const noexcept { return nanoseconds_ == kNever; }
  bool passed() const noexcept;
  /// What is left, rounded up to whole milliseconds: 0 when passed, INFINITE when it never does.
  DWORD remainingMs() const noexcept;
  /// On the clock of monotonicNanoseconds().
  std::int64_t nanoseconds() const noexcept { return nanoseconds_; }

 private:
  static constexpr std::int64_t kNever = INT64_MAX;
  explicit Deadline(std::int64_t nanoseconds) noexcept : nanoseconds_(nanoseconds) {}
  std::int64_t nanoseconds_;
};

}  // namespace qm::platform
