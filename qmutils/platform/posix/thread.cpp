#include "qmutils/platform/thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <new>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/suspension.h"
#include "qmutils/platform/posix/wait_object.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {

using namespace posix;

namespace {

constexpr DWORD kFailed = 0xFFFFFFFFu;
constexpr std::uint32_t kMaximumSuspendCount = 127;

/// What a new thread needs of its starter.
struct StartRequest {
  ThreadRecord* record;
  WaitObject* object;
  ThreadEntry entry;
  void* argument;
  // One of the two: where to put the identifier, and whom to wake who waits for it on its stack.
  ThreadPlace* place;
  FutexWord* id;
};

/// The nearest scheduling weight; a system that refuses it leaves the thread as it was.
void applyPriority(DWORD threadId, int priority) noexcept {
  const int nice = priority <= -15 ? 19 : priority >= 15 ? -15 : -5 * priority;
  (void)setpriority(PRIO_PROCESS, threadId, nice);
}

/// From here on others may signal the thread; what they asked of it before, it does now.
void beginThread(ThreadRecord& record) noexcept {
  {
    DispatcherLock lock;
    record.begun = true;
    const int priority = record.priority.load(std::memory_order_relaxed);
    if (priority != THREAD_PRIORITY_NORMAL) applyPriority(record.threadId, priority);
  }
  parkWhileSuspended(record);
}

void* threadMain(void* argument) {
  const std::unique_ptr<StartRequest> request(static_cast<StartRequest*>(argument));
  ThreadRecord* const record = request->record;
  record->object = request->object;
  allowSuspensionSignal();
  adoptThreadRecord(record);
  if (request->place != nullptr) {
    request->place->id.store(record->threadId, std::memory_order_release);
    request->place->id.notify_all();
  } else {
    FutexWord* const id = request->id;
    id->store(record->threadId, std::memory_order_release);
    futexWake(id, 1);
  }
  beginThread(*record);
  record->exitCode = request->entry(request->argument);
  return nullptr;
}

int createDetached(StartRequest* request) noexcept {
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  error = pthread_create(&thread, &attributes, threadMain, request);
  pthread_attr_destroy(&attributes);
  return error;
}

/// Creates a thread with its object and record; null with the last error set.
HANDLE createThread(ThreadEntry entry, void* argument, ThreadPlace* place, FutexWord* id) noexcept {
  if (!prepareSuspension()) {
    setLastError(lastErrorFromErrno(errno));
    return nullptr;
  }
  HANDLE handle = nullptr;
  WaitObject* object = newObject(Kind::Thread, 0, &handle);
  if (object == nullptr) return nullptr;
  ThreadRecord* record = newThreadRecord();
  auto* const request = new (std::nothrow) StartRequest{record, object, entry, argument, place, id};
  int error = ENOMEM;
  if (record != nullptr && request != nullptr) {
    {
      DispatcherLock lock;
      object->thread = record;
      ++object->pins;
    }
    if (place != nullptr) place->handle.store(handle, std::memory_order_release);
    error = createDetached(request);
    if (error == 0) return handle;
    // Somebody may have found the handle in its place already, and wait for the thread.
    DispatcherLock lock;
    WakeList wakes;
    object->thread = nullptr;
    signalObject(object, lock, wakes);
    unpin(object);
    lock.unlockAndWake(wakes);
  }
  delete request;
  if (record != nullptr) {
    DispatcherLock lock;
    record->gone = true;
    ++record->pins;
    unpinThreadRecord(record);
  }
  if (place != nullptr) place->handle.store(nullptr, std::memory_order_relaxed);
  closeHandle(handle);
  setLastError(lastErrorFromErrno(error));
  return nullptr;
}

/// With the dispatcher's lock held: the running thread of a handle, or null with the last error 6
/// (no thread) or 5 (it has ended).
ThreadRecord* runningThread(HANDLE thread) noexcept {
  WaitObject* object = resolve(thread);
  if (object == nullptr) return nullptr;
  if (kindOf(object->word.load(std::memory_order_relaxed)) != Kind::Thread) {
    setLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  if (object->thread == nullptr) setLastError(ERROR_ACCESS_DENIED);
  return object->thread;
}

bool isPriority(int priority) noexcept {
  return (priority >= THREAD_PRIORITY_LOWEST && priority <= THREAD_PRIORITY_HIGHEST) ||
         priority == THREAD_PRIORITY_IDLE || priority == THREAD_PRIORITY_TIME_CRITICAL;
}

/// Runs the calls queued for this thread; false when there was none.
bool runQueuedCalls(ThreadRecord& record) noexcept {
  QueuedCall* calls;
  {
    DispatcherLock lock;
    calls = record.firstCall;
    record.firstCall = record.lastCall = nullptr;
    record.sleepingAlertable = calls == nullptr;
    record.parking.store(0, std::memory_order_relaxed);
  }
  if (calls == nullptr) return false;
  while (calls != nullptr) {
    QueuedCall* next = calls->next;
    calls->call(calls->argument);
    delete calls;
    calls = next;
  }
  return true;
}

DWORD alertableSleep(const Deadline& deadline) noexcept {
  ThreadRecord& record = currentThread();
  for (;;) {
    if (runQueuedCalls(record)) return WAIT_IO_COMPLETION;
    if (deadline.passed()) break;
    while (record.parking.load(std::memory_order_acquire) == 0 && !deadline.passed()) {
      futexWait(record.parking, 0, deadline);
    }
  }
  DispatcherLock lock;
  record.sleepingAlertable = false;
  return 0;
}

}  // namespace

HANDLE startThread(ThreadEntry entry, void* argument, DWORD* id) noexcept {
  FutexWord begun{0};
  const HANDLE handle = createThread(entry, argument, nullptr, &begun);
  if (handle == nullptr) return nullptr;
  while (begun.load(std::memory_order_acquire) == 0) {
    futexWait(begun, 0, Deadline::after(INFINITE));
  }
  if (id != nullptr) *id = begun.load(std::memory_order_relaxed);
  return handle;
}

bool startThread(ThreadEntry entry, void* argument, ThreadPlace& place) noexcept {
  place.id.store(0, std::memory_order_relaxed);
  if (createThread(entry, argument, &place, nullptr) != nullptr) return true;
  place.id.store(kFailed, std::memory_order_release);
  place.id.notify_all();
  return false;
}

bool threadExitCode(HANDLE thread, DWORD* code) noexcept {
  DispatcherLock lock;
  WaitObject* object = resolve(thread);
  if (object == nullptr) return false;
  if (kindOf(object->word.load(std::memory_order_relaxed)) != Kind::Thread) {
    setLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  *code = object->exitCode;
  return true;
}

DWORD suspendThread(HANDLE thread) noexcept {
  ThreadRecord* record;
  std::uint32_t previous;
  bool self;
  {
    DispatcherLock lock;
    record = runningThread(thread);
    if (record == nullptr) return kFailed;
    self = record == &currentThread();
    if ((record->suspension.load(std::memory_order_relaxed) & kCountMask) >= kMaximumSuspendCount) {
      setLastError(ERROR_SIGNAL_REFUSED);
      return kFailed;
    }
    previous = record->suspension.fetch_add(1, std::memory_order_acq_rel);
    // A thread that has not begun yet looks at the count before it runs.
    if (!self && record->begun && (previous & kParked) == 0 && !signalSuspension(*record)) {
      record->suspension.fetch_sub(1, std::memory_order_acq_rel);
      setLastError(ERROR_SIGNAL_REFUSED);
      return kFailed;
    }
    ++record->pins;
  }
  if (self) {
    parkWhileSuspended(*record);
  } else {
    awaitParked(*record);
  }
  DispatcherLock lock;
  const bool ended = record->gone;
  unpinThreadRecord(record);
  if (!ended) return previous & kCountMask;
  setLastError(ERROR_ACCESS_DENIED);
  return kFailed;
}

DWORD resumeThread(HANDLE thread) noexcept {
  DispatcherLock lock;
  WaitObject* object = resolve(thread);
  if (object == nullptr) return kFailed;
  ThreadRecord* record = runningThread(thread);
  if (record == nullptr) {
    return kindOf(object->word.load(std::memory_order_relaxed)) == Kind::Thread ? 0 : kFailed;
  }
  FutexWord& word = record->suspension;
  std::uint32_t seen = word.load(std::memory_order_relaxed);
  do {
    if ((seen & kCountMask) == 0) return 0;
  } while (!word.compare_exchange_weak(seen, seen - 1, std::memory_order_acq_rel));
  futexWake(&word, INT_MAX);
  return seen & kCountMask;
}

bool setThreadPriority(HANDLE thread, int priority) noexcept {
  if (!isPriority(priority)) {
    setLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  DispatcherLock lock;
  ThreadRecord* record = runningThread(thread);
  if (record == nullptr) return false;
  record->priority.store(priority, std::memory_order_relaxed);
  if (record->begun) applyPriority(record->threadId, priority);
  return true;
}

int threadPriority(HANDLE thread) noexcept {
  DispatcherLock lock;
  const ThreadRecord* record = runningThread(thread);
  return record == nullptr ? THREAD_PRIORITY_ERROR_RETURN
                           : record->priority.load(std::memory_order_relaxed);
}

int currentThreadPriority() noexcept {
  return currentThread().priority.load(std::memory_order_relaxed);
}

bool queueAsyncCall(HANDLE thread, AsyncCall call, void* argument) noexcept {
  auto* queued = new (std::nothrow) QueuedCall{call, argument, nullptr};
  if (queued == nullptr) {
    setLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  DispatcherLock lock;
  ThreadRecord* record = runningThread(thread);
  if (record == nullptr) {
    lock.unlock();
    delete queued;
    return false;
  }
  (record->lastCall != nullptr ? record->lastCall->next : record->firstCall) = queued;
  record->lastCall = queued;
  if (record->sleepingAlertable) {
    record->parking.store(1, std::memory_order_release);
    futexWake(&record->parking, 1);
  }
  return true;
}

DWORD sleep(DWORD milliseconds, bool alertable) noexcept {
  if (alertable) {
    const DWORD result = alertableSleep(Deadline::after(milliseconds));
    if (milliseconds == 0 && result == 0) sched_yield();
    return result;
  }
  if (milliseconds == 0) {
    sched_yield();
    return 0;
  }
  const FutexWord nobodyWakes{0};
  const Deadline deadline = Deadline::after(milliseconds);
  while (!deadline.passed()) futexWait(nobodyWakes, 0, deadline);
  return 0;
}

}  // namespace qm::platform
