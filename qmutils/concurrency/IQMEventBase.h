// What a multicaster delivers: the base of every event. A listener finds out which event it has got
// by dynamic_cast, or by the run-time class of those derived from QMObjectEventC.
//
// An event is made by whoever fires it and lives as long as the delivery; a listener that wants to
// keep something copies it. Costs one pointer; cannot fail.
#pragma once

#include "qmutils/platform/export.h"

class QMUTILS_API IQMEventBase {
 public:
  virtual ~IQMEventBase() = default;
};
