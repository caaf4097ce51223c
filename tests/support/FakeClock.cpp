#include "tests/support/FakeClock.h"

namespace qmtest {

using namespace qm::platform;

FakeClock::FakeClock() {
  const SYSTEMTIME start{2006, 11, 1, 6, 14, 3, 7, 45};
  setUtc(start);
  former_ = replaceTimeSource(this);
}

FakeClock::~FakeClock() { replaceTimeSource(former_); }

void FakeClock::advanceMs(std::int64_t milliseconds) noexcept {
  nanoseconds_ += milliseconds * 1'000'000;
  ticks_ += static_cast<std::uint64_t>(milliseconds * 10'000);
}

void FakeClock::setUtc(const SYSTEMTIME& utc) noexcept {
  FILETIME time{};
  systemTimeToFileTime(utc, &time);
  ticks_ = fileTimeTicks(time);
}

}  // namespace qmtest
