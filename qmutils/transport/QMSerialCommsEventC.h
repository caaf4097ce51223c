// The modem lines of a serial port at a moment, as an event.
//
//   void OnEvent(IQMEventBase& event) override {
//     auto* lines = dynamic_cast<QMSerialCommsEventC*>(&event);
//     if (lines != nullptr && (*lines & MS_DSR_ON) == 0) deviceIsOff();
//   }
//
// Used by one thread at a time; cannot fail.
#pragma once

#include "qmutils/platform/types.h"
#include "qmutils/transport/QMSerialCommsEventBaseC.h"

class QMUTILS_API QMSerialCommsEventC : public QMSerialCommsEventBaseC {
 public:
  static const CRuntimeClass classQMSerialCommsEventC;

  /// MS_CTS_ON 0x10, MS_DSR_ON 0x20, MS_RING_ON 0x40, MS_RLSD_ON 0x80.
  explicit QMSerialCommsEventC(DWORD status) : m_dwStatus(status) {}
  QMSerialCommsEventC& operator=(DWORD status) {
    m_dwStatus = status;
    return *this;
  }

  const CRuntimeClass* GetRuntimeClass() const override;

  operator DWORD() const { return m_dwStatus; }

  /// "QMSerialCommsEventC: 0x30: MS_CTS_ON, MS_DSR_ON, ".
  std::ostream& ToString(std::ostream& os) const override;

 private:
  DWORD m_dwStatus;
};
