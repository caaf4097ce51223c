#include "qmutils/platform/posix/thread_record.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <utility>

#include "qmutils/platform/posix/suspension.h"
#include "qmutils/platform/posix/wait_object.h"

namespace qm::platform {
namespace posix {
namespace {

// Read by a signal handler, so it must be reachable without a call that allocates.
[[gnu::tls_model("initial-exec")]] constinit thread_local ThreadRecord* ownRecord = nullptr;

constinit ThreadRecord* firstFreeRecord = nullptr;  // guarded by the dispatcher's lock

void reset(ThreadRecord& record) noexcept {
  record.threadId = 0;
  record.parking.store(0, std::memory_order_relaxed);
  record.suspension.store(0, std::memory_order_relaxed);
  record.deferral.store(0, std::memory_order_relaxed);
  record.suspensionPending.store(false, std::memory_order_relaxed);
  record.priority.store(THREAD_PRIORITY_NORMAL, std::memory_order_relaxed);
  record.object = nullptr;
  record.exitCode = 0;
  record.begun = false;
  record.gone = false;
}

void recycle(ThreadRecord* record) noexcept {
  record->nextFree = firstFreeRecord;
  firstFreeRecord = record;
}

/// With the dispatcher's lock held: null when there is none.
ThreadRecord* takeFreeRecord() noexcept {
  ThreadRecord* const record = firstFreeRecord;
  if (record == nullptr) return nullptr;
  firstFreeRecord = record->nextFree;
  reset(*record);
  return record;
}

/// In the child of a fork the calling thread is the only one, and has another identifier.
void unlockInChild() noexcept {
  const DWORD former = ownRecord != nullptr ? ownRecord->threadId : 0;
  if (ownRecord != nullptr) ownRecord->threadId = static_cast<DWORD>(syscall(SYS_gettid));
  forgetOtherThreads(ownRecord, former);
  unlockDispatcherAfterFork();
}

DWORD systemThreadId() noexcept {
  static const int registered =
      pthread_atfork(lockDispatcherForFork, unlockDispatcherAfterFork, unlockInChild);
  (void)registered;
  return static_cast<DWORD>(syscall(SYS_gettid));
}

/// Gives up the calling thread's record: its mutexes become abandoned, suspenders learn that the
/// thread is gone, and its handle is signalled.
void endCurrentThread(void* ending) noexcept {
  auto* record = static_cast<ThreadRecord*>(ending);
  WaitObject* const threadObject = record->object;
  abandonOwned(*record);
  if (record->wakeDescriptor >= 0) close(std::exchange(record->wakeDescriptor, -1));
  // It must not park any more, as nobody could resume it.
  record->deferral.fetch_add(1, std::memory_order_relaxed);
  WakeList wakes;
  QueuedCall* calls;
  {
    DispatcherLock lock(DispatcherLock::kNoRecord);
    calls = record->firstCall;
    record->firstCall = record->lastCall = nullptr;
    record->gone = true;
    record->suspension.fetch_or(kEnded, std::memory_order_release);
    if (threadObject != nullptr) {
      threadObject->exitCode = record->exitCode;
      threadObject->thread = nullptr;
      signalObject(threadObject, lock, wakes);
      unpin(threadObject);
    }
  }
  wakes.wakeAll();
  futexWake(&record->suspension, INT32_MAX);
  while (calls != nullptr) {
    QueuedCall* next = calls->next;
    delete calls;
    calls = next;
  }
  ownRecord = nullptr;
  DispatcherLock lock(DispatcherLock::kNoRecord);
  if (record->pins == 0) recycle(record);
}

/// Without a key no end of a thread would be noticed; the system has 1024 of them.
pthread_key_t makeThreadEndKey() noexcept {
  pthread_key_t key;
  if (pthread_key_create(&key, endCurrentThread) != 0) std::abort();
  return key;
}

/// A record for a thread that others started. Such a thread cannot go on without one, and the few
/// bytes are not to be had only when the process is at its end anyway.
ThreadRecord& makeForeignRecord() noexcept {
  ThreadRecord* record;
  {
    DispatcherLock lock(DispatcherLock::kNoRecord);
    record = takeFreeRecord();
  }
  if (record == nullptr) record = new (std::nothrow) ThreadRecord;
  if (record == nullptr) std::abort();
  adoptThreadRecord(record);
  return *record;
}

}  // namespace

ThreadRecord& currentThread() noexcept {
  ThreadRecord* record = ownRecord;
  return record != nullptr ? *record : makeForeignRecord();
}

void adoptThreadRecord(ThreadRecord* record) noexcept {
  // Behind all thread_local destructors, which may still use the library; and also when the thread
  // ends by pthread_exit(). The main thread's record lasts as long as the process.
  static const pthread_key_t atThreadEnd = makeThreadEndKey();
  record->threadId = systemThreadId();
  ownRecord = record;
  pthread_setspecific(atThreadEnd, record);
}

ThreadRecord* newThreadRecord() noexcept {
  {
    DispatcherLock lock;
    if (ThreadRecord* const record = takeFreeRecord()) return record;
  }
  return new (std::nothrow) ThreadRecord;
}

ThreadRecord* currentThreadIfKnown() noexcept { return ownRecord; }

void unpinThreadRecord(ThreadRecord* record) noexcept {
  if (--record->pins == 0 && record->gone) recycle(record);
}

}  // namespace posix

DWORD currentThreadId() noexcept { return posix::currentThread().threadId; }

}  // namespace qm::platform
