#include "qmutils/concurrency/QMLockC.h"

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;

QMLockC::QMLockC(const char* owner, DWORD timeoutMs)
    : m_hMutex(createMutex(true)),
      m_nTimeout(timeoutMs),
      m_pOwner(owner != nullptr ? owner : "unknown") {
  if (m_hMutex == nullptr) {
    qm::logError("QMLockC::QMLockC(): ", "owner: ", m_pOwner, "failed to create m_hMutex");
    return;
  }
  releaseMutex(m_hMutex);
}

QMLockC::~QMLockC() {
  if (m_hMutex != nullptr) closeHandle(m_hMutex);
  m_hMutex = nullptr;
}

QMErrors::QMErrorT QMLockC::fail() const {
  if (m_hMutex != nullptr) return QMErrors::NoError;
  // The label stands before the level prefix; tools that read these lines rely on it.
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log << "QMErrorC::fail(): ";
  log._LogError();
  log << "m_hMutex == NULL" << std::endl;
  return QMErrors::ResourceAllocationFailed;
}

QMErrors::QMErrorT QMLockC::lock() {
  const QMErrors::QMErrorT usable = fail();
  if (usable != QMErrors::NoError) return usable;
  const DWORD result = wait(m_hMutex, m_nTimeout);
  if (result == WAIT_OBJECT_0) return QMErrors::NoError;
  // Only a failed wait has a reason of the system's.
  qm::logError("QMLockC::lock(): ", "owner: ", m_pOwner, "waiting for mutex",
               QMErrToStr(result == WAIT_FAILED ? QMErrors::lastOsError() : QMErrors::NoError));
  return QMErrors::CommandTimedOut;
}

QMErrors::QMErrorT QMLockC::unlock() {
  const QMErrors::QMErrorT usable = fail();
  if (usable != QMErrors::NoError) return usable;
  if (releaseMutex(m_hMutex)) return QMErrors::NoError;
  qm::logError("QMLockC::unlock(): ", "owner: ", m_pOwner, "releasing mutex",
               QMErrToStr(QMErrors::lastOsError()));
  return QMErrors::FailedToReleaseMutex;
}
