#include "qmutils/platform/posix/wait_object.h"

#include <sys/eventfd.h>

#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/suspension.h"

namespace qm::platform::posix {

constinit std::atomic<WaitObject*> chunks[kChunkCount] = {};

namespace {

static_assert(sizeof(void*) == 8, "handles carry a generation beside the index");

// Constant-initialised and trivially destroyed, as all here: threads may outlive main().
constinit std::mutex dispatcherMutex;

// Guarded by the dispatcher's lock. First in, first out, so that a slot rests as long as possible
// before it is used again.
constinit WaitObject* firstFree = nullptr;
constinit WaitObject* lastFree = nullptr;
constinit std::uint32_t chunksInUse = 0;

void appendFree(WaitObject* object) noexcept {
  object->nextFree = nullptr;
  (lastFree != nullptr ? lastFree->nextFree : firstFree) = object;
  lastFree = object;
}

/// Adds a chunk without holding the lock while it asks for memory: a thread may have been suspended
/// inside the allocator, and who is to resume it needs the lock.
bool addChunk(DispatcherLock& lock) noexcept {
  lock.unlock();
  std::unique_ptr<WaitObject[]> made(new (std::nothrow) WaitObject[kChunkSize]);
  lock.lock();
  if (firstFree != nullptr) return true;  // another thread was faster
  if (made == nullptr || chunksInUse == kChunkCount) return false;
  WaitObject* const chunk = made.release();
  for (std::uint32_t i = 0; i < kChunkSize; ++i) {
    chunk[i].index = chunksInUse * kChunkSize + i;
    appendFree(&chunk[i]);
  }
  chunks[chunksInUse++].store(chunk, std::memory_order_release);
  return true;
}

HANDLE makeHandle(const WaitObject& object, std::uint32_t generation) noexcept {
  const std::uint64_t bits =
      (std::uint64_t{generation} << 32) | (std::uint64_t{object.index + 1} << kIndexShift);
  return reinterpret_cast<HANDLE>(bits);
}

void recycle(WaitObject* object) noexcept {
  const std::uint64_t word = object->word.load(std::memory_order_relaxed);
  object->word.store(word >> kGenerationShift << kGenerationShift, std::memory_order_release);
  object->thread = nullptr;
  object->exitCode = STILL_ACTIVE;
  appendFree(object);
}

bool signalledFor(std::uint64_t word, DWORD threadId) noexcept {
  const DWORD value = valueOf(word);
  return kindOf(word) == Kind::Mutex ? value == 0 || value == threadId : value != 0;
}

/// Takes a signalled object for a thread; true when it was an abandoned mutex.
bool take(WaitObject* object, DWORD threadId) noexcept {
  const std::uint64_t word = object->word.load(std::memory_order_relaxed);
  switch (kindOf(word)) {
    case Kind::AutoEvent:
      object->word.store(withValue(word, 0), std::memory_order_relaxed);
      return false;
    case Kind::Semaphore:
      object->word.store(withValue(word, valueOf(word) - 1), std::memory_order_relaxed);
      return false;
    case Kind::Mutex:
      object->recursion = valueOf(word) == threadId ? object->recursion + 1 : 1;
      object->word.store(withValue(word & ~kAbandoned, threadId), std::memory_order_relaxed);
      return (word & kAbandoned) != 0;
    default:
      return false;  // manual events, threads and processes stay signalled
  }
}

}  // namespace

void lockDispatcherForFork() noexcept {
  deferSuspension();
  dispatcherMutex.lock();
}

void unlockDispatcherAfterFork() noexcept {
  dispatcherMutex.unlock();
  allowSuspension();
}

namespace {

void forgetOtherThreads(WaitObject& object, const ThreadRecord* self, DWORD former) noexcept {
  std::uint64_t word = object.word.load(std::memory_order_relaxed) & ~kWaiters;
  const Kind kind = kindOf(word);
  if (kind == Kind::Free) return;
  bool isHeld = false;  // by its thread or process, or as a mutex by the calling thread
  if (kind == Kind::Mutex && valueOf(word) != 0) {
    isHeld = valueOf(word) == former;
    word = isHeld ? withValue(word, self->threadId) : withValue(word | kAbandoned, 0);
  } else if (kind == Kind::Thread) {
    isHeld = object.thread != nullptr && object.thread == self;
    if (!isHeld) {
      object.thread = nullptr;
      word = withValue(word, 1);
    }
  } else if (kind == Kind::Process) {
    isHeld = object.pins != 0;
  }
  object.word.store(word, std::memory_order_relaxed);
  // The waiters' entries lay on stacks that may be gone; they are not looked at.
  object.firstWaiter = object.lastWaiter = nullptr;
  object.pins = isHeld && kind != Kind::Mutex ? 1 : 0;
  if (object.closed && !isHeld) recycle(&object);
}

}  // namespace

void forgetOtherThreads(const ThreadRecord* self, DWORD former) noexcept {
  for (std::uint32_t i = 0; i < chunksInUse; ++i) {
    WaitObject* const chunk = chunks[i].load(std::memory_order_relaxed);
    for (std::uint32_t j = 0; j < kChunkSize; ++j) forgetOtherThreads(chunk[j], self, former);
  }
}

DispatcherLock::DispatcherLock() noexcept : defers_(true) {
  deferSuspension();
  dispatcherMutex.lock();
}

DispatcherLock::DispatcherLock(NoRecordT) noexcept : defers_(false) { dispatcherMutex.lock(); }

DispatcherLock::~DispatcherLock() {
  if (held_) unlock();
}

void DispatcherLock::unlock() noexcept {
  held_ = false;
  dispatcherMutex.unlock();
  if (defers_) allowSuspension();
}

void DispatcherLock::unlockAndWake(WakeList& wakes) noexcept {
  held_ = false;
  dispatcherMutex.unlock();
  wakes.wakeAll();
  if (defers_) allowSuspension();
}

void DispatcherLock::lock() noexcept {
  if (defers_) deferSuspension();
  dispatcherMutex.lock();
  held_ = true;
}

void WakeList::wakeAll() noexcept {
  for (int i = 0; i < count_; ++i) futexWake(&threads_[i]->parking, 1);
  count_ = 0;
}

WaitObject* resolve(HANDLE handle) noexcept {
  WaitObject* object = locate(handle);
  if (object != nullptr && names(handle, object->word.load(std::memory_order_relaxed))) {
    return object;
  }
  setLastError(ERROR_INVALID_HANDLE);
  return nullptr;
}

WaitObject* newObject(Kind kind, DWORD value, HANDLE* handle) noexcept {
  std::shared_ptr<void> former;  // let go of without the lock
  DispatcherLock lock;
  if (firstFree == nullptr && !addChunk(lock)) {
    setLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  WaitObject* object = firstFree;
  firstFree = object->nextFree;
  if (firstFree == nullptr) lastFree = nullptr;
  object->closed = false;
  former = std::move(object->attachment);
  const std::uint32_t generation = generationOf(object->word.load(std::memory_order_relaxed));
  object->word.store((std::uint64_t{generation} << kGenerationShift) |
                         (std::uint64_t{static_cast<unsigned>(kind)} << kKindShift) | value,
                     std::memory_order_release);
  *handle = makeHandle(*object, generation);
  return object;
}

void unpin(WaitObject* object) noexcept {
  if (--object->pins == 0 && object->closed) recycle(object);
}

bool satisfy(WaitBlock& block) noexcept {
  const DWORD threadId = block.thread->threadId;
  const auto ready = [&](std::size_t i) {
    return signalledFor(block.entries[i].object->word.load(std::memory_order_acquire), threadId);
  };
  if (!block.all) {
    for (std::size_t i = 0; i < block.count; ++i) {
      if (!ready(i)) continue;
      const bool abandoned = take(block.entries[i].object, threadId);
      block.result = static_cast<DWORD>(i) + (abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0);
      return true;
    }
    return false;
  }
  for (std::size_t i = 0; i < block.count; ++i) {
    if (!ready(i)) return false;
  }
  bool abandoned = false;
  for (std::size_t i = 0; i < block.count; ++i) {
    abandoned |= take(block.entries[i].object, threadId);
  }
  block.result = abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0;
  return true;
}

void link(WaitBlock& block) noexcept {
  for (std::size_t i = 0; i < block.count; ++i) {
    WaitEntry& entry = block.entries[i];
    WaitObject* object = entry.object;
    entry.next = nullptr;
    entry.previous = object->lastWaiter;
    (object->lastWaiter != nullptr ? object->lastWaiter->next : object->firstWaiter) = &entry;
    object->lastWaiter = &entry;
    ++object->pins;
  }
}

void unlink(WaitBlock& block) noexcept {
  for (std::size_t i = 0; i < block.count; ++i) {
    WaitEntry& entry = block.entries[i];
    WaitObject* object = entry.object;
    (entry.previous != nullptr ? entry.previous->next : object->firstWaiter) = entry.next;
    (entry.next != nullptr ? entry.next->previous : object->lastWaiter) = entry.previous;
    settle(object);
    unpin(object);
  }
}

void settle(WaitObject* object) noexcept {
  if (object->firstWaiter == nullptr) {
    object->word.fetch_and(~kWaiters, std::memory_order_release);
  }
}

void dispatch(WaitObject* object, DispatcherLock& lock, WakeList& wakes) noexcept {
  WaitEntry* entry = object->firstWaiter;
  while (entry != nullptr) {
    WaitBlock& block = *entry->block;
    // A block that waits for the same object twice has neighbouring entries.
    while (entry != nullptr && entry->block == &block) entry = entry->next;
    if (!satisfy(block)) continue;
    unlink(block);
    block.done = true;
    block.thread->parking.store(1, std::memory_order_release);
    if (block.thread->polled >= 0) {
      // Under the lock, so that the thread is still there and its descriptor its own.
      (void)eventfd_write(block.thread->polled, 1);
    } else {
      wakes.add(block.thread);
    }
    if (wakes.full()) {
      ++object->pins;
      lock.unlockAndWake(wakes);
      lock.lock();
      entry = object->firstWaiter;
      unpin(object);
    }
  }
}

void signalObject(WaitObject* object, DispatcherLock& lock, WakeList& wakes) noexcept {
  std::uint64_t word = object->word.load(std::memory_order_relaxed);
  while (!object->word.compare_exchange_weak(word, withValue(word, 1), std::memory_order_release,
                                             std::memory_order_relaxed)) {
  }
  dispatch(object, lock, wakes);
}

void addOwned(ThreadRecord& owner, WaitObject* mutex) noexcept {
  mutex->previousOwned = nullptr;
  mutex->nextOwned = owner.ownedMutexes;
  if (mutex->nextOwned != nullptr) mutex->nextOwned->previousOwned = mutex;
  owner.ownedMutexes = mutex;
}

void removeOwned(ThreadRecord& owner, WaitObject* mutex) noexcept {
  (mutex->previousOwned != nullptr ? mutex->previousOwned->nextOwned : owner.ownedMutexes) =
      mutex->nextOwned;
  if (mutex->nextOwned != nullptr) mutex->nextOwned->previousOwned = mutex->previousOwned;
}

void abandonOwned(ThreadRecord& owner) noexcept {
  while (owner.ownedMutexes != nullptr) {
    WaitObject* mutex = owner.ownedMutexes;
    removeOwned(owner, mutex);
    DispatcherLock lock;
    WakeList wakes;
    std::uint64_t word = mutex->word.load(std::memory_order_relaxed);
    while (!mutex->word.compare_exchange_weak(word, withValue(word | kAbandoned, 0),
                                              std::memory_order_release,
                                              std::memory_order_relaxed)) {
    }
    ++mutex->pins;
    dispatch(mutex, lock, wakes);
    unpin(mutex);  // a mutex closed while owned ends here
    lock.unlockAndWake(wakes);
  }
}

}  // namespace qm::platform::posix
