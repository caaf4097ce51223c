// A rectangle in device units: the system's RECT with what the library asks of one. The right and
// bottom edges lie outside.
#pragma once

#include <algorithm>
#include <limits>

#include "qmutils/platform/types.h"

namespace qm {

/// Of two coordinates; what does not fit is cut.
inline LONG coordinateSum(long long a, long long b) {
  using Limits = std::numeric_limits<LONG>;
  return static_cast<LONG>(std::clamp<long long>(a + b, Limits::min(), Limits::max()));
}

}  // namespace qm

class CRect : public RECT {
 public:
  CRect() : RECT{0, 0, 0, 0} {}
  CRect(LONG l, LONG t, LONG r, LONG b) : RECT{l, t, r, b} {}

  LONG Width() const { return qm::coordinateSum(right, -static_cast<long long>(left)); }
  LONG Height() const { return qm::coordinateSum(bottom, -static_cast<long long>(top)); }
};
