#include "qmutils/transport/QMSerialCommsEventBaseC.h"

#include <ostream>

constinit const CRuntimeClass QMSerialCommsEventBaseC::classQMSerialCommsEventBaseC = {
    "QMSerialCommsEventBaseC", sizeof(QMSerialCommsEventBaseC),
    &QMObjectEventC::classQMObjectEventC};

const CRuntimeClass* QMSerialCommsEventBaseC::GetRuntimeClass() const {
  return &classQMSerialCommsEventBaseC;
}

std::ostream& operator<<(std::ostream& os, const QMSerialCommsEventBaseC& event) {
  return event.ToString(os);
}
