// A stopwatch on the performance counter: the moment of its making or last reset, and what has
// passed since. A small value type without locks; reading the counter costs some ten nanoseconds.
#pragma once

#include <iosfwd>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API RealSecondsC {
 public:
  RealSecondsC() noexcept;
  /// A moment taken elsewhere, in ticks of the performance counter.
  RealSecondsC(const LARGE_INTEGER& counter) noexcept : m_Counter(counter) {}

  void Reset() noexcept;
  /// The moment on the performance counter, in seconds.
  double Time() const noexcept;
  /// Seconds since the moment; 0 for one that lies ahead.
  double Ago() const noexcept;
  /// What is left of a time-out (ms) that started at the moment: 0 when it has passed, else the
  /// whole milliseconds left plus one, so that a wait for it never ends before the deadline. 0 and
  /// INFINITE stay as they are.
  DWORD NextTimeOut(const DWORD& timeoutMs) const noexcept;

 private:
  LARGE_INTEGER m_Counter;
};

/// "12.5 (14:03:07.045 500 mSec ago)": the counter in seconds, the local time of the moment, how
/// long ago it is.
QMUTILS_API std::ostream& operator<<(std::ostream& os, const RealSecondsC& moment);
