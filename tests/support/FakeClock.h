// A clock that stands still until a test moves it, installed for the life of the object. Its
// monotonic time begins at the system's, so that a wait in progress keeps its deadline.
#pragma once

#include <atomic>
#include <cstdint>

#include "qmutils/platform/clock.h"

namespace qmtest {

class FakeClock : public qm::platform::TimeSource {
 public:
  FakeClock();
  ~FakeClock() override;
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void advanceMs(std::int64_t milliseconds) noexcept;
  /// Sets the wall clock (UTC); the monotonic clock does not move.
  void setUtc(const SYSTEMTIME& utc) noexcept;

  /// How often the monotonic clock was looked at: a wait does so at its beginning, for its
  /// deadline.
  unsigned looks() const noexcept { return looks_; }

  std::int64_t monotonicNanoseconds() noexcept override {
    const std::int64_t now = nanoseconds_;
    ++looks_;
    return now;
  }
  std::uint64_t utcTicks() noexcept override { return ticks_.load(); }

 private:
  std::atomic<std::int64_t> nanoseconds_{qm::platform::monotonicNanoseconds()};
  std::atomic<std::uint64_t> ticks_;
  std::atomic<unsigned> looks_{0};
  qm::platform::TimeSource* former_;
};

}  // namespace qmtest
