// A rectangle in device units: the system's RECT with what the library asks of one. The right and
// bottom edges lie outside.
#pragma once

#include <algorithm>
#include <limits>

#include "qmutils/platform/types.h"

class CRect : public RECT {
 public:
  CRect() : RECT{0, 0, 0, 0} {}
  CRect(LONG l, LONG t, LONG r, LONG b) : RECT{l, t, r, b} {}

  LONG Width() const { return distance(left, right); }
  LONG Height() const { return distance(top, bottom); }

 private:
  /// What does not fit is cut.
  static LONG distance(LONG from, LONG to) {
    using Limits = std::numeric_limits<LONG>;
    const long long wide = static_cast<long long>(to) - from;
    return static_cast<LONG>(std::clamp<long long>(wide, Limits::min(), Limits::max()));
  }
};
