#include "qmutils/comms/QMCommObjectC.h"

#include <atomic>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <new>
#include <ostream>
#include <string_view>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;
using QMErrors::QMErrorT;

namespace {

constexpr unsigned kInfoLevel = 15;
constexpr std::uint32_t kTooManyReferences = 0x7FFFFFFF;
/// "The former owner of the semaphore has ended."
constexpr QMErrorT kFormerOwnerEnded = QMErrors::fromOsError(105);

constexpr const char* kDestructor = "QMCommObjectC::~QMCommObjectC(): ";
constexpr const char* kLock = "QMCommObjectC::Lock(a): ";
constexpr const char* kLockWithOwner = "QMCommObjectC::Lock(b): ";
constexpr const char* kUnlock = "QMCommObjectC::Unlock(): ";
constexpr const char* kIncrement = "QMCommObjectC::IncrementReference(): ";
constexpr const char* kDecrement = "QMCommObjectC::DecrementReference(): ";

const char* orUnknown(const char* name) noexcept { return name != nullptr ? name : "<unknown>"; }

template <class... Parts>
void logObjectError(const char* label, const char* name, const Parts&... parts) {
  qm::logError(label, "object: ", name, parts...);
}

QMErrorT mutexNotCreated(const char* name, QMErrorT reason) {
  logObjectError(kLock, name, "Failed to create mutex");
  return reason;
}

}  // namespace

/// What locking and counting need. A thread in Lock() has a share in it, and touches nothing of the
/// object once it has begun to wait.
class QMCommObjectC::ControlC {
 public:
  ControlC(const char* name, bool autoDelete) : m_pName(name), m_bAutoDelete(autoDelete) {}
  ControlC(const ControlC&) = delete;
  ControlC& operator=(const ControlC&) = delete;
  ~ControlC() {
    if (void* const mutex = m_hMutex.load(std::memory_order_relaxed)) closeHandle(mutex);
  }

  QMErrorT Lock(DWORD timeoutMs, void* killEvent);
  QMErrorT Unlock();
  void SetOwner(const char* owner);
  QMErrorT IncrementReference();
  QMErrorT DecrementReference(QMCommObjectC* object);

  /// By the object's destructor.
  void MarkGone();
  bool IsGone() const { return m_bGone.load(std::memory_order_acquire); }

  template <class Stream>
  Stream& Print(Stream& stream) const;
  friend QMLogStreamC& operator<<(QMLogStreamC& log, const ControlC& control) {
    return control.Print(log);
  }

 private:
  QMErrorT WaitForMutex(void* mutex, DWORD timeoutMs, void* killEvent);
  QMErrorT WaitFailed(QMErrorT code) const;
  const char* GetSafeName() const { return orUnknown(m_pName); }
  /// Pairs with the release in SetOwner(): the text may have been made by the thread that set it.
  const char* GetSafeOwnerName() const {
    return orUnknown(m_pCurrentOwnerName.load(std::memory_order_acquire));
  }

  const char* const m_pName;
  // The count changes, and a name is set, under the lock only; atomic because the text form reads
  // them without it.
  std::atomic<const char*> m_pCurrentOwnerName{nullptr};
  std::atomic<std::uint32_t> m_nRefCount{0};
  std::atomic<void*> m_hMutex{nullptr};  // set once
  const bool m_bAutoDelete;
  std::atomic<bool> m_bGone{false};
};

QMErrorT QMCommObjectC::ControlC::Lock(DWORD timeoutMs, void* killEvent) {
  void* mutex = m_hMutex.load(std::memory_order_acquire);
  if (mutex == nullptr) {
    void* const created = createMutex(true);
    if (created == nullptr) return mutexNotCreated(GetSafeName(), QMErrors::lastOsError());
    if (m_hMutex.compare_exchange_strong(mutex, created, std::memory_order_acq_rel,
                                         std::memory_order_acquire)) {
      return QMErrors::NoError;
    }
    // Another thread's first Lock() came before; the exchange has read its mutex.
    closeHandle(created);
  }
  return WaitForMutex(mutex, timeoutMs, killEvent);
}

QMErrorT QMCommObjectC::ControlC::WaitForMutex(void* mutex, DWORD timeoutMs, void* killEvent) {
  const HANDLE handles[] = {mutex, killEvent};
  const std::size_t count = killEvent != nullptr ? 2 : 1;
  switch (waitAny(handles, count, timeoutMs)) {
    case WAIT_OBJECT_0:
      if (!IsGone()) return QMErrors::NoError;
      releaseMutex(mutex);
      return WaitFailed(QMErrors::fromOsError(ERROR_INVALID_HANDLE));
    case WAIT_OBJECT_0 + 1:
      return QMErrors::TheWaitWasForcedToExit;
    case WAIT_TIMEOUT:
      logObjectError(kLock, GetSafeName(),
                     "Timeout waiting on object already locked by: ", GetSafeOwnerName());
      return QMErrors::CommandTimedOut;
    case WAIT_ABANDONED_0:
      // This thread holds the mutex now. It gives it up, as its caller is told of a failure.
      m_pCurrentOwnerName.store(nullptr, std::memory_order_relaxed);
      releaseMutex(mutex);
      return WaitFailed(IsGone() ? QMErrors::fromOsError(ERROR_INVALID_HANDLE) : kFormerOwnerEnded);
    case WAIT_ABANDONED_0 + 1:
      // The kill event was the mutex of a thread that has ended; that one stays taken.
      return WaitFailed(kFormerOwnerEnded);
    default:
      return WaitFailed(QMErrors::lastOsError());
  }
}

QMErrorT QMCommObjectC::ControlC::WaitFailed(QMErrorT code) const {
  logObjectError(kLock, GetSafeName(), " waiting on mutex: ", QMErrToStr(code));
  return code;
}

QMErrorT QMCommObjectC::ControlC::Unlock() {
  // Before the release, which lets the next owner set its name and, on success, the object go.
  m_pCurrentOwnerName.store(nullptr, std::memory_order_relaxed);
  if (releaseMutex(m_hMutex.load(std::memory_order_acquire))) return QMErrors::NoError;
  const QMErrorT code = QMErrors::lastOsError();
  logObjectError(kUnlock, GetSafeName(), " releasing mutex: ", QMErrToStr(code));
  return code;
}

void QMCommObjectC::ControlC::SetOwner(const char* owner) {
  const char* const previous = GetSafeOwnerName();
  m_pCurrentOwnerName.store(owner, std::memory_order_release);
  qm::logInfo(kInfoLevel, kLockWithOwner, "previous owner=", previous, ", ", *this);
}

QMErrorT QMCommObjectC::ControlC::IncrementReference() {
  QMErrorT result = QMErrors::NoError;
  if (m_nRefCount.fetch_add(1, std::memory_order_relaxed) + 1 >= kTooManyReferences) {
    logObjectError(kIncrement, GetSafeName(), " too many references to object");
    result = QMErrors::TooManyObjectReferences;
  }
  qm::logInfo(kInfoLevel, kIncrement, *this);
  const QMErrorT unlocked = Unlock();
  return unlocked != QMErrors::NoError ? unlocked : result;
}

QMErrorT QMCommObjectC::ControlC::DecrementReference(QMCommObjectC* object) {
  QMErrorT locked = Lock(INFINITE, nullptr);
  // The caller forgets the object in any case, so its reference must not stay behind because
  // another thread ended with the lock. The lock is sound again.
  while (locked == kFormerOwnerEnded) locked = Lock(INFINITE, nullptr);
  if (locked != QMErrors::NoError) return locked;
  if (m_nRefCount.fetch_sub(1, std::memory_order_relaxed) == 1 && m_bAutoDelete) {
    qm::logInfo(kInfoLevel, kDecrement, "About to delete: ", *this);
    delete object;
    return QMErrors::NoError;
  }
  qm::logInfo(kInfoLevel, kDecrement, *this);
  return Unlock();
}

void QMCommObjectC::ControlC::MarkGone() {
  m_bGone.store(true, std::memory_order_release);
  m_pCurrentOwnerName.store(nullptr, std::memory_order_relaxed);
  void* const mutex = m_hMutex.load(std::memory_order_acquire);
  if (mutex == nullptr) return;
  // To the last of this thread's locks: those who wait come in one after the other and leave.
  while (releaseMutex(mutex)) {
  }
}

template <class Stream>
Stream& QMCommObjectC::ControlC::Print(Stream& stream) const {
  char digits[16];  // decimal, whatever the stream is set to
  const char* const end =
      std::to_chars(digits, std::end(digits), m_nRefCount.load(std::memory_order_relaxed)).ptr;
  stream << "QMCommObjectC(\"" << GetSafeName() << "\") = { "
         << "m_pCurrentOwnerName=" << GetSafeOwnerName() << ", "
         << "m_nRefCount=" << std::string_view(digits, end) << " "
         << "m_hMutex=" << qm::PointerText(m_hMutex.load(std::memory_order_relaxed)).view() << " "
         << "m_bAutoDelete=" << (m_bAutoDelete ? "true" : "false") << " }";
  return stream;
}

QMCommObjectC::QMCommObjectC(const char* const name, bool autoDelete)
    : m_pName(name), m_bAutoDelete(autoDelete), m_pControl([&]() -> std::shared_ptr<ControlC> {
        try {
          return std::make_shared<ControlC>(name, autoDelete);
        } catch (const std::bad_alloc&) {
          return nullptr;
        }
      }()) {}

QMCommObjectC::~QMCommObjectC() {
  qm::logInfo(kInfoLevel, kDestructor, "deleting shared object: ", *this);
  if (m_pControl != nullptr) m_pControl->MarkGone();
}

QMErrorT QMCommObjectC::Lock(DWORD timeoutMs, void* killEvent) {
  if (m_pControl == nullptr) {
    return mutexNotCreated(orUnknown(m_pName), QMErrors::fromOsError(ERROR_NOT_ENOUGH_MEMORY));
  }
  const std::shared_ptr<ControlC> control = m_pControl;
  return control->Lock(timeoutMs, killEvent);
}

QMErrorT QMCommObjectC::Lock(const char* owner, DWORD timeoutMs, void* killEvent) {
  const QMErrorT locked = Lock(timeoutMs, killEvent);
  if (locked == QMErrors::NoError) m_pControl->SetOwner(owner);
  return locked;
}

QMErrorT QMCommObjectC::Unlock() {
  return m_pControl != nullptr ? m_pControl->Unlock() : ControlC(m_pName, m_bAutoDelete).Unlock();
}

QMErrorT QMCommObjectC::IncrementReference() {
  const QMErrorT locked = Lock(INFINITE, nullptr);
  return locked == QMErrors::NoError ? m_pControl->IncrementReference() : locked;
}

QMErrorT QMCommObjectC::DecrementReference(ControlC& control, QMCommObjectC* object) {
  return control.DecrementReference(object);
}

bool QMCommObjectC::IsGone(const ControlC& control) { return control.IsGone(); }

template <class Stream>
Stream& QMCommObjectC::Print(Stream& stream) const {
  return m_pControl != nullptr ? m_pControl->Print(stream)
                               : ControlC(m_pName, m_bAutoDelete).Print(stream);
}

std::ostream& operator<<(std::ostream& os, const QMCommObjectC& object) { return object.Print(os); }

QMLogStreamC& operator<<(QMLogStreamC& log, const QMCommObjectC& object) {
  return object.Print(log);
}
