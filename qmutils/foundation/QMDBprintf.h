// printf-style diagnostic lines through a callback of their own, for callers that do not want a
// QMLogStreamC. Callback and level are independent of the log stream's hooks; nothing is filtered
// here, the callback sees every line. All functions may be called from any thread.
#pragma once

#include "qmutils/platform/export.h"

extern "C" {

/// Receives a finished line; `text` is valid during the call only and has no line end of its own.
typedef void (*QMDBCallback)(unsigned int level, int mode, char* text);

/// Installs `callback` (null switches QMDBprintf off) and returns it.
QMUTILS_API QMDBCallback QMDBNewRegisterCallback(QMDBCallback callback);

/// Formats a line of at most 2051 characters (longer ones are cut) and hands it to the callback.
/// Level 1 is usual for important lines, 5 for detailed ones. The line end belongs to `format`.
QMUTILS_API void QMDBprintf(unsigned int level, int mode, const char* format, ...)
    QMUTILS_PRINTF(3, 4);

/// Stores a process-wide level number for the callback's use and returns it.
QMUTILS_API unsigned int QMDBSetLevel(unsigned int level);
/// That number; 0 at start.
QMUTILS_API unsigned int QMDBGetLevel(void);
}
