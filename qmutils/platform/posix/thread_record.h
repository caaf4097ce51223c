// What the platform keeps about each thread that uses it: its identifier, the word it sleeps on,
// the mutexes it owns, its suspension and its queued calls.
//
// Records are recycled but never freed, so a late wake or a suspender that comes too late always
// meets a record, at worst one that no longer belongs to that thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "qmutils/platform/posix/futex.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/types.h"

namespace qm::platform::posix {

struct WaitObject;

/// A call queued for an alertable sleep.
struct QueuedCall {
  AsyncCall call;
  void* argument;
  QueuedCall* next;
};

struct ThreadRecord {
  DWORD threadId = 0;
  /// 0 while the thread is to sleep; whoever ends the sleep stores 1 and wakes.
  FutexWord parking{0};
  /// Suspend count in the low bits, and the two bits of suspension.h.
  FutexWord suspension{0};
  /// Depth of pieces in which the thread must not stand still; read by its signal handler.
  std::atomic<int> deferral{0};
  std::atomic<bool> suspensionPending{false};
  std::atomic<int> priority{THREAD_PRIORITY_NORMAL};

  /// The handle's object and the exit code, of a thread that the platform started.
  WaitObject* object = nullptr;
  DWORD exitCode = 0;

  // For sleeping in a poll; only the thread itself touches these two.
  int wakeDescriptor = -1;
  unsigned wakeProcess = 0;  ///< the process generation that has opened it

  /// Mutexes owned, newest first. Only the thread itself touches the list.
  WaitObject* ownedMutexes = nullptr;

  // Guarded by the dispatcher's lock:
  int polled = -1;  ///< while the thread sleeps in a poll: its wakeDescriptor, else negative
  QueuedCall* firstCall = nullptr;
  QueuedCall* lastCall = nullptr;
  bool sleepingAlertable = false;
  int pins = 0;        ///< suspenders that still look at the record
  bool begun = false;  ///< the thread that the platform has started has its identifier
  bool gone = false;   ///< the thread has ended; recycled when the last pin goes
  ThreadRecord* nextFree = nullptr;
};

/// The calling thread's record, made on first use.
ThreadRecord& currentThread() noexcept;

/// The same without making one; for signal handlers.
ThreadRecord* currentThreadIfKnown() noexcept;

/// Makes `record` the calling thread's. For threads that the platform starts itself.
void adoptThreadRecord(ThreadRecord* record) noexcept;

/// A fresh record; null when memory runs out. The dispatcher's lock must not be held.
ThreadRecord* newThreadRecord() noexcept;

/// With the dispatcher's lock held: lets a suspender go; the last one recycles a gone record.
void unpinThreadRecord(ThreadRecord* record) noexcept;

}  // namespace qm::platform::posix
