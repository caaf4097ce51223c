// An event that knows its class at run time; the base of events that listeners tell apart by
// IsKindOf(). Has no data of its own, belongs to the thread that fires it, and cannot fail.
#pragma once

#include "qmutils/concurrency/IQMEventBase.h"
#include "qmutils/platform/export.h"
#include "qmutils/windowing/CObject.h"

class QMUTILS_API QMObjectEventC : public CObject, public IQMEventBase {
 public:
  static const CRuntimeClass classQMObjectEventC;

  const CRuntimeClass* GetRuntimeClass() const override;
};
