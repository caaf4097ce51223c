// A failure of a serial port as an event, for drivers that tell their listeners of one in the same
// way as of the lines; the port itself sends none. Used by one thread at a time; cannot fail.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/transport/QMSerialCommsEventBaseC.h"

class QMUTILS_API QMSerialCommsErrorEventC : public QMSerialCommsEventBaseC {
 public:
  static const CRuntimeClass classQMSerialCommsErrorEventC;

  explicit QMSerialCommsErrorEventC(QMErrors::QMErrorT error) : m_Error(error) {}
  QMSerialCommsErrorEventC& operator=(QMErrors::QMErrorT error) {
    m_Error = error;
    return *this;
  }

  const CRuntimeClass* GetRuntimeClass() const override;

  operator QMErrors::QMErrorT() const { return m_Error; }

  /// The text of QMErrToStr() for the code.
  std::ostream& ToString(std::ostream& os) const override;

 private:
  QMErrors::QMErrorT m_Error;
};
