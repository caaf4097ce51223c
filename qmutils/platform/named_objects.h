// Named objects shared between processes: a mutex, an event, a section of memory and doorbells
// that belong together, live as long as any process has them open, and survive the death of any
// process at any moment.
//
//   SharedObjects objects(names, kind);
//   objects.openMutex(Deadline::after(20'000));      // joins: from here on everything lives
//   objects.acquire(Deadline::after(20'000));
//   objects.openEvent() && objects.openSection();    // under the mutex
//   const Wakes wakes = objects.release();
//   objects.wake(wakes);
//
// When the last user closes, ends or dies, the content is gone: the next one to open starts with
// fresh objects. Objects of the same names that hold something else are refused and left untouched.
//
// Cost: opening and closing some 0.1 ms; acquire and release without contention some 50 ns; the
// other calls a few instructions, a system call only where somebody sleeps. Each sleep looks again
// after at most 100 ms, so that a process killed just before it would have woken somebody costs
// that much and no more.
//
// Threads: every call between opening and closing may come from any thread. Opening and closing
// belong to one thread at a time and come while no other call is in progress. A copy of the process
// (where a system can make one) starts with everything closed. Nothing throws; failures set the
// last error (5 denied, 6 the name belongs to something else, 8 no memory, 112 no room).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// Plain names without a separator. The environment variable QMUTILS_OBJECT_PREFIX is put before
/// each, so that several suites on one machine never meet.
struct SharedObjectNames {
  const char* mutex;
  const char* event;
  const char* section;
  const char* doorbells;
  const char* users;  ///< what tells the living users from the dead, where a system needs it
};

/// How a section of ours is told from a foreign one: its size, and a number at a fixed offset.
struct SharedSectionKind {
  std::size_t size;
  std::size_t magicOffset;
  std::uint32_t magic;
};

/// Who is to be woken once the mutex is free.
struct Wakes {
  bool event = false;
  std::uint8_t doorbells = 0;
  std::uint16_t doorbell[2] = {};
};

class SharedObjects {
 public:
  SharedObjects(const SharedObjectNames& names, const SharedSectionKind& kind) noexcept;
  /// Closes. No thread of the process may own the mutex.
  ~SharedObjects();
  SharedObjects(const SharedObjects&) = delete;
  SharedObjects& operator=(const SharedObjects&) = delete;

  // Opening, in this order. What is open already stays open and counts as success. After a success
  // the last error is 0 for a new object, 183 for one that existed.

  /// Joins the users and opens the mutex: WAIT_OBJECT_0, WAIT_TIMEOUT when another process kept
  /// joining or leaving busy until the deadline, else WAIT_FAILED. A mutex that the calling thread
  /// kept in close() is given up.
  DWORD openMutex(const Deadline& deadline) noexcept;
  /// Opens the event and the doorbells. The mutex is held.
  bool openEvent() noexcept;
  /// Opens and maps the section. The mutex is held. A section that is not of `kind.size` bytes is
  /// refused with last error 6; whether its content is ours is for the caller to see. A new one is
  /// all zero.
  bool openSection() noexcept;

  /// Closes everything. With `keepMutex`, the calling thread owns the mutex and goes on owning it
  /// until it ends (then the next to take it sees it abandoned) or opens again; without, no thread
  /// of the process may own it. The last user to close leaves nothing behind.
  void close(bool keepMutex) noexcept;

  /// True from a successful openMutex() to close().
  bool isOpen() const noexcept;
  /// The mapped section, null while it is not open.
  void* section() const noexcept;

  // The mutex: recursive for its thread. Between acquire and release the thread is not suspended.

  /// WAIT_OBJECT_0; WAIT_ABANDONED when the owner died and what the mutex guards may be half
  /// changed; WAIT_TIMEOUT; WAIT_FAILED.
  DWORD acquire(const Deadline& deadline) noexcept;
  /// The same with a handful of tries and no sleep.
  DWORD tryAcquire() noexcept;
  /// After WAIT_ABANDONED, once everything is whole again. Who dies before leaves the mutex
  /// abandoned, so the next one repairs again.
  void declareRepaired() noexcept;
  /// Releases the mutex; wake() is to follow for the sleepers that setEvent() and ring() found.
  [[nodiscard]] Wakes release() noexcept;
  void wake(const Wakes& wakes) noexcept;

  // The event: manual reset. It changes only under the mutex.

  bool eventIsSet() const noexcept;
  void setEvent() noexcept;
  void resetEvent() noexcept;
  /// Sleeps until the event is set, for at most `longestMs` (and never more than 100 ms); may come
  /// back earlier. Without the mutex.
  void waitEvent(DWORD longestMs) noexcept;

  // The doorbells, by number. Numbers may share a bell: who waits for one may be woken by a ring
  // for another and looks in vain. expectRing() and ring() come under the mutex; the rings between
  // the two ends of an expectation are never missed.

  std::uint32_t expectRing(std::uint16_t number) noexcept;
  /// Sleeps until the first ring after expectRing(), in the same way.
  void waitRing(std::uint16_t number, std::uint32_t expectation, DWORD longestMs) noexcept;
  void ring(std::uint16_t number) noexcept;

  /// Wakes every sleeper of the event and of every doorbell at once. Under the mutex, for repairs:
  /// the dead owner may have owed a wake to anyone.
  void wakeEverybody() noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qm::platform
