// A named object that threads share: it counts those who use it, has a lock that a waiting thread
// can be called away from, knows by name who holds the lock, and, when told to, deletes itself with
// the last reference. Programs derive their shared data from it; QMCommObjectPtrC takes and drops
// the references.
//
//   class JobListC : public QMCommObjectC { ... };   // JobListC() : QMCommObjectC("Jobs", true)
//   if (jobs.Lock("Spooler", 5000, endEvent) == QMErrors::NoError) {
//     ...
//     jobs.Unlock();
//   }
//
// The lock is a mutex of the system, made by the first Lock() and recursive for the thread that
// holds it, which may thus take and drop references as well. What a thread wrote before Unlock() is
// visible to the next that locks. Taking a free lock costs a few atomic operations, making an
// object one allocation. Nothing throws.
//
// Any thread may call any function while the object lives. The object may go while threads wait in
// Lock(): each of them gets 0x20000006. It must not go while another thread holds the lock, and
// whoever deletes it, or drops its last reference, holding the lock does not unlock it any more.
// Failures are returned and logged at level 0; references and owners are logged at level 15.
//
// Names are not copied: they are literals, or live as long as the object and those who wait for it.
// A missing name reads "<unknown>".
#pragma once

#include <iosfwd>
#include <memory>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMCommObjectC {
 public:
  /// No references, no owner, no mutex yet. `name` may be null. With `autoDelete` the object is
  /// made with new, and deleted when the count of its references drops from 1 to 0. When memory
  /// runs out here, every Lock() gives 0x20000008.
  explicit QMCommObjectC(const char* const name = nullptr, bool autoDelete = false);
  QMCommObjectC(const QMCommObjectC&) = delete;
  QMCommObjectC& operator=(const QMCommObjectC&) = delete;
  /// Unlocks as often as the calling thread holds the lock.
  virtual ~QMCommObjectC();

  /// Takes the lock, waiting up to `timeoutMs` (INFINITE: without limit). `killEvent`, which may be
  /// null, is anything waitable that ends a wait; a lock that is free is taken even so.
  ///
  /// 0; 2013 "Command timed out"; 2049 "The wait was forced to exit" by the kill event; or an error
  /// of the system: 0x20000006 when the object went meanwhile; 0x20000069 when the thread that held
  /// the lock has ended, after which the lock is free; 0x20000008 without memory for the mutex.
  QMErrors::QMErrorT Lock(DWORD timeoutMs, void* killEvent);
  /// The same, and on success notes `owner` (may be null) as the holder.
  QMErrors::QMErrorT Lock(const char* owner, DWORD timeoutMs, void* killEvent);
  /// Forgets the owner's name and unlocks once. 0; 0x20000120 for a thread that does not hold the
  /// lock; 0x20000006 when it was never taken.
  QMErrors::QMErrorT Unlock();

  /// QMCommObjectC("Jobs") = { m_pCurrentOwnerName=Spooler, m_nRefCount=1 m_hMutex=0x00000040
  /// m_bAutoDelete=true }, in one line. Reads without the lock: each value is right for a moment,
  /// and all of them together on the thread that holds the lock.
  QMUTILS_API friend std::ostream& operator<<(std::ostream& os, const QMCommObjectC& object);
  QMUTILS_API friend QMLogStreamC& operator<<(QMLogStreamC& log, const QMCommObjectC& object);

 private:
  friend class QMCommObjectPtrC;
  class ControlC;

  /// 0; 2102 "Too many object references" from 0x7FFFFFFF on, with the reference taken; or the
  /// lock's code, without it.
  QMErrors::QMErrorT IncrementReference();
  /// Static, and told of the object by its record, because the object may be gone: 0x20000006.
  static QMErrors::QMErrorT DecrementReference(ControlC& control, QMCommObjectC* object);
  static bool IsGone(const ControlC& control);
  template <class Stream>
  Stream& Print(Stream& stream) const;

  const char* const m_pName;
  const bool m_bAutoDelete;
  // Outlives the object for those who still wait for its lock or hold it in a QMCommObjectPtrC.
  // Null when there was no memory for it.
  const std::shared_ptr<ControlC> m_pControl;
};
