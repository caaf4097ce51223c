#include "qmutils/concurrency/QMCriticalSectionC.h"

#include <cstdio>
#include <optional>
#include <ostream>

#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/suspension_deferral.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;

namespace {

// m_lSectionLock: two bits, and above them the number of waiting threads.
constexpr std::uint32_t kTaken = 1;
constexpr std::uint32_t kWakePosted = 2;  // since the last wake-up that a waiter has consumed
constexpr std::uint32_t kOneWaiter = 4;

constexpr unsigned kNoTag = ~0u;
constexpr unsigned kMaximumLocks = 0xFFFFFFFFu;
constexpr const char* kUnknown = "unknown";

constexpr const char* kEnter = "QMCriticalSectionC::EnterCriticalSection(): ";
constexpr const char* kLeave = "QMCriticalSectionC::LeaveCriticalSection(): ";
constexpr const char* kRollback =
    "QMCriticalSectionC::QMCriticalSectionUserC::RollbackLockCount(): ";

const char* orUnknown(const char* name) noexcept { return name != nullptr ? name : kUnknown; }

/// Shows a report to the operator, or writes it as one line at level 0.
void deliver(QMstrstream& message, bool byMessageBox, const char* caption,
             QMLogStreamC& (QMLogStreamC::*prefix)()) {
  if (byMessageBox) {
    // Cut, should it be very long, rather than copied: there may be no memory for it.
    char text[2048];
    std::snprintf(text, sizeof text, "%.*s", static_cast<int>(message.text().size()),
                  message.text().data());
    messageBox(text, caption, MB_TASKMODAL);
    return;
  }
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  (log.*prefix)();
  log.PeekString(message);
  log << std::endl;
}

}  // namespace

QMCriticalSectionC::QMCriticalSectionC() : QMCriticalSectionC(0) {}

QMCriticalSectionC::QMCriticalSectionC(int reportByMessageBox)
    : m_hSemaphore(createSemaphore(0, 1)), m_bReportByMessageBox(reportByMessageBox) {}

QMCriticalSectionC::QMCriticalSectionC(const QMCriticalSectionC& other)
    : m_lSectionLock(other.m_lSectionLock.load()),
      m_hSemaphore(other.m_hSemaphore),
      m_dwCurrentOwnerTID(other.m_dwCurrentOwnerTID.load()),
      m_dwLastOwnerTID(other.m_dwLastOwnerTID.load()),
      m_nLockCount(other.m_nLockCount.load()),
      m_pOwnerName(other.m_pOwnerName.load()),
      m_nLockerTag(other.m_nLockerTag),
      m_bReportByMessageBox(other.m_bReportByMessageBox) {}

QMCriticalSectionC::~QMCriticalSectionC() {
  if (GetLockCount() != 0) {
    ReportError(
        "QMCriticalSectionC::~QMCriticalSectionC(): Critical section being deleted with "
        "imbalanced lock count: ",
        *this);
  }
  closeHandle(m_hSemaphore);
}

const char* QMCriticalSectionC::GetSafeOwnerName() const {
  return orUnknown(m_pOwnerName.load(std::memory_order_relaxed));
}

QMErrors::QMErrorT QMCriticalSectionC::EnterCriticalSection(const char* locker, DWORD timeoutMs,
                                                            int reportTimeout, unsigned tag) {
  return EnterCriticalSection(locker, nullptr, timeoutMs, reportTimeout, tag);
}

QMErrors::QMErrorT QMCriticalSectionC::EnterCriticalSection(const char* locker, void* killEvent,
                                                            DWORD timeoutMs, int reportTimeout,
                                                            unsigned tag) {
  const DWORD self = currentThreadId();
  // Only the owner ever stores its own identifier, so this read needs no lock.
  if (GetOwnerTID() != self && !TryTake()) {
    m_lSectionLock.fetch_add(kOneWaiter, std::memory_order_relaxed);
    const QMErrors::QMErrorT result =
        WaitForSection(locker, killEvent, timeoutMs, reportTimeout, self);
    m_lSectionLock.fetch_sub(kOneWaiter, std::memory_order_relaxed);
    if (result != QMErrors::NoError) return result;
  }

  const unsigned count = m_nLockCount.load(std::memory_order_relaxed);
  if (count == kMaximumLocks) {
    ReportError(kEnter, "locker: ", orUnknown(locker),
                ", too many attempts to lock, last locked by: ", GetSafeOwnerName());
    return QMErrors::e_CriticalSection_TooManyLocks;
  }
  if (count == 0) {
    m_dwCurrentOwnerTID.store(self, std::memory_order_relaxed);
    m_dwLastOwnerTID.store(self, std::memory_order_relaxed);
  } else if (GetOwnerTID() != self) {
    ReportWarning(kEnter, "locker: ", orUnknown(locker),
                  ", additional enter attempted with non-original owner : ", GetSafeOwnerName());
  }
  m_pOwnerName.store(locker, std::memory_order_relaxed);
  m_nLockerTag = tag;
  m_nLockCount.store(count + 1, std::memory_order_relaxed);
  return QMErrors::NoError;
}

bool QMCriticalSectionC::TryTake() {
  std::uint32_t seen = 0;
  do {
    if (m_lSectionLock.compare_exchange_strong(seen, seen | kTaken, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
      return true;
    }
  } while ((seen & kTaken) == 0);
  return false;
}

/// Waits until the section could be taken; it is then held, without owner yet. The caller counts as
/// a waiter, so whoever leaves from now on posts a wake-up.
QMErrors::QMErrorT QMCriticalSectionC::WaitForSection(const char* locker, void* killEvent,
                                                      DWORD timeoutMs, int reportTimeout,
                                                      DWORD self) {
  const HANDLE handles[] = {m_hSemaphore, killEvent};
  const std::size_t handleCount = killEvent != nullptr ? 2 : 1;
  const Deadline deadline = Deadline::after(timeoutMs);
  while (!TryTake() && GetOwnerTID() != self) {
    switch (waitAnyUntil(handles, handleCount, deadline)) {
      case WAIT_OBJECT_0:
        m_lSectionLock.fetch_and(~kWakePosted, std::memory_order_relaxed);
        break;
      case WAIT_OBJECT_0 + 1:
        ReportError(kEnter, ", locker: ", orUnknown(locker), ", kill event signalled:");
        return QMErrors::e_CriticalSection_KillSignalled;
      case WAIT_TIMEOUT:
        if (reportTimeout != 0) {
          ReportError(kEnter, ", locker: ", orUnknown(locker),
                      ", timed out waiting to obtain critical section, already owned by thread ID:",
                      GetOwnerTID(), ", owner name: ", GetSafeOwnerName());
        }
        return QMErrors::e_CriticalSection_TimeOut;
      default:
        ReportError(kEnter, ", locker: ", orUnknown(locker),
                    ", error waiting on m_hSemaphore:", QMErrToStr(QMErrors::lastOsError()));
        // A wait that fails at once would otherwise keep the processor from the section's owner.
        sleep(1, false);
        break;
    }
  }
  return QMErrors::NoError;
}

QMErrors::QMErrorT QMCriticalSectionC::LeaveCriticalSection(const char* locker,
                                                            unsigned* lockCountOut,
                                                            unsigned /*tag*/) {
  if (lockCountOut == nullptr) {
    ReportWarning(kLeave,
                  " - leave attempted with null lock count receiver : ", GetSafeOwnerName());
  }
  const DWORD self = currentThreadId();
  const DWORD owner = GetOwnerTID();
  const unsigned count = m_nLockCount.load(std::memory_order_relaxed);
  if (count == 0) {
    ReportWarning(kLeave, " - leave attempted with zero lock count : ", GetSafeOwnerName());
  }
  const bool lastOwner =
      owner == 0 && count == 0 && m_dwLastOwnerTID.load(std::memory_order_relaxed) == self;
  if (owner != self && !lastOwner) {
    ReportWarning(kLeave, " - leave attempted by non-owner : ", GetSafeOwnerName());
    return QMErrors::e_CriticalSection_NonOwnerLeave;
  }
  if (count == 0) {
    ReportError(kLeave, "locker: ", orUnknown(locker),
                ", too many attempts to unlock, last locked by: ", GetSafeOwnerName());
    return QMErrors::e_CriticalSection_TooManyUnlocks;
  }
  if (lockCountOut != nullptr) *lockCountOut = count - 1;
  return SetLockCount(count - 1);
}

/// By the owner, after leaving once or several times.
QMErrors::QMErrorT QMCriticalSectionC::SetLockCount(unsigned count) {
  m_nLockCount.store(count, std::memory_order_relaxed);
  return count > 0 ? QMErrors::NoError : MarkFree();
}

/// The final leave. The semaphore holds at most one wake-up: a woken waiter competes again.
QMErrors::QMErrorT QMCriticalSectionC::MarkFree() {
  QMErrors::QMErrorT result = QMErrors::NoError;
  m_dwCurrentOwnerTID.store(0, std::memory_order_relaxed);
  // Once the section is free another thread may enter, leave and destroy it.
  void* const semaphore = m_hSemaphore;
  std::uint32_t seen = m_lSectionLock.load(std::memory_order_relaxed);
  if ((seen & kTaken) == 0) {
    ReportError("QMCriticalSectionC::LeaveCriticalSection(): failed releasing m_lSectionLock: ");
    result = QMErrors::e_CriticalSection_SectionLockReleaseFailed;
  }
  // Other threads that leave rely on a wake-up marked as posted: no suspension in between.
  std::optional<SuspensionDeferral> untilPosted;
  bool wakes;
  std::uint32_t rest;
  do {
    rest = seen & ~kTaken;
    // A single waiter that is on its way already needs no second wake-up: it takes far longer to
    // wake than this thread to enter and leave again.
    wakes = rest >= kOneWaiter && rest != (kOneWaiter | kWakePosted);
    if (wakes) {
      rest |= kWakePosted;
      if (!untilPosted) untilPosted.emplace();
    }
  } while (!m_lSectionLock.compare_exchange_weak(seen, rest, std::memory_order_release,
                                                 std::memory_order_relaxed));
  // Without a semaphore each leave says so, also one that nobody waits for.
  if (!wakes && semaphore != nullptr) return result;
  if (releaseSemaphore(semaphore, 1, nullptr)) return result;
  // An invalid handle that was one: the section was destroyed meanwhile.
  if (lastError() == ERROR_TOO_MANY_POSTS || semaphore != nullptr) return result;
  ReportError("QMCriticalSectionC::LeaveCriticalSection(): failed releasing m_hSemaphore: ",
              QMErrToStr(QMErrors::lastOsError()));
  return QMErrors::e_CriticalSection_LockReleaseFailed;
}

template <class... Parts>
void QMCriticalSectionC::ReportError(const Parts&... parts) {
  QMstrstream message;
  (message << ... << parts);
  LogError(message);
}

template <class... Parts>
void QMCriticalSectionC::ReportWarning(const Parts&... parts) {
  QMstrstream message;
  (message << ... << parts);
  LogWarning(message);
}

void QMCriticalSectionC::LogError(QMstrstream& message) {
  deliver(message, m_bReportByMessageBox != 0,
          "QMCriticalSectionC::LogError(): ", &QMLogStreamC::_LogError);
}

void QMCriticalSectionC::LogInfo(QMstrstream& message) {
  deliver(message, m_bReportByMessageBox != 0,
          "QMCriticalSectionC::LogInfo(): ", &QMLogStreamC::_LogInfo);
}

void QMCriticalSectionC::LogWarning(QMstrstream& message) {
  deliver(message, m_bReportByMessageBox != 0,
          "QMCriticalSectionC::LogWarning(): ", &QMLogStreamC::_LogWarning);
}

namespace {

template <class Stream>
Stream& print(Stream& stream, const QMCriticalSectionC& section, void* semaphore) {
  stream << "QMCriticalSectionC = {" << std::hex << "m_dwCurrentOwnerTID"
         << " = " << section.GetOwnerTID() << ", " << std::dec << "m_hSemaphore"
         << " = " << qm::PointerText(semaphore).view() << ", "
         << "m_nLockCount"
         << " = " << section.GetLockCount() << ", "
         << "m_pOwnerName"
         << " = " << section.GetSafeOwnerName() << ", "
         << "}";
  return stream;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const QMCriticalSectionC& section) {
  return print(os, section, section.m_hSemaphore);
}

QMLogStreamC& operator<<(QMLogStreamC& log, const QMCriticalSectionC& section) {
  return print(log, section, section.m_hSemaphore);
}

QMErrors::QMErrorT QMCriticalSectionC::QMCriticalSectionUserC::EnterCriticalSection(
    const char* locker, DWORD timeoutMs) {
  return EnterCriticalSection(locker, nullptr, timeoutMs);
}

QMErrors::QMErrorT QMCriticalSectionC::QMCriticalSectionUserC::EnterCriticalSection(
    const char* locker, void* killEvent, DWORD timeoutMs) {
  if (m_pSection == nullptr) return QMErrors::e_CriticalSectionUser_InvalidSection;
  const QMErrors::QMErrorT result =
      m_pSection->EnterCriticalSection(locker, killEvent, timeoutMs, 1, kNoTag);
  if (result == QMErrors::NoError && m_nFirstLockCount == 0) {
    m_nFirstLockCount = m_pSection->GetLockCount();
  }
  return result;
}

QMErrors::QMErrorT QMCriticalSectionC::QMCriticalSectionUserC::LeaveCriticalSection(
    const char* locker) {
  if (m_pSection == nullptr) return QMErrors::e_CriticalSectionUser_InvalidSection;
  unsigned remaining = 0;
  return m_pSection->LeaveCriticalSection(locker, &remaining, kNoTag);
}

/// Undoes this scope's entries, those nested in them by the same thread, and its own probing enter.
QMErrors::QMErrorT QMCriticalSectionC::QMCriticalSectionUserC::RollbackLockCount() {
  if (m_pSection == nullptr) return QMErrors::e_CriticalSectionUser_InvalidSection;
  if (m_nFirstLockCount != 0 && m_pSection->GetOwnerTID() == currentThreadId() &&
      m_nFirstLockCount <= m_pSection->GetLockCount()) {
    // The usual end of a scope: what the steps below would come to.
    m_pSection->m_pOwnerName.store(kRollback, std::memory_order_relaxed);
    const QMErrors::QMErrorT left = m_pSection->SetLockCount(m_nFirstLockCount - 1);
    if (left != QMErrors::NoError) m_pSection->ReportError(kRollback, "failed");
    return left;
  }
  const QMErrors::QMErrorT entered =
      m_pSection->EnterCriticalSection(kRollback, nullptr, 0, 1, kNoTag);
  if (entered == QMErrors::e_CriticalSection_TimeOut) return QMErrors::NoError;
  if (entered != QMErrors::NoError && m_nFirstLockCount != 0) {
    m_pSection->ReportError(kRollback, "m_nFirstLockCount( ", m_nFirstLockCount,
                            " ) non-zero but we do not have ownership");
    return QMErrors::e_CriticalSection_RollbackNotOwner;
  }
  unsigned count = m_pSection->GetLockCount();
  while (count != 0 && m_nFirstLockCount <= count) {
    const QMErrors::QMErrorT left = m_pSection->LeaveCriticalSection(kRollback, &count, kNoTag);
    if (left != QMErrors::NoError) {
      m_pSection->ReportError(kRollback, "failed");
      return left;
    }
    if (m_nFirstLockCount != 0) continue;
    if (count != 0) {
      m_pSection->ReportError(kRollback,
                              "Critcal Section was not locked but nLockCount is: ", count);
    }
    break;
  }
  return QMErrors::NoError;
}
