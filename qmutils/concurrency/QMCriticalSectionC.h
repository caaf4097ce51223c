// A recursive lock that knows who holds it, can give up waiting after a time or when a kill event
// is signalled, and reports every unbalanced use. The lock of the library's shared objects.
//
//   QMCriticalSectionC::QMCriticalSectionUserC user(&section);
//   if (user.EnterCriticalSection("JobListC::Add(): ", 60000) == QMErrors::NoError) { ... }
//   // the user's destructor leaves as often as the scope entered
//
// Entering and leaving a free section costs two atomic operations; the clock is read only when a
// wait is needed. What a thread wrote before leaving is visible to the next thread that enters.
// Nothing throws. Destroying a held section is reported and allowed.
#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/foundation/QMStringStream.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMCriticalSectionC;

extern "C" {
QMUTILS_API QMErrors::QMErrorT QMInitializeCriticalSectionEx(QMCriticalSectionC** cell,
                                                             int reportByMessageBox);
QMUTILS_API QMErrors::QMErrorT QMEnterCriticalSectionEx(QMCriticalSectionC** cell,
                                                        const char* locker, unsigned tag,
                                                        DWORD timeoutMs);
QMUTILS_API QMErrors::QMErrorT QMLeaveCriticalSectionEx(QMCriticalSectionC** cell,
                                                        const char* locker, unsigned tag);
}

class QMUTILS_API QMCriticalSectionC {
 public:
  class QMCriticalSectionUserC;

  /// A free section that reports through the debug log.
  QMCriticalSectionC();
  /// Copies every field, the semaphore handle included. The library never copies a section.
  QMCriticalSectionC(const QMCriticalSectionC& other);
  QMCriticalSectionC& operator=(const QMCriticalSectionC&) = delete;
  virtual ~QMCriticalSectionC();

  /// Depth of the owner's entries; 0 when free. Exact on the owner's thread, a snapshot on others.
  unsigned GetLockCount() const { return m_nLockCount.load(std::memory_order_relaxed); }
  /// The owner's thread identifier; 0 when free.
  DWORD GetOwnerTID() const { return m_dwCurrentOwnerTID.load(std::memory_order_relaxed); }
  /// The locker name given by the latest successful enter, or "unknown". Not copied.
  const char* GetSafeOwnerName() const;

  QMUTILS_API friend std::ostream& operator<<(std::ostream& os, const QMCriticalSectionC& section);
  QMUTILS_API friend QMLogStreamC& operator<<(QMLogStreamC& log, const QMCriticalSectionC& section);

 protected:
  /// `reportByMessageBox` non-zero: anomalies are shown to the operator instead of logged.
  explicit QMCriticalSectionC(int reportByMessageBox);

 private:
  friend QMErrors::QMErrorT QMInitializeCriticalSectionEx(QMCriticalSectionC**, int);
  friend QMErrors::QMErrorT QMEnterCriticalSectionEx(QMCriticalSectionC**, const char*, unsigned,
                                                     DWORD);
  friend QMErrors::QMErrorT QMLeaveCriticalSectionEx(QMCriticalSectionC**, const char*, unsigned);

  QMErrors::QMErrorT EnterCriticalSection(const char* locker, DWORD timeoutMs, int reportTimeout,
                                          unsigned tag);
  /// 0; 0x5007 after `timeoutMs`, reported when `reportTimeout` is non-zero; 0x500C when
  /// `killEvent` (may be null) is signalled while waiting; 0x5009 when the lock count is at its
  /// maximum.
  QMErrors::QMErrorT EnterCriticalSection(const char* locker, void* killEvent, DWORD timeoutMs,
                                          int reportTimeout, unsigned tag);
  /// 0; 0x5010 for a thread that is not the owner; 0x500A for the last owner of a free section;
  /// 0x5011 or 0x5012 when the section was left but could not be marked free.
  QMErrors::QMErrorT LeaveCriticalSection(const char* locker, unsigned* lockCountOut, unsigned tag);

  bool TryTake();
  QMErrors::QMErrorT WaitForSection(const char* locker, void* killEvent, DWORD timeoutMs,
                                    int reportTimeout, DWORD self);
  QMErrors::QMErrorT SetLockCount(unsigned count);
  QMErrors::QMErrorT MarkFree();

  void LogError(QMstrstream& message);
  void LogInfo(QMstrstream& message);
  void LogWarning(QMstrstream& message);
  template <class... Parts>
  void ReportError(const Parts&... parts);
  template <class... Parts>
  void ReportWarning(const Parts&... parts);

  // Taken or not, and whom to wake when leaving.
  std::atomic<std::uint32_t> m_lSectionLock{0};
  void* m_hSemaphore;  // a wake-up: the section may have become free
  // Written by the owner only; atomic because others read them for reports.
  std::atomic<DWORD> m_dwCurrentOwnerTID{0};
  std::atomic<DWORD> m_dwLastOwnerTID{0};
  std::atomic<unsigned> m_nLockCount{0};
  std::atomic<const char*> m_pOwnerName{nullptr};
  unsigned m_nLockerTag = ~0u;
  int m_bReportByMessageBox;
};

/// Enters a section for a scope. The destructor leaves the section as often as needed to bring its
/// lock count back below what it was at this user's first enter. Used by one thread.
class QMUTILS_API QMCriticalSectionC::QMCriticalSectionUserC {
 public:
  /// `section` is not owned and may be null; every call then gives 0x500B.
  explicit QMCriticalSectionUserC(QMCriticalSectionC* section) : m_pSection(section) {}
  QMCriticalSectionUserC(const QMCriticalSectionUserC&) = default;
  QMCriticalSectionUserC& operator=(const QMCriticalSectionUserC&) = default;
  virtual ~QMCriticalSectionUserC() { RollbackLockCount(); }

  /// `locker` names the caller in reports; it is not copied, so it must be a literal or live as
  /// long as the section. Results as the section's.
  QMErrors::QMErrorT EnterCriticalSection(const char* locker, DWORD timeoutMs);
  QMErrors::QMErrorT EnterCriticalSection(const char* locker, void* killEvent, DWORD timeoutMs);
  QMErrors::QMErrorT LeaveCriticalSection(const char* locker);

 private:
  QMErrors::QMErrorT RollbackLockCount();

  QMCriticalSectionC* m_pSection;
  unsigned m_nFirstLockCount = 0;
};
