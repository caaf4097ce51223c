#include "qmutils/concurrency/QMThreadC.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <ostream>
#include <vector>

#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/suspension_deferral.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;

namespace {

using SectionUser = QMCriticalSectionC::QMCriticalSectionUserC;

/// Enters the pool's section for a scope. Its holder cannot be suspended, as every other thread
/// object would have to wait for it.
class PoolUser : private SuspensionDeferral, public SectionUser {
 public:
  explicit PoolUser(QMCriticalSectionC& section) : SectionUser(&section) {}
};

constexpr DWORD kPoolTimeoutMs = 60000;
constexpr DWORD kAllOnes = 0xFFFFFFFFu;
constexpr DWORD kSleepSliceMs = 10000;
constexpr DWORD kStopStepMs = 200;
constexpr int kStopStepsPerLogLine = 10;
constexpr int kStartPolls = 100;
constexpr DWORD kStartPollMs = 100;
constexpr unsigned kTraceLevel = 20;

constexpr const char* kStart = "QMThreadC::start(): ";
constexpr const char* kStop = "QMThreadC::stop(): ";

bool tracing() { return QMLogStreamC::GetDebugLevel() >= kTraceLevel; }

const char* osErrorText() { return QMErrToStr(QMErrors::lastOsError()); }

/// A line without a level prefix.
template <class... Parts>
void logPlain(unsigned level, const Parts&... parts) {
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log.SetMessageLevel(level);
  (log << ... << parts) << std::endl;
}

/// Keeps the first result that is not success.
void remember(QMErrors::QMErrorT& first, QMErrors::QMErrorT result) {
  if (first == QMErrors::NoError) first = result;
}

}  // namespace

struct QMThreadC::ControlC {
  ThreadPlace place;
  std::atomic<void*>& thread = place.handle;
  std::atomic<void*> endEvent{nullptr};
  std::atomic<bool> deleted{false};
  std::atomic<bool> finished{true};
  const char* name;
  DWORD stopTimeoutMs;
  bool autoDelete;
  std::mutex starting;  // held by start() while it makes a thread

  ControlC(const char* threadName, DWORD timeoutMs, bool deletesItself)
      : name(threadName != nullptr ? threadName : "Unknown"),
        stopTimeoutMs(timeoutMs),
        autoDelete(deletesItself) {}
  ControlC(const ControlC&) = delete;
  ControlC& operator=(const ControlC&) = delete;
  ~ControlC() {
    closeThread();
    if (endEvent != nullptr) closeHandle(endEvent);
  }

  static bool isRunning(void* handle) {
    return handle != nullptr && wait(handle, 0) == WAIT_TIMEOUT;
  }
  bool isAlive() const { return isRunning(thread); }
  /// An identifier is given to another thread once its own has ended.
  bool isCurrentThread() const { return place.id == currentThreadId() && isAlive() && !deleted; }
  /// A thread that was started just now may not have told it yet.
  DWORD identifier() const {
    if (isAlive()) place.id.wait(0);
    const DWORD id = place.id;
    return id == kAllOnes ? 0 : id;
  }

  bool endSignalled() const { return wait(endEvent, 0) != WAIT_TIMEOUT; }

  void closeThread() {
    void* const handle = thread.exchange(nullptr);
    if (handle != nullptr) closeHandle(handle);
  }

  static std::shared_ptr<ControlC> make(const char* name, DWORD stopTimeoutMs, bool autoDelete);
  /// Stands for the one that there was no memory for: such a thread object cannot be started.
  static std::shared_ptr<ControlC> none();

  QMErrors::QMErrorT create(const std::shared_ptr<ControlC>& self, QMThreadC* object);
  QMErrors::QMErrorT awaitBegin() const;
  QMErrors::QMErrorT notifyEnd() const;
  QMErrors::QMErrorT end();
  void awaitEnd(void* stopped) const;

  /// What a new thread is given; it owns its share of the control block.
  struct Launch {
    std::shared_ptr<ControlC> control;
    QMThreadC* object;
  };
};

std::shared_ptr<QMThreadC::ControlC> QMThreadC::ControlC::make(const char* name,
                                                               DWORD stopTimeoutMs,
                                                               bool autoDelete) try {
  return std::make_shared<ControlC>(name, stopTimeoutMs, autoDelete);
} catch (const std::bad_alloc&) {
  return none();
}

std::shared_ptr<QMThreadC::ControlC> QMThreadC::ControlC::none() {
  static qm::Immortal<ControlC> control(nullptr, INFINITE, false);
  return {std::shared_ptr<ControlC>(), &control.value};  // owns nothing, allocates nothing
}

// --- the pool -----------------------------------------------------------------------------------

QMThreadC* QMThreadC::m_pThreads = nullptr;

// Never destroyed: threads may outlive main().
QMCriticalSectionC& QMThreadC::m_PoolCS() {
  static QMCriticalSectionC* const section = new QMCriticalSectionC;
  return *section;
}

QMThreadC::QMThreadC(const char* name, QMThreadC* parent, DWORD stopTimeoutMs, int autoDelete)
    : m_pParent(parent), m_pControl(ControlC::make(name, stopTimeoutMs, autoDelete != 0)) {
  PoolUser user(m_PoolCS());
  if (user.EnterCriticalSection("QMThreadC::QMThreadC():", kPoolTimeoutMs) != QMErrors::NoError) {
    return;  // reported by the section; the thread works, but stopAll() does not know it
  }
  QMThreadC** link = &m_pThreads;
  while (*link != nullptr) {
    m_pPrevious = *link;
    link = &(*link)->m_pNext;
  }
  *link = this;
}

QMThreadC::~QMThreadC() {
  (void)RemoveThread(0);
  if (!m_pControl->deleted) (void)stop();
  m_pControl->closeThread();
}

/// The pointer is only compared: what it leads to may be gone.
bool QMThreadC::IsPooled(const QMThreadC* thread) {
  const QMThreadC* member = m_pThreads;
  while (member != nullptr && member != thread) member = member->m_pNext;
  return member != nullptr;
}

void QMThreadC::Unlink() {
  (m_pPrevious != nullptr ? m_pPrevious->m_pNext : m_pThreads) = m_pNext;
  if (m_pNext != nullptr) m_pNext->m_pPrevious = m_pPrevious;
  m_pNext = m_pPrevious = nullptr;
}

QMErrors::QMErrorT QMThreadC::RemoveThread(int deleteIt) {
  QMErrors::QMErrorT left;
  {
    PoolUser user(m_PoolCS());
    const QMErrors::QMErrorT entered =
        user.EnterCriticalSection("QMThreadC::RemoveThread(): ", kPoolTimeoutMs);
    if (entered != QMErrors::NoError) {
      qm::logWarning(0,
                     "QMThreadC::RemoveThread(): failed to obtain lock so not removing thread from "
                     "pool - this could result in memory leaks! Reason for failure:",
                     QMErrToStr(entered));
      return entered;
    }
    if (IsPooled(this)) Unlink();
    left = user.LeaveCriticalSection("QMThreadC::RemoveThread(): ");
    if (left != QMErrors::NoError) {
      qm::logWarning(0,
                     "QMThreadC::RemoveThread(): failed to leave lock! Deleting thread as it is "
                     "removed from the pool - this could result in memory leaks! Reason for "
                     "failure:",
                     QMErrToStr(left));
    }
  }
  // A thread that removes itself is alive as long as it is here.
  while (GetThreadID() != currentThreadId() && IsStopping()) sleep(100, false);
  if (deleteIt != 0) delete this;
  return left;
}

void QMThreadC::SetParent(QMThreadC* parent) {
  PoolUser user(m_PoolCS());
  // What has left the pool may have been destroyed, and is no longer anybody's parent.
  const bool held =
      user.EnterCriticalSection("QMThreadC::SetParent(): ", kPoolTimeoutMs) == QMErrors::NoError;
  const QMThreadC* ancestor = parent;
  while (ancestor != nullptr && ancestor != this) {
    ancestor = held && IsPooled(ancestor) ? ancestor->GetParent() : nullptr;
  }
  if (ancestor == nullptr) {
    m_pParent.store(parent);
    return;
  }
  qm::logWarning(
      0, "QMThreadC::SetParent(): ", "a thread cannot be its own ancestor: ", GetSafeThreadName());
}

QMThreadC* QMThreadC::FindChild(QMThreadC* after) {
  PoolUser user(m_PoolCS());
  if (user.EnterCriticalSection("QMThreadC::FindChild(): ", kPoolTimeoutMs) != QMErrors::NoError) {
    return nullptr;
  }
  QMThreadC* member = after != nullptr ? after->m_pNext : m_pThreads;
  while (member != nullptr && member->GetParent() != this) member = member->m_pNext;
  return member;
}

// --- starting -----------------------------------------------------------------------------------

QMErrors::QMErrorT QMThreadC::run() {
  qm::logError("QMThreadC::run", "No thread body for: ", GetSafeThreadName());
  return QMErrors::NoThreadBodyCode;
}

DWORD QMThreadC::ThreadWrapper(void* argument) {
  const std::unique_ptr<ControlC::Launch> launch(static_cast<ControlC::Launch*>(argument));
  ControlC& control = *launch->control;
  QMThreadC* const object = launch->object;
  (void)object->SleepEx(0, false);
  const QMErrors::QMErrorT result = object->run();
  if (control.autoDelete) {
    qm::logInfo(kTraceLevel, "QMThreadC::ThreadWrapper(): ",
                "automatically deleting thread object: ", control.name);
    control.deleted = true;
    delete object;
  }
  control.finished = true;
  return static_cast<DWORD>(result);
}

QMErrors::QMErrorT QMThreadC::start() {
  const ControlPtr control = m_pControl;
  return control->create(control, this);
}

QMErrors::QMErrorT QMThreadC::ControlC::create(const ControlPtr& self, QMThreadC* object) {
  {
    const qm::platform::ShortLock guard(starting);
    if (self == none()) {
      setLastError(ERROR_NOT_ENOUGH_MEMORY);
    } else if (endEvent == nullptr) {
      endEvent = createEvent(true, false);
    }
    if (endEvent == nullptr) {
      qm::logError(kStart, "while creating m_hEndEvent: ", osErrorText());
      return QMErrors::ResourceAllocationFailed;
    }
    bool runs = isAlive();
    if (!runs) {
      closeThread();
      finished = false;
      resetEvent(endEvent);
      std::unique_ptr<Launch> launch(new (std::nothrow) Launch{self, object});
      if (launch == nullptr) {
        setLastError(ERROR_NOT_ENOUGH_MEMORY);
      } else if (startThread(&QMThreadC::ThreadWrapper, launch.get(), place)) {
        // Thread and starter do not wait for each other: the thread finds its handle in place.
        (void)launch.release();
        runs = true;
      }
    }
    if (!runs) {
      finished = true;
      qm::logError(kStart, "_beginthreadex() failed: ", osErrorText());
      return QMErrors::ResourceAllocationFailed;
    }
  }
  // From here on the thread may end and delete its object.
  if (qm::isShown(1)) {
    qm::logInfo(1, kStart, "_beginthreadex() succeeded for Thread: ", name, ", id = 0x", std::hex,
                identifier());
  }
  if (tracing()) {
    qm::logInfo(kTraceLevel, kStart, "waiting for thread: ", name, ", id = 0x", std::hex,
                identifier(), " to begin.");
  }
  return awaitBegin();
}

QMErrors::QMErrorT QMThreadC::ControlC::awaitBegin() const {
  for (int poll = 0; poll < kStartPolls; ++poll) {
    if (finished || isAlive()) return QMErrors::NoError;
    sleep(kStartPollMs, false);
  }
  if (finished) return QMErrors::NoError;
  qm::logError(kStart, "thread ", name, ", id = 0x", std::hex, identifier(), " failed to start");
  return QMErrors::FailedToStartThread;
}

// --- stopping -----------------------------------------------------------------------------------

QMErrors::QMErrorT QMThreadC::NotifyEnd() { return m_pControl->notifyEnd(); }

QMErrors::QMErrorT QMThreadC::ControlC::notifyEnd() const {
  void* const event = endEvent;
  if (event == nullptr || !setEvent(event)) {
    const QMErrors::QMErrorT reason =
        event == nullptr ? QMErrors::ResourceAllocationFailed : QMErrors::lastOsError();
    qm::logError("QMThreadC::NotifyEnd(): ", "m_hEndEvent = ", qm::PointerText(event).view(), ", ",
                 event == nullptr ? "invalid handle." : QMErrToStr(reason));
    return reason;
  }
  for (;;) {
    const DWORD previous = resumeThread(thread);
    if (previous == kAllOnes) return QMErrors::FailedToResumeThread;
    if (previous <= 1) return QMErrors::NoError;
    qm::logInfo(kTraceLevel, "QMThreadC::NotifyEnd(): ", "suspendCount for :", name,
                " is: ", previous);
  }
}

QMErrors::QMErrorT QMThreadC::stop() {
  const ControlPtr control = m_pControl;
  return Stop(control, this);
}

/// `object` is only compared; it may be deleted by its own thread at any moment.
QMErrors::QMErrorT QMThreadC::Stop(const ControlPtr& control, const QMThreadC* object) {
  if (control->isCurrentThread()) {
    qm::logWarning(kTraceLevel, kStop, "Cannot stop() thread from within itself ignoring request");
    return QMErrors::NoError;
  }
  QMErrors::QMErrorT first = StopChildren(object);
  remember(first, control->end());
  return first;
}

/// Ends the thread that runs now; one that somebody starts meanwhile is left alone.
QMErrors::QMErrorT QMThreadC::ControlC::end() {
  void* stopped;
  {
    const qm::platform::ShortLock guard(starting);
    stopped = thread;
    const QMErrors::QMErrorT notified = isRunning(stopped) ? notifyEnd() : QMErrors::NoError;
    if (notified != QMErrors::NoError) return notified;
  }
  awaitEnd(stopped);
  const qm::platform::ShortLock guard(starting);
  if (!thread.compare_exchange_strong(stopped, nullptr)) return QMErrors::NoError;
  if (stopped != nullptr) closeHandle(stopped);
  if (endEvent != nullptr) resetEvent(endEvent);
  return QMErrors::NoError;
}

/// Signals all children before it stops any of them.
QMErrors::QMErrorT QMThreadC::StopChildren(const QMThreadC* parent) try {
  struct Child {
    ControlPtr control;
    const QMThreadC* object;
  };
  std::vector<Child> children;
  QMErrors::QMErrorT first = QMErrors::NoError;
  {
    PoolUser user(m_PoolCS());
    const QMErrors::QMErrorT entered = user.EnterCriticalSection(kStop, kPoolTimeoutMs);
    if (entered != QMErrors::NoError) return entered;
    for (QMThreadC* member = m_pThreads; member != nullptr; member = member->m_pNext) {
      if (member->GetParent() != parent || member == parent) continue;
      remember(first, member->NotifyEnd());
      children.push_back({member->m_pControl, member});
      sleep(0, false);
    }
  }
  for (const Child& child : children) {
    remember(first, Stop(child.control, child.object));
    sleep(0, false);
  }
  return first;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

void QMThreadC::ControlC::awaitEnd(void* stopped) const {
  const Deadline deadline = Deadline::after(stopTimeoutMs);
  for (int step = 1; !deleted && thread == stopped && isRunning(stopped); ++step) {
    if (step > 1 && deadline.passed()) {
      logPlain(0, kStop,
               "ERROR: Could not stop thread. Thread being killed, this could leave dangling "
               "resources.");
      logPlain(0, kStop, "DON'T KNOW HOW TO KILL THREADS!!!!!!!");
      return;
    }
    if (step % kStopStepsPerLogLine == 0) {
      logPlain(kTraceLevel, kStop, "Waiting for thread ", name, " id 0x", std::hex, identifier(),
               " to die...");
    }
    (void)wait(stopped, kStopStepMs);
  }
}

QMErrors::QMErrorT QMThreadC::stopAll() try {
  std::vector<ControlPtr> controls;
  std::vector<const QMThreadC*> objects;
  {
    PoolUser user(m_PoolCS());
    const QMErrors::QMErrorT entered = user.EnterCriticalSection(kStop, kPoolTimeoutMs);
    if (entered != QMErrors::NoError) return entered;
    for (QMThreadC* member = m_pThreads; member != nullptr; member = member->m_pNext) {
      if (!member->bIsParent()) continue;
      controls.push_back(member->m_pControl);
      objects.push_back(member);
    }
  }
  QMErrors::QMErrorT first = QMErrors::NoError;
  for (std::size_t i = 0; i < controls.size(); ++i) {
    remember(first, Stop(controls[i], objects[i]));
    sleep(0, false);
  }
  return first;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

// --- fields -------------------------------------------------------------------------------------

DWORD QMThreadC::GetThreadID() const { return m_pControl->identifier(); }
void* QMThreadC::GetThread() const { return m_pControl->thread; }
void* QMThreadC::GetEndEvent() const { return m_pControl->endEvent; }
const char* QMThreadC::GetSafeThreadName() const { return m_pControl->name; }

bool QMThreadC::IsAlive() const { return m_pControl->isAlive(); }

bool QMThreadC::IsDead() const {
  void* const handle = GetThread();
  return handle != nullptr && wait(handle, 0) == WAIT_OBJECT_0;
}

bool QMThreadC::IsEndEventSignalled() const { return m_pControl->endSignalled(); }
bool QMThreadC::IsStopping() const { return IsEndEventSignalled() && IsAlive(); }

// --- waits --------------------------------------------------------------------------------------

DWORD QMThreadC::SleepEx(DWORD milliseconds, bool alertable) const {
  DWORD remaining = milliseconds;
  for (;;) {
    const DWORD slice = remaining < kSleepSliceMs ? remaining : kSleepSliceMs;
    const DWORD result = sleep(slice, alertable);
    if (IsEndEventSignalled()) return kAllOnes;
    if (milliseconds != INFINITE) remaining -= slice;
    if (result != 0 || remaining == 0) return result;
  }
}

DWORD QMThreadC::WaitForSingleObject(void* handle, DWORD timeoutMs) const {
  void* const endEvent = GetEndEvent();
  void* const handles[] = {handle, endEvent};
  return waitAny(handles, endEvent != nullptr ? 2 : 1, timeoutMs);
}

namespace {

void traceWaiting(const char* label, const QMThreadC& thread, DWORD count, void* const* handles,
                  const char* open, const char* close, DWORD timeoutMs) {
  if (!tracing()) return;
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log.SetMessageLevel(kTraceLevel);
  log._LogInfo();
  log << label << thread.GetSafeThreadName() << ", id=0x" << std::hex << thread.GetThreadID()
      << std::dec << " waiting on " << count << open;
  for (DWORD i = 0; i < count; ++i) {
    log << (i == 0 ? "" : ", ") << qm::PointerText(handles[i]).view();
  }
  log << close << timeoutMs << std::endl;
}

/// `first` and `count`: the objects that result 0 is about.
void traceReturning(const char* label, const QMThreadC& thread, DWORD first, DWORD count,
                    DWORD result) {
  if (!tracing()) return;
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log.SetMessageLevel(kTraceLevel);
  log._LogInfo();
  log << label << thread.GetSafeThreadName() << ", id=0x" << std::hex << thread.GetThreadID()
      << std::dec << " returning: ";
  for (DWORD i = first; i < first + count; ++i) {
    if (result == WAIT_OBJECT_0) log << " Object " << i << " was signalled ";
    if (result == WAIT_ABANDONED_0) log << " Object " << i << " was abandoned ";
  }
  if (result == WAIT_TIMEOUT) log << " Timed out ";
  log << std::endl;
}

}  // namespace

DWORD QMThreadC::WaitForMultipleObjects(DWORD count, void* const* handles, bool waitAll,
                                        DWORD timeoutMs) const {
  // One after the other, any number can be waited for.
  if ((!waitAll && count > MAXIMUM_WAIT_OBJECTS) || (handles == nullptr && count != 0)) {
    setLastError(ERROR_INVALID_PARAMETER);
    return WAIT_FAILED;
  }
  return waitAll ? WaitForAll(count, handles, timeoutMs) : WaitForAny(count, handles, timeoutMs);
}

DWORD QMThreadC::WaitForAll(DWORD count, void* const* handles, DWORD timeoutMs) const {
  const char* const label = "QMThreadC::WaitForMultipleObjects( ALL ): ";
  traceWaiting(label, *this, count, handles, " objects: ", ", timeout = ", timeoutMs);
  const Deadline deadline = Deadline::after(timeoutMs);
  DWORD result = WAIT_OBJECT_0;
  DWORD waited = 0;
  while (waited < count && result == WAIT_OBJECT_0) {
    result = WaitForSingleObject(handles[waited++], deadline.remainingMs());
  }
  // All of them, or the one at which the wait ended.
  const bool all = result == WAIT_OBJECT_0;
  traceReturning(label, *this, all ? 0 : waited - 1, all ? count : 1, result);
  return result;
}

DWORD QMThreadC::WaitForAny(DWORD count, void* const* handles, DWORD timeoutMs) const {
  const char* const label = "QMThreadC::WaitForMultipleObjects( ANY ): ";
  traceWaiting(label, *this, count, handles, " objects[", "], timeout = ", timeoutMs);
  void* waited[MAXIMUM_WAIT_OBJECTS + 1];
  std::copy_n(handles, count, waited);
  void* const endEvent = GetEndEvent();
  waited[count] = endEvent;
  const DWORD all = endEvent != nullptr ? count + 1 : count;
  const DWORD result = waitAny(waited, all, timeoutMs);
  const bool abandoned = result >= WAIT_ABANDONED_0 && result < WAIT_ABANDONED_0 + all;
  const bool one = abandoned || result < WAIT_OBJECT_0 + all;
  const DWORD kind = abandoned ? WAIT_ABANDONED_0 : one ? WAIT_OBJECT_0 : result;
  traceReturning(label, *this, one ? result - kind : 0, one ? 1 : 0, kind);
  return result;
}

// --- operations of the system on the thread -----------------------------------------------------

DWORD QMThreadC::SuspendThread() {
  const DWORD previous = suspendThread(GetThread());
  if (previous == kAllOnes) {
    qm::logError("QMThreadC::SuspendThread(): ", "suspend failed on thread: ", GetSafeThreadName(),
                 " Reason: ", osErrorText());
  }
  return previous;
}

DWORD QMThreadC::ResumeThread() {
  const DWORD previous = resumeThread(GetThread());
  if (previous == kAllOnes) {
    qm::logError("QMThreadC::ResumeThread(): ", "resume failed on thread: ", GetSafeThreadName(),
                 " Reason: ", osErrorText());
  }
  return previous;
}

int QMThreadC::SetThreadPriority(int priority) { return SetThreadPriority(GetThread(), priority); }

int QMThreadC::SetThreadPriority(void* handle, int priority) {
  if (setThreadPriority(handle, priority)) return 1;
  qm::logError("QMThreadC::SetThreadPriority(): ", "SetThreadPriority failed on thread: ",
               GetSafeThreadName(), ", Reason: ", osErrorText());
  return 0;
}
