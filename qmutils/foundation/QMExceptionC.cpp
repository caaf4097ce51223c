#include "qmutils/foundation/QMExceptionC.h"

QMExceptionC::~QMExceptionC() = default;
