// Who wants to know of the modem lines of a serial port. Registered with a QMSerialCommsC.
#pragma once

#include "qmutils/concurrency/IQMEventBase.h"
#include "qmutils/platform/export.h"

class QMUTILS_API IQMSerialCommsEventListener {
 public:
  virtual ~IQMSerialCommsEventListener() = default;
  /// Called on the port's worker thread, with a QMSerialCommsEventC that lasts as long as the call.
  /// Must return promptly, must not throw and must not destroy the port. May use the port, and add
  /// and remove listeners.
  virtual void OnEvent(IQMEventBase& event) = 0;
};
