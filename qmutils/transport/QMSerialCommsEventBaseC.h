// What the events of a serial port have in common: they know their class at run time and write
// themselves as text. Used by one thread at a time; cannot fail.
#pragma once

#include <iosfwd>

#include "qmutils/concurrency/QMObjectEventC.h"
#include "qmutils/platform/export.h"

class QMUTILS_API QMSerialCommsEventBaseC : public QMObjectEventC {
 public:
  static const CRuntimeClass classQMSerialCommsEventBaseC;

  const CRuntimeClass* GetRuntimeClass() const override;

  /// Writes the event without a line end.
  virtual std::ostream& ToString(std::ostream& os) const = 0;
};

/// The event's ToString().
QMUTILS_API std::ostream& operator<<(std::ostream& os, const QMSerialCommsEventBaseC& event);
