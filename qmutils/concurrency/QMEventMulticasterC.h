// Hands each event to every registered listener, in the order of their registration.
//
//   class IJobListener {
//    public:
//     virtual ~IJobListener() = default;
//     virtual void OnEvent(IQMEventBase& event) = 0;
//   };
//   QMEventMulticasterC<IJobListener> jobs;
//   jobs.AddListener(display);
//   jobs.FireEvent(event);   // display.OnEvent(event), on this thread
//
// Any thread may call. A delivery holds the multicaster's lock, so listeners run one at a time, on
// the thread that fires; other threads wait until it is through. Therefore a listener returns
// promptly, does not throw, and does not wait for a thread that uses the same multicaster. Once
// RemoveListener() has returned on another thread, the listener is not called any more and may be
// destroyed.
//
// On its own thread a listener may fire, add and remove. One that is added takes part in the
// delivery that is going on. When the listener being called is removed, by itself or within an
// event that it fires, its delivery ends there: those after it do not get the event. Listeners are
// not owned; the multicaster must not be destroyed by one. A multicaster of the whole process that
// is used until its end is never destroyed (foundation/Immortal.h).
//
// Delivering costs one uncontended lock and a virtual call per listener; adding and removing look
// through the list. Codes: 2001 "Memory allocation failed", those of QMCriticalSectionC.
#pragma once

#include <new>
#include <utility>

#include "qmutils/concurrency/IQMEventBase.h"
#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/PointerText.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/types.h"

template <class ListenerT>
class QMEventMulticasterC {
 public:
  QMEventMulticasterC() = default;
  QMEventMulticasterC(const QMEventMulticasterC&) = delete;
  QMEventMulticasterC& operator=(const QMEventMulticasterC&) = delete;
  ~QMEventMulticasterC();

  /// 0, also for a listener that is registered already (it stays where it is); 2001; or the lock's
  /// code. The listener must stay until it is removed or the multicaster is gone. `isNew`, which
  /// may be null, tells whether this call has registered it.
  QMErrors::QMErrorT AddListener(ListenerT& listener, bool* isNew = nullptr);
  /// 0, also for a listener that is not registered; or the lock's code.
  QMErrors::QMErrorT RemoveListener(ListenerT& listener);
  /// 0 when the event was delivered; or the lock's code.
  QMErrors::QMErrorT FireEvent(IQMEventBase& event);
  /// 0 also when the lock cannot be had.
  unsigned int GetListenerCount();

 private:
  using User = QMCriticalSectionC::QMCriticalSectionUserC;

  class EventListenerEntryC {
   public:
    explicit EventListenerEntryC(ListenerT* listener) : m_pListener(listener) {}
    virtual ~EventListenerEntryC() = default;

    EventListenerEntryC* m_pNext = nullptr;
    EventListenerEntryC* m_pPrevious = nullptr;
    ListenerT* m_pListener;
  };

  /// A delivery that is going on. The outermost one of a thread ends by freeing what was removed
  /// meanwhile, as it and those inside it may have stood on any of that.
  class DeliveryC {
   public:
    explicit DeliveryC(QMEventMulticasterC& owner) : m_Owner(owner) { ++m_Owner.m_nDeliveries; }
    ~DeliveryC() {
      if (--m_Owner.m_nDeliveries == 0) m_Owner.DeleteRemoved();
    }
    DeliveryC(const DeliveryC&) = delete;
    DeliveryC& operator=(const DeliveryC&) = delete;

   private:
    QMEventMulticasterC& m_Owner;
  };

  void DeleteRemoved();

  EventListenerEntryC* m_pFirst = nullptr;
  QMCriticalSectionC m_Section;
  // Under the section, as the list is.
  EventListenerEntryC* m_pRemoved = nullptr;  // linked by m_pPrevious
  unsigned int m_nDeliveries = 0;
};

template <class ListenerT>
QMEventMulticasterC<ListenerT>::~QMEventMulticasterC() {
  User user(&m_Section);
  user.EnterCriticalSection("~QMEventMulticasterC", nullptr, INFINITE);
  DeleteRemoved();
  while (m_pFirst != nullptr) delete std::exchange(m_pFirst, m_pFirst->m_pNext);
}

template <class ListenerT>
QMErrors::QMErrorT QMEventMulticasterC<ListenerT>::AddListener(ListenerT& listener, bool* isNew) {
  if (isNew != nullptr) *isNew = false;
  User user(&m_Section);
  const QMErrors::QMErrorT entered =
      user.EnterCriticalSection("QMEventMulticasterC::AddListener(): ", nullptr, INFINITE);
  if (entered != QMErrors::NoError) return entered;
  EventListenerEntryC* last = nullptr;
  for (EventListenerEntryC* entry = m_pFirst; entry != nullptr; entry = entry->m_pNext) {
    if (entry->m_pListener == &listener) {
      qm::logWarning(18,
                     "QMEventMulticasterC::AddListener(): Ignoring attempt to create duplicate "
                     "entry for:",
                     qm::PointerText(&listener).view());
      return QMErrors::NoError;
    }
    last = entry;
  }
  auto* const entry = new (std::nothrow) EventListenerEntryC(&listener);
  if (entry == nullptr) {
    qm::logWarning(0, "QMEventMulticasterC::AddListener(): Failed allocating: EventListenerEntryC");
    return QMErrors::MemoryAllocationFailed;
  }
  entry->m_pPrevious = last;
  (last != nullptr ? last->m_pNext : m_pFirst) = entry;
  if (isNew != nullptr) *isNew = true;
  return QMErrors::NoError;
}

template <class ListenerT>
QMErrors::QMErrorT QMEventMulticasterC<ListenerT>::RemoveListener(ListenerT& listener) {
  User user(&m_Section);
  const QMErrors::QMErrorT entered =
      user.EnterCriticalSection("QMEventMulticasterC::RemoveListener(): ", nullptr, INFINITE);
  if (entered != QMErrors::NoError) return entered;
  EventListenerEntryC* entry = m_pFirst;
  while (entry != nullptr && entry->m_pListener != &listener) entry = entry->m_pNext;
  if (entry == nullptr) return QMErrors::NoError;
  (entry->m_pPrevious != nullptr ? entry->m_pPrevious->m_pNext : m_pFirst) = entry->m_pNext;
  if (entry->m_pNext != nullptr) entry->m_pNext->m_pPrevious = entry->m_pPrevious;
  // A delivery that stands on this entry follows its next link, and so ends here.
  entry->m_pNext = nullptr;
  entry->m_pPrevious = std::exchange(m_pRemoved, entry);
  if (m_nDeliveries == 0) DeleteRemoved();
  return QMErrors::NoError;
}

template <class ListenerT>
QMErrors::QMErrorT QMEventMulticasterC<ListenerT>::FireEvent(IQMEventBase& event) {
  User user(&m_Section);
  const QMErrors::QMErrorT entered =
      user.EnterCriticalSection("QMEventMulticasterC::FireEvent(): ", nullptr, INFINITE);
  if (entered != QMErrors::NoError) return entered;
  const DeliveryC delivery(*this);
  for (EventListenerEntryC* entry = m_pFirst; entry != nullptr; entry = entry->m_pNext) {
    entry->m_pListener->OnEvent(event);
  }
  return QMErrors::NoError;
}

template <class ListenerT>
unsigned int QMEventMulticasterC<ListenerT>::GetListenerCount() {
  User user(&m_Section);
  const QMErrors::QMErrorT entered =
      user.EnterCriticalSection("QMEventMulticasterC::GetListenerCount", nullptr, INFINITE);
  if (entered != QMErrors::NoError) return 0;
  unsigned int count = 0;
  for (EventListenerEntryC* entry = m_pFirst; entry != nullptr; entry = entry->m_pNext) ++count;
  return count;
}

template <class ListenerT>
void QMEventMulticasterC<ListenerT>::DeleteRemoved() {
  while (m_pRemoved != nullptr) delete std::exchange(m_pRemoved, m_pRemoved->m_pPrevious);
}
