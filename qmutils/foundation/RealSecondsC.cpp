#include "qmutils/foundation/RealSecondsC.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ostream>

#include "qmutils/foundation/QMTime.h"
#include "qmutils/platform/clock.h"

namespace {

double ticksPerSecond() noexcept {
  static const auto frequency = static_cast<double>(qm::platform::performanceFrequency());
  return frequency;
}

}  // namespace

RealSecondsC::RealSecondsC() noexcept { Reset(); }

void RealSecondsC::Reset() noexcept { m_Counter.QuadPart = qm::platform::performanceCounter(); }

double RealSecondsC::Time() const noexcept {
  return static_cast<double>(m_Counter.QuadPart) / ticksPerSecond();
}

double RealSecondsC::Ago() const noexcept {
  const auto now = qm::platform::performanceCounter();
  if (now <= m_Counter.QuadPart) return 0;
  const auto passed =
      static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(m_Counter.QuadPart);
  return static_cast<double>(passed) / ticksPerSecond();
}

DWORD RealSecondsC::NextTimeOut(const DWORD& timeoutMs) const noexcept {
  if (timeoutMs == 0 || timeoutMs == INFINITE) return timeoutMs;
  const double remaining = timeoutMs / 1000.0 - Ago();
  if (remaining <= 0) return 0;
  // The largest time-out stays finite.
  return std::min(static_cast<DWORD>(remaining * 1000), INFINITE - 2) + 1;
}

std::ostream& operator<<(std::ostream& os, const RealSecondsC& moment) {
  const double ago = moment.Ago();
  const double then = ToRealSeconds(GetLocalTimeAsFileTime()) - ago;
  SYSTEMTIME time{};
  qm::platform::fileTimeToSystemTime(ToFileTime(then), &time);
  char clock[32];
  std::snprintf(clock, sizeof clock, "%02u:%02u:%02u.%03u ", time.wHour, time.wMinute, time.wSecond,
                time.wMilliseconds);
  return os << moment.Time() << " (" << clock << ago * 1000 << " mSec ago)";
}
