#include "qmutils/concurrency/QMWindowsKeyboardEventC.h"

constinit const CRuntimeClass QMWindowsKeyboardEventC::classQMWindowsKeyboardEventC = {
    "QMWindowsKeyboardEventC", sizeof(QMWindowsKeyboardEventC),
    &QMObjectEventC::classQMObjectEventC};

const CRuntimeClass* QMWindowsKeyboardEventC::GetRuntimeClass() const {
  return &classQMWindowsKeyboardEventC;
}
