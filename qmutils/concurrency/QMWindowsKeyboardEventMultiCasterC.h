// Hands keyboard messages to every listener that has registered for them; see QMEventMulticasterC
// for cost, threads and failures.
#pragma once

#include "qmutils/concurrency/IQMWindowsKeyboardEventListener.h"
#include "qmutils/concurrency/QMEventMulticasterC.h"
#include "qmutils/platform/export.h"

class QMUTILS_API QMWindowsKeyboardEventMultiCasterC
    : public QMEventMulticasterC<IQMWindowsKeyboardEventListener> {};
