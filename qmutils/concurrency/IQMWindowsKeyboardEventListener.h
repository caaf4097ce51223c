// Who wants to know of keyboard messages. Registered with a QMWindowsKeyboardEventMultiCasterC; the
// contract of OnEvent() is that of QMEventMulticasterC.
#pragma once

#include "qmutils/concurrency/IQMEventBase.h"
#include "qmutils/platform/export.h"

class QMUTILS_API IQMWindowsKeyboardEventListener {
 public:
  virtual ~IQMWindowsKeyboardEventListener() = default;
  /// Called on the firing thread, with a QMWindowsKeyboardEventC. Must return promptly and must not
  /// throw.
  virtual void OnEvent(IQMEventBase& event) = 0;
};
