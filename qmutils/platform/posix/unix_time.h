// The system's times (seconds since 1970) as ticks since 1601 and back. For platform/posix/ only.
#pragma once

#include <time.h>

#include <cstdint>

namespace qm::platform {

inline constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;
inline constexpr std::uint64_t kTicksPerSecond = 10'000'000;

inline std::uint64_t ticksFromTimespec(const timespec& time) noexcept {
  return static_cast<std::uint64_t>(time.tv_sec + kSecondsFrom1601To1970) * kTicksPerSecond +
         static_cast<std::uint64_t>(time.tv_nsec / 100);
}

inline time_t unixSecondsFromTicks(std::uint64_t ticks) noexcept {
  return static_cast<time_t>(ticks / kTicksPerSecond) - kSecondsFrom1601To1970;
}

}  // namespace qm::platform
