// The mutex that processes share: robust (a dead owner is noticed), recursive, with deadlines.
//
// There is one RobustMutex per object and process, however often it is opened. While a thread of
// the process owns the mutex, its memory stays mapped: the system walks a dying thread's owned
// mutexes through it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "qmutils/platform/posix/named_objects_memory.h"
#include "qmutils/platform/posix/named_objects_words.h"

namespace qm::platform::posix {

/// What lies in the object.
struct MutexBlock {
  std::uint32_t magic;  ///< written first: the object is ours
  /// 1 while somebody may be asleep until the mutex is free. The mutex is only ever tried, never
  /// waited for inside the C library, because there a wait that both has a deadline and may find
  /// the owner dead is invisible to tools that watch locks.
  SharedWord sleepers;
  pthread_mutex_t mutex;
};

class RobustMutex {
 public:
  static const SharedSectionKind kKind;

  /// Makes the object afresh. Only for a user who is alone. Null on failure, as in open().
  static RobustMutex* create(const ObjectName& name) noexcept;
  /// Opens the object, or gives the one that this process has already.
  static RobustMutex* open(const ObjectName& name) noexcept;
  /// Undoes one create() or open(). With `keep`, the calling thread owns the mutex once and goes on
  /// owning it; without, no thread of the process that used this opening owns it.
  void close(bool keep) noexcept;
  /// Removes the object's name, if it still is this object's.
  void remove() noexcept { removeIfSame(name_, identity_); }

  DWORD tryAcquire() noexcept;
  DWORD acquire(const Deadline& deadline) noexcept;
  void declareRepaired() noexcept;
  void release() noexcept;
  /// Releases what this thread kept in close().
  void giveUpKept() noexcept;
  /// Once somebody of this process has acquired the mutex, no thread can still be keeping it.
  void forgetKept() noexcept { keptBy_ = 0; }

  /// The registry's lock is held around a copy of the process, and the copy drops every mutex.
  static void lockRegistry() noexcept;
  static void unlockRegistry() noexcept;
  static void dropAllInCopy() noexcept;

 private:
  RobustMutex() noexcept = default;
  static RobustMutex* adopt(const ObjectName& name, const Descriptor& object,
                            const ObjectIdentity& identity) noexcept;
  static RobustMutex* find(const ObjectIdentity& identity) noexcept;
  static void reapDead(const ObjectName& name, const ObjectIdentity& alive) noexcept;
  DWORD tryOnce() noexcept;
  void unlockAndWake() noexcept;
  MutexBlock& block() const noexcept { return *mapping_.as<MutexBlock>(); }

  ObjectName name_;
  ObjectIdentity identity_;
  Mapping mapping_;
  int openings_ = 0;
  /// The thread that kept the mutex in close(); 0: none.
  std::atomic<std::uint64_t> keptBy_{0};
  RobustMutex* next_ = nullptr;
};

}  // namespace qm::platform::posix
