// A rectangle in device units: the system's RECT with what the library asks of one. The right and
// bottom edges lie outside.
#pragma once

#include "qmutils/platform/types.h"

class CRect : public RECT {
 public:
  CRect() : RECT{0, 0, 0, 0} {}
  CRect(LONG l, LONG t, LONG r, LONG b) : RECT{l, t, r, b} {}

  LONG Width() const { return right - left; }
  LONG Height() const { return bottom - top; }
};
