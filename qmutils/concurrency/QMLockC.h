// A mutex labelled with the name of its owner, the subsystem that made it, and with a fixed wait
// limit. Failures are logged at level 0 under that label.
//
// Recursive for the thread that holds it. Threads of one process may share it. When the mutex could
// not be created every call gives 2011.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMLockC {
 public:
  /// Waits without limit, owner "unknown".
  QMLockC() : QMLockC(nullptr, INFINITE) {}
  /// `owner` is a literal or lives as long as the lock; null stands for "unknown". `timeoutMs`
  /// limits each lock().
  QMLockC(const char* owner, DWORD timeoutMs);
  QMLockC(const QMLockC&) = delete;
  QMLockC& operator=(const QMLockC&) = delete;
  ~QMLockC();

  /// 0; 2013 "Command timed out" after the wait limit, and also when the former holder's thread
  /// ended without unlocking (the caller then holds the lock); 2011 without a mutex.
  QMErrors::QMErrorT lock();
  /// 0; 2105 "Failed to release mutex" for a thread that does not hold it; 2011 without a mutex.
  QMErrors::QMErrorT unlock();
  /// 0 when the mutex exists, else 2011.
  QMErrors::QMErrorT fail() const;

 private:
  void* m_hMutex;
  DWORD m_nTimeout;
  const char* m_pOwner;
};
