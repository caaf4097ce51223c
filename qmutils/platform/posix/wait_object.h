// The table of waitable objects and the dispatcher that decides waits.
//
// Each object's state is one 64-bit word:
//
//   63       37 36  34 33         32        31                            0
//   generation  kind   abandoned  waiters   value
//
// The value is 0/1 for events, threads and processes, the count of a semaphore, the owner's thread
// identifier of a mutex. As the generation stands in the word, a compare-exchange through a stale
// handle fails by itself, and an operation that need not wait is one atomic operation without any
// reference count. A thread that has to wait sets the waiters bit on all its objects, under the
// dispatcher's lock; from then on every operation that could change such a word takes that lock
// too. So the word of an object with waiters changes under the lock only.
//
// Objects lie in chunks that are never freed: a stale handle always reads an object's word.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "qmutils/platform/posix/thread_record.h"
#include "qmutils/platform/types.h"

namespace qm::platform::posix {

enum class Kind : unsigned { Free, AutoEvent, ManualEvent, Mutex, Semaphore, Thread, Process };

inline constexpr std::uint64_t kValueMask = 0xFFFFFFFFu;
inline constexpr std::uint64_t kWaiters = std::uint64_t{1} << 32;
inline constexpr std::uint64_t kAbandoned = std::uint64_t{1} << 33;
inline constexpr int kKindShift = 34;
inline constexpr int kGenerationShift = 37;
inline constexpr std::uint32_t kGenerationMask = (1u << 27) - 1;

constexpr DWORD valueOf(std::uint64_t word) noexcept { return static_cast<DWORD>(word); }
constexpr Kind kindOf(std::uint64_t word) noexcept {
  return static_cast<Kind>((word >> kKindShift) & 7u);
}
constexpr std::uint32_t generationOf(std::uint64_t word) noexcept {
  return static_cast<std::uint32_t>(word >> kGenerationShift);
}
constexpr std::uint64_t withValue(std::uint64_t word, DWORD value) noexcept {
  return (word & ~kValueMask) | value;
}

struct WaitEntry;
struct WaitObject;

/// One thread's wait for one or several objects; lives on the waiting thread's stack and is guarded
/// by the dispatcher's lock while any entry is linked.
struct WaitBlock {
  ThreadRecord* thread;
  WaitEntry* entries;
  std::size_t count;
  bool all;
  bool done = false;
  DWORD result = WAIT_TIMEOUT;
};

/// A block's place in the waiter list of one of its objects; the entry's position is the index that
/// the wait reports.
struct WaitEntry {
  WaitObject* object;
  WaitBlock* block;
  WaitEntry* next;
  WaitEntry* previous;
};

struct WaitObject {
  std::atomic<std::uint64_t> word{0};
  std::atomic<LONG> maximum{0};  ///< of a semaphore
  std::uint32_t index = 0;       ///< place in the table

  // A mutex, touched by its owner only:
  std::uint32_t recursion = 0;
  WaitObject* nextOwned = nullptr;
  WaitObject* previousOwned = nullptr;

  // Guarded by the dispatcher's lock:
  WaitEntry* firstWaiter = nullptr;
  WaitEntry* lastWaiter = nullptr;
  int pins = 0;  ///< waiters, and the running thread or process behind the object
  bool closed = false;
  DWORD exitCode = STILL_ACTIVE;
  ThreadRecord* thread = nullptr;    ///< while the thread runs
  std::shared_ptr<void> attachment;  ///< of a process, also a former one
  WaitObject* nextFree = nullptr;
};

class WakeList;

/// Holds the dispatcher's lock. The holder cannot be suspended.
class DispatcherLock {
 public:
  enum NoRecordT { kNoRecord };

  DispatcherLock() noexcept;
  /// For a thread that has no record, not yet or no longer, and so cannot be suspended anyway.
  explicit DispatcherLock(NoRecordT) noexcept;
  ~DispatcherLock();
  DispatcherLock(const DispatcherLock&) = delete;
  DispatcherLock& operator=(const DispatcherLock&) = delete;

  void unlock() noexcept;
  void lock() noexcept;
  /// Wakes outside the lock, where a woken thread does not run into it at once, but before the
  /// caller can be suspended: whom it woke must not wait until it is resumed.
  void unlockAndWake(WakeList& wakes) noexcept;

 private:
  const bool defers_;
  bool held_ = true;
};

/// The threads to wake once the dispatcher's lock is released.
class WakeList {
 public:
  bool full() const noexcept { return count_ == kCapacity; }
  void add(ThreadRecord* thread) noexcept { threads_[count_++] = thread; }
  /// Call without the lock.
  void wakeAll() noexcept;

 private:
  static constexpr int kCapacity = 64;
  ThreadRecord* threads_[kCapacity];
  int count_ = 0;
};

/// Around a fork, so that the child finds the table whole and the lock free.
void lockDispatcherForFork() noexcept;
void unlockDispatcherAfterFork() noexcept;
/// In the child, whose only thread is the calling one: the others' waits are forgotten, their
/// threads have ended, and their mutexes are abandoned. `former` is the calling thread's identifier
/// in the parent, 0 without a record.
void forgetOtherThreads(const ThreadRecord* self, DWORD former) noexcept;

// The table. What follows is part of every operation that need not wait, so it is inline.
inline constexpr std::uint32_t kChunkSize = 256;
inline constexpr std::uint32_t kChunkCount = 4096;
/// Handles look aligned, as programs expect of a pointer-sized value.
inline constexpr int kIndexShift = 3;
extern std::atomic<WaitObject*> chunks[kChunkCount];

/// The object a handle may name: its slot in the table, or null for a value that is no handle. The
/// caller compares the generation in the object's word with handleGeneration().
inline WaitObject* locate(HANDLE handle) noexcept {
  const auto low = static_cast<std::uint32_t>(reinterpret_cast<std::uint64_t>(handle));
  const std::uint32_t place = low >> kIndexShift;
  if ((low & ((1u << kIndexShift) - 1)) != 0 || place == 0 || place > kChunkCount * kChunkSize) {
    return nullptr;
  }
  WaitObject* chunk = chunks[(place - 1) / kChunkSize].load(std::memory_order_acquire);
  return chunk == nullptr ? nullptr : &chunk[(place - 1) % kChunkSize];
}
inline std::uint32_t handleGeneration(HANDLE handle) noexcept {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uint64_t>(handle) >> 32);
}
/// True when `word` belongs to the object that the handle names.
inline bool names(HANDLE handle, std::uint64_t word) noexcept {
  return generationOf(word) == handleGeneration(handle) && kindOf(word) != Kind::Free;
}

/// The object of a handle, with the dispatcher's lock held; null (last error 6) for any other.
WaitObject* resolve(HANDLE handle) noexcept;

/// A new object and its handle; null (last error 8) when memory or the table is exhausted.
WaitObject* newObject(Kind kind, DWORD value, HANDLE* handle) noexcept;

/// With the dispatcher's lock held: drops a pin; a closed object without pins is recycled.
void unpin(WaitObject* object) noexcept;

/// With the lock held: lets the block have what it waits for, if its objects are signalled. Every
/// object of the block must carry the waiters bit.
bool satisfy(WaitBlock& block) noexcept;

/// With the lock held: puts the block's entries into, or takes them out of, the waiter lists.
void link(WaitBlock& block) noexcept;
void unlink(WaitBlock& block) noexcept;

/// With the lock held: an object without waiters loses the waiters bit.
void settle(WaitObject* object) noexcept;

/// Gives every waiter that the object's new state satisfies what it waits for. Call with the lock
/// held, after changing the word; threads to wake are added to `wakes`. When the list is full the
/// lock is left for a moment to wake them.
void dispatch(WaitObject* object, DispatcherLock& lock, WakeList& wakes) noexcept;

/// Sets the value of an object that may have waiters, and wakes those it satisfies.
void signalObject(WaitObject* object, DispatcherLock& lock, WakeList& wakes) noexcept;

/// Puts a mutex into, or takes it out of, the calling thread's list of owned mutexes.
void addOwned(ThreadRecord& owner, WaitObject* mutex) noexcept;
void removeOwned(ThreadRecord& owner, WaitObject* mutex) noexcept;

/// Abandons all mutexes of a thread that ends.
void abandonOwned(ThreadRecord& owner) noexcept;

}  // namespace qm::platform::posix
