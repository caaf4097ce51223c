// Wall-clock arithmetic in milliseconds since 1601, local time. Any thread may call it. The wall
// clock jumps when it is set; intervals are measured with RealSecondsC.
#pragma once

#include <cstdint>

#include "qmutils/platform/export.h"

class QMUTILS_API QMTimeC {
 public:
  static std::int64_t GetTimeMS();
  /// a - b, wrapping around
  static std::int64_t Difference(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
  }
};
