#include "qmutils/platform/posix/blocking_wait.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/process_generation.h"
#include "qmutils/platform/posix/wait_object.h"

namespace qm::platform::posix {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kDrivenClockSliceNanoseconds = 1'000'000;
constexpr std::int64_t kNoWakeSliceNanoseconds = 10'000'000;

/// A descriptor to wait for beside the objects.
struct Readiness {
  int descriptor;
  short events;
  bool ready = false;
};

/// The descriptor by which others wake the calling thread out of a poll; it is closed with the
/// thread, and a forked copy makes its own. Negative when the system has none left: the thread then
/// looks by itself from time to time.
int wakeDescriptor(ThreadRecord& thread) noexcept {
  if (thread.wakeDescriptor >= 0 && thread.wakeProcess != processGeneration()) {
    close(thread.wakeDescriptor);
    thread.wakeDescriptor = -1;
  }
  if (thread.wakeDescriptor < 0) {
    thread.wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    thread.wakeProcess = processGeneration();
  }
  return thread.wakeDescriptor;
}

/// Sleeps until the descriptor is ready, the thread is woken, or `nanoseconds` have passed.
void pollOnce(Readiness& readiness, int wake, std::int64_t nanoseconds) noexcept {
  pollfd entries[] = {{readiness.descriptor, readiness.events, 0}, {wake, POLLIN, 0}};
  // poll() passes over a negative descriptor, where this one's error is an answer.
  if (readiness.descriptor < 0) {
    readiness.ready = true;
    return;
  }
  const timespec time{static_cast<time_t>(nanoseconds / kNanosecondsPerSecond),
                      static_cast<long>(nanoseconds % kNanosecondsPerSecond)};
  if (ppoll(entries, 2, nanoseconds == INT64_MAX ? nullptr : &time, nullptr) <= 0) return;
  readiness.ready = entries[0].revents != 0;
  if (entries[1].revents != 0) {
    eventfd_t count;
    (void)eventfd_read(wake, &count);
  }
}

void pollUntilWoken(ThreadRecord& thread, Readiness& readiness, const Deadline& deadline) noexcept {
  const int wake = thread.wakeDescriptor;
  while (thread.parking.load(std::memory_order_acquire) == 0) {
    std::int64_t slice = INT64_MAX;
    if (!deadline.never()) {
      slice = std::max<std::int64_t>(0, deadline.nanoseconds() - monotonicNanoseconds());
    }
    if (timeSourceReplaced()) slice = std::min(slice, kDrivenClockSliceNanoseconds);
    if (wake < 0) slice = std::min(slice, kNoWakeSliceNanoseconds);
    pollOnce(readiness, wake, slice);
    if (readiness.ready || deadline.passed()) return;
  }
}

/// The mutexes that a wait has taken join the list of their owner, the calling thread.
void noteTakenMutexes(const WaitBlock& block) noexcept {
  const auto note = [&](WaitObject* object) {
    const std::uint64_t word = object->word.load(std::memory_order_relaxed);
    // A mutex closed meanwhile may be somebody else's by now.
    if (kindOf(word) == Kind::Mutex && valueOf(word) == block.thread->threadId &&
        object->recursion == 1) {
      addOwned(*block.thread, object);
    }
  };
  if (block.all) {
    for (std::size_t i = 0; i < block.count; ++i) note(block.entries[i].object);
  } else {
    note(block.entries[block.result & 0x7F].object);
  }
}

/// Sleeps until the block is done, its deadline passes or the descriptor is ready; true when done.
bool park(WaitBlock& block, const Deadline& deadline, Readiness* readiness,
          DispatcherLock& lock) noexcept {
  ThreadRecord& thread = *block.thread;
  for (;;) {
    lock.unlock();
    if (readiness != nullptr) {
      pollUntilWoken(thread, *readiness, deadline);
    } else {
      while (thread.parking.load(std::memory_order_acquire) == 0 && !deadline.passed()) {
        futexWait(thread.parking, 0, deadline);
      }
    }
    lock.lock();
    if (block.done) return true;
    if (deadline.passed() || (readiness != nullptr && readiness->ready)) return false;
    // A wake left over from an earlier wait of this thread.
    thread.parking.store(0, std::memory_order_relaxed);
  }
}

DWORD failWait(DWORD number) noexcept {
  setLastError(number);
  return WAIT_FAILED;
}

DWORD waitForObjects(const HANDLE* handles, std::size_t count, bool all, const Deadline& deadline,
                     Readiness* readiness) noexcept {
  WaitEntry entries[MAXIMUM_WAIT_OBJECTS];
  WaitBlock block{&currentThread(), entries, count, all};
  // Told to wakers under the lock, before any of them can meet the block.
  const int wake = readiness != nullptr ? wakeDescriptor(*block.thread) : -1;
  DispatcherLock lock;
  for (std::size_t i = 0; i < count; ++i) {
    entries[i].object = resolve(handles[i]);
    if (entries[i].object == nullptr) return WAIT_FAILED;
    entries[i].block = &block;
    for (std::size_t j = 0; j < i && all; ++j) {
      if (entries[j].object == entries[i].object) return failWait(ERROR_INVALID_PARAMETER);
    }
  }
  for (std::size_t i = 0; i < count; ++i) {
    entries[i].object->word.fetch_or(kWaiters, std::memory_order_acq_rel);
  }
  block.done = satisfy(block);
  if (block.done || deadline.passed()) {
    if (!block.done && readiness != nullptr) pollOnce(*readiness, -1, 0);
    for (std::size_t i = 0; i < count; ++i) settle(entries[i].object);
  } else {
    block.thread->parking.store(0, std::memory_order_relaxed);
    block.thread->polled = wake;
    link(block);
    if (!park(block, deadline, readiness, lock)) unlink(block);
    block.thread->polled = -1;
  }
  if (block.done) noteTakenMutexes(block);
  if (!block.done && readiness != nullptr && readiness->ready) {
    block.result = WAIT_OBJECT_0 + static_cast<DWORD>(count);
  }
  return block.result;
}

}  // namespace

DWORD blockingWait(const HANDLE* handles, std::size_t count, bool all,
                   const Deadline& deadline) noexcept {
  return waitForObjects(handles, count, all, deadline, nullptr);
}

DWORD waitReady(int descriptor, short events, const HANDLE* handles, std::size_t count,
                const Deadline& deadline) noexcept {
  if (count > MAXIMUM_WAIT_OBJECTS) return failWait(ERROR_INVALID_PARAMETER);
  Readiness readiness{descriptor, events};
  return waitForObjects(handles, count, false, deadline, &readiness);
}

}  // namespace qm::platform::posix
