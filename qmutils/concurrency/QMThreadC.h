// Worker threads. A subclass overrides run(); the base class starts it on a thread of its own,
// tells it to end through an end event, and keeps every thread object in one pool, so that stopping
// a parent stops its children first and stopAll() ends the program's background work.
//
//   class PollerC : public QMThreadC {
//    public:
//     PollerC() : QMThreadC("Poller", nullptr, INFINITE, 0) {}
//     ~PollerC() override { stop(); }                 // see below
//     QMErrors::QMErrorT run() override {
//       while (Sleep(100) == 0) poll();               // ends early once stop() was called
//       return QMErrors::NoError;
//     }
//   };
//
// A thread is never killed: a run() that ignores its end event goes on after stop() has given up,
// and must then not touch its object once that is destroyed. Every derived class calls stop() first
// in its own destructor, as the base destructor runs when the derived part is already gone.
//
// start(), stop() and the pool operations may be called from any thread. The waits and sleeps are
// for run() itself. Failures are logged and returned as codes; nothing throws.
#pragma once

#include <atomic>
#include <memory>

#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMThreadC {
 public:
  /// Joins the pool; no thread is started. `name` is a literal or lives as long as the object
  /// (null: "Unknown"); with `autoDelete` it is a literal. `parent` may be null: a top-level
  /// thread. `stopTimeoutMs` limits how long stop() waits. With `autoDelete` non-zero the object,
  /// which must come from new, deletes itself after run() returns.
  QMThreadC(const char* name, QMThreadC* parent, DWORD stopTimeoutMs, int autoDelete);
  QMThreadC(const QMThreadC&) = delete;
  QMThreadC& operator=(const QMThreadC&) = delete;
  /// Leaves the pool and stops the thread.
  virtual ~QMThreadC();

  /// The thread's body; its result is the thread's exit code. This one logs that there is no body
  /// and gives 2107.
  virtual QMErrors::QMErrorT run();

  /// Starts the thread unless it is alive. 0; 1006 "Failed to start thread" when it did not come
  /// alive within ten seconds; 2011 "Resource allocation failed".
  QMErrors::QMErrorT start();

  /// Signals the children, stops each of them, then signals this thread, resuming it if it was
  /// suspended, and waits for its end. After the stop time-out it gives up, logs so, and leaves the
  /// thread running. From within the thread itself the request is ignored. Gives the first failure
  /// of a notification: 1007 "Failed to resume thread", 2011 (never started) or an OS code; 2001
  /// when there was no memory to note the children.
  QMErrors::QMErrorT stop();

  /// Stops every top-level thread in the order of construction; gives the first failure.
  static QMErrors::QMErrorT stopAll();

  /// Takes the object out of the pool, waits while its thread is stopping, and deletes the object
  /// if asked. 0 or the pool lock's code.
  QMErrors::QMErrorT RemoveThread(int deleteIt);

  /// The first pool member behind `after` (null: from the oldest) whose parent is this object.
  QMThreadC* FindChild(QMThreadC* after);
  QMThreadC* GetParent() const { return m_pParent.load(); }
  /// Refused, with a log line, for the thread itself and what stands below it.
  void SetParent(QMThreadC* parent);
  /// True for a top-level thread.
  bool bIsParent() const { return GetParent() == nullptr; }

  DWORD GetThreadID() const;
  /// Null when not started or after stop(); owned by the object.
  void* GetThread() const;
  /// Null before the first start(); owned by the object.
  void* GetEndEvent() const;
  const char* GetSafeThreadName() const;

  bool IsAlive() const;
  bool IsDead() const;
  /// Also true before the first start(), as there is no event to wait for.
  bool IsEndEventSignalled() const;

  /// Sleeps in slices of at most 10000 ms. All ones as soon as a slice ends with the end event
  /// signalled; 192 when an alertable slice ended by an I/O completion; else 0. 0 ms yields once.
  DWORD SleepEx(DWORD milliseconds, bool alertable) const;
  DWORD Sleep(DWORD milliseconds) const { return SleepEx(milliseconds, false); }

  /// Waits for the handle or the end event: 0, 1 (the end event), 128 (abandoned), 258 (time-out).
  DWORD WaitForSingleObject(void* handle, DWORD timeoutMs) const;
  /// Any: the index of the handle, `count` for the end event. All: waits for each in turn and stops
  /// at the first result other than 0, so 1 means the end event. 258 for a time-out.
  DWORD WaitForMultipleObjects(DWORD count, void* const* handles, bool waitAll,
                               DWORD timeoutMs) const;

  /// The previous suspend count, or all ones on failure.
  DWORD SuspendThread();
  DWORD ResumeThread();
  /// -15, -2..2, 15. Non-zero on success.
  int SetThreadPriority(int priority);
  int SetThreadPriority(void* handle, int priority);

 protected:
  /// Signals the end event and resumes the thread fully. 0, 1007, 2011 or an OS code.
  QMErrors::QMErrorT NotifyEnd();
  /// The first half of stop(): signals the children, then stops each of them. For a parent whose
  /// thread makes children until its own end.
  QMErrors::QMErrorT StopChildren() { return StopChildren(this); }

 private:
  struct ControlC;
  using ControlPtr = std::shared_ptr<ControlC>;

  static DWORD ThreadWrapper(void* argument);
  static QMErrors::QMErrorT Stop(const ControlPtr& control, const QMThreadC* object);
  static QMErrors::QMErrorT StopChildren(const QMThreadC* parent);
  DWORD WaitForAll(DWORD count, void* const* handles, DWORD timeoutMs) const;
  DWORD WaitForAny(DWORD count, void* const* handles, DWORD timeoutMs) const;
  bool IsStopping() const;
  static bool IsPooled(const QMThreadC* thread);
  void Unlink();

  static QMCriticalSectionC& m_PoolCS();
  static QMThreadC* m_pThreads;  // the oldest; guarded by m_PoolCS, as are the links

  QMThreadC* m_pNext = nullptr;
  QMThreadC* m_pPrevious = nullptr;
  std::atomic<QMThreadC*> m_pParent;
  // What the running thread, start() and stop() share; it outlives an object that deletes itself.
  ControlPtr m_pControl;
};
