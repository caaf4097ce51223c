#include "qmutils/transport/QMSerialCommsErrorEventC.h"

#include <ostream>

constinit const CRuntimeClass QMSerialCommsErrorEventC::classQMSerialCommsErrorEventC = {
    "QMSerialCommsErrorEventC", sizeof(QMSerialCommsErrorEventC),
    &QMSerialCommsEventBaseC::classQMSerialCommsEventBaseC};

const CRuntimeClass* QMSerialCommsErrorEventC::GetRuntimeClass() const {
  return &classQMSerialCommsErrorEventC;
}

std::ostream& QMSerialCommsErrorEventC::ToString(std::ostream& os) const {
  return os << QMErrToStr(m_Error);
}
