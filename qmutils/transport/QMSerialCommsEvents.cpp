// Line events: the worker, and who is told.
//
// The worker calls listeners under the multicaster's lock, and a listener may register others. So
// no thread uses the multicaster, or waits for the worker, while it has m_RegistrationCS: that
// section only guards the making of the status-check event and the start of the worker.
//
// Nobody may be left without a worker. A worker that wants to end because nobody listens says so
// (m_bWorkerEnding) and counts once more; who is added after that count finds the flag set, since
// both went through the multicaster's lock, waits for the worker's end and starts another. Who
// stops the worker because nobody listens counts once more afterwards, and starts one if that has
// changed.
#include <utility>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/serial_device.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "qmutils/transport/QMSerialCommsC.h"
#include "qmutils/transport/QMSerialCommsEventC.h"

using namespace qm::platform;

namespace {

using SectionUser = QMCriticalSectionC::QMCriticalSectionUserC;

constexpr DWORD kAllEvents = 0x1FF;

/// The code of what has failed, also when nobody has set the last error.
QMErrors::QMErrorT osFailure() {
  const QMErrors::QMErrorT code = QMErrors::lastOsError();
  return code != QMErrors::NoError ? code : QMErrors::fromOsError(ERROR_GEN_FAILURE);
}

}  // namespace

/// One time of watching one device.
struct QMSerialCommsC::WatchC {
  explicit WatchC(DevicePtr watched) : device(std::move(watched)) {}
  WatchC(const WatchC&) = delete;
  WatchC& operator=(const WatchC&) = delete;
  ~WatchC() {
    if (device != nullptr) (void)device->setEventMask(0);  // refused by a device that is closed
    if (lineEvent != nullptr) closeHandle(lineEvent);
  }

  QMErrors::QMErrorT prepare() const {
    if (lineEvent == nullptr) return QMErrors::lastOsError();
    if (device == nullptr) return QMErrors::fromOsError(ERROR_INVALID_HANDLE);
    return device->setEventMask(kAllEvents) ? QMErrors::NoError : QMErrors::lastOsError();
  }

  const DevicePtr device;
  const HANDLE lineEvent = createEvent(true, false);
  bool outstanding = false;  // a wait for the line has been started
  QMSerialCommsEventC lines{0};
};

// --- registration -------------------------------------------------------------------------------

QMErrors::QMErrorT QMSerialCommsC::AddCommsEventListener(IQMSerialCommsEventListener& listener) {
  constexpr const char* kLocker = "QMSerialCommsC::AddCommsEventListener(): ";
  bool isNew;
  const QMErrors::QMErrorT added = m_Listeners.AddListener(listener, &isNew);
  if (added != QMErrors::NoError) return added;
  SectionUser user(&m_RegistrationCS);
  const QMErrors::QMErrorT entered = user.EnterCriticalSection(kLocker, nullptr, INFINITE);
  if (entered == QMErrors::NoError) return StartWorker(user, kLocker);
  if (isNew) (void)m_Listeners.RemoveListener(listener);
  return entered;
}

QMErrors::QMErrorT QMSerialCommsC::RemoveCommsEventListener(IQMSerialCommsEventListener& listener) {
  constexpr const char* kLocker = "QMSerialCommsC::RemoveCommsEventListener(): ";
  const QMErrors::QMErrorT removed = m_Listeners.RemoveListener(listener);
  if (m_Listeners.GetListenerCount() != 0) return removed;
  QMErrors::QMErrorT result = stop();
  // Who came meanwhile may have found the worker still alive.
  if (m_Listeners.GetListenerCount() != 0) {
    SectionUser user(&m_RegistrationCS);
    QMErrors::QMErrorT started = user.EnterCriticalSection(kLocker, nullptr, INFINITE);
    if (started == QMErrors::NoError) started = StartWorker(user, kLocker);
    if (result == QMErrors::NoError) result = started;
  }
  return removed != QMErrors::NoError ? removed : result;
}

/// Has the present state delivered to all listeners, by a worker that is started if need be. `user`
/// has entered the section.
QMErrors::QMErrorT QMSerialCommsC::StartWorker(SectionUser& user, const char* locker) {
  QMErrors::QMErrorT result = SignalStatusCheck();
  if (result != QMErrors::NoError) return result;
  if (!m_bWorkerEnding) return start();
  if (GetThreadID() == currentThreadId() && IsAlive()) {
    // A listener that has opened the port anew. The flag alone may also come from an open() whose
    // device the worker is watching already.
    m_bWatchAgain = m_pWatched->isClosed();
    return QMErrors::NoError;
  }
  result = user.LeaveCriticalSection(locker);
  if (result == QMErrors::NoError) result = stop();
  if (result == QMErrors::NoError) result = user.EnterCriticalSection(locker, nullptr, INFINITE);
  // The worker that is gone may have taken the signal with it.
  if (result == QMErrors::NoError) result = SignalStatusCheck();
  return result != QMErrors::NoError ? result : start();
}

QMErrors::QMErrorT QMSerialCommsC::SignalStatusCheck() {
  if (m_hStatusCheckEvent != nullptr) {
    return setEvent(m_hStatusCheckEvent) ? QMErrors::NoError : QMErrors::lastOsError();
  }
  m_hStatusCheckEvent = createEvent(false, true);
  return m_hStatusCheckEvent != nullptr ? QMErrors::NoError : QMErrors::lastOsError();
}

// --- the worker ---------------------------------------------------------------------------------

QMErrors::QMErrorT QMSerialCommsC::run() {
  QMErrors::QMErrorT result;
  do {
    m_bWatchAgain = false;
    result = Watch();
  } while (m_bWatchAgain && result != QMErrors::NoError && !IsEndEventSignalled());
  return result;
}

QMErrors::QMErrorT QMSerialCommsC::Watch() {
  m_bWorkerEnding = false;  // before the device is taken: whoever replaces it sets the flag after
  WatchC watch(Device());
  m_pWatched = watch.device.get();
  QMErrors::QMErrorT failure = watch.prepare();
  bool unheard = false;
  while (failure == QMErrors::NoError && !unheard && !IsEndEventSignalled()) {
    failure = AwaitLines(watch);
    if (failure == QMErrors::NoError) failure = DeliverLines(watch);
    unheard = failure == QMErrors::NoError && EndsUnheard(watch);
  }
  m_bWorkerEnding = true;
  if (failure != QMErrors::NoError) {
    qm::logWarning(2, "QMSerialCommsC::run(): ", "Exiting with: ", QMErrToStr(failure));
  }
  return failure;
}

/// Waits until the lines are to be delivered, or for the failure that ends the worker.
QMErrors::QMErrorT QMSerialCommsC::AwaitLines(WatchC& watch) {
  enum : DWORD { kLineEvent, kStatusCheck, kEndEvent };
  const HANDLE handles[] = {watch.lineEvent, m_hStatusCheckEvent};
  DWORD timeoutMs = INFINITE;
  while (!IsEndEventSignalled()) {
    if (!watch.outstanding && !watch.device->startEventWait(watch.lineEvent)) return osFailure();
    watch.outstanding = true;
    switch (WaitForMultipleObjects(2, handles, false, timeoutMs)) {
      case kLineEvent:
        if (!watch.device->eventResult()) return osFailure();
        watch.outstanding = false;
        resetEvent(watch.lineEvent);
        timeoutMs = m_dwDebounceMs;
        if (timeoutMs == 0) return QMErrors::NoError;
        break;  // each change begins the interval anew
      case kStatusCheck:
      case WAIT_TIMEOUT:
        return QMErrors::NoError;
      case kEndEvent:
        return QMErrors::TheDeviceWasToldToDie;
      default:
        return osFailure();
    }
  }
  return QMErrors::NoError;
}

QMErrors::QMErrorT QMSerialCommsC::DeliverLines(WatchC& watch) {
  DWORD status = 0;
  if (!watch.device->modemStatus(&status)) return osFailure();
  watch.lines = status;
  return m_Listeners.FireEvent(watch.lines);
}

/// True when the last listener has removed itself while it was called: it could not stop the worker
/// that it ran on.
bool QMSerialCommsC::EndsUnheard(const WatchC& watch) {
  if (m_Listeners.GetListenerCount() != 0) return false;
  m_bWorkerEnding = true;
  if (m_Listeners.GetListenerCount() == 0) return true;
  m_bWorkerEnding = false;
  // close() marks the device first and sets the flag then, so this never undoes it.
  if (watch.device->isClosed()) m_bWorkerEnding = true;
  return false;
}
