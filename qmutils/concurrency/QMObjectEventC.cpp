#include "qmutils/concurrency/QMObjectEventC.h"

constinit const CRuntimeClass QMObjectEventC::classQMObjectEventC = {
    "QMObjectEventC", sizeof(QMObjectEventC), &CObject::classCObject};

const CRuntimeClass* QMObjectEventC::GetRuntimeClass() const { return &classQMObjectEventC; }
