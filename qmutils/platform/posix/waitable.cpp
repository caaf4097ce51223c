#include "qmutils/platform/waitable.h"

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/blocking_wait.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/wait_object.h"

namespace qm::platform {

using namespace posix;

namespace {

DWORD failWait(DWORD number) noexcept {
  setLastError(number);
  return WAIT_FAILED;
}

HANDLE create(Kind kind, DWORD value) noexcept {
  HANDLE handle = nullptr;
  return newObject(kind, value, &handle) != nullptr ? handle : nullptr;
}

bool isEvent(Kind kind) noexcept { return kind == Kind::AutoEvent || kind == Kind::ManualEvent; }

/// Ends a change made under the dispatcher's lock: wakes whom the object's new state satisfies, and
/// recycles the object when that was its last use.
void finishChange(WaitObject* object, DispatcherLock& lock) noexcept {
  WakeList wakes;
  ++object->pins;
  dispatch(object, lock, wakes);
  settle(object);
  unpin(object);
  lock.unlockAndWake(wakes);
}

/// Sets the value of an object, whether or not it has waiters at this moment.
void replaceValue(WaitObject* object, DWORD value) noexcept {
  std::uint64_t word = object->word.load(std::memory_order_relaxed);
  while (!object->word.compare_exchange_weak(
      word, withValue(word, value), std::memory_order_release, std::memory_order_relaxed)) {
  }
}

/// An operation on an object that may have waiters. As the last of them may be gone by now, the
/// waiters bit is set again for the time of the change: it keeps the lock-free operations away.
template <class Change>
bool changeUnderLock(HANDLE handle, const Change& change) noexcept {
  DispatcherLock lock;
  WaitObject* object = resolve(handle);
  if (object == nullptr) return false;
  object->word.fetch_or(kWaiters, std::memory_order_acq_rel);
  const bool changed = change(object);
  if (changed) {
    finishChange(object, lock);
  } else {
    settle(object);
  }
  return changed;
}

enum class Try { Taken, Abandoned, NotSignalled, Contended, Invalid };

Try tryTakeMutex(WaitObject* object, HANDLE handle, std::uint64_t word) noexcept {
  const DWORD self = currentThreadId();
  for (;;) {
    if (!names(handle, word)) return Try::Invalid;
    if (valueOf(word) == self) {
      ++object->recursion;
      return Try::Taken;
    }
    if (valueOf(word) != 0) return Try::NotSignalled;
    if ((word & kWaiters) != 0) return Try::Contended;
    if (object->word.compare_exchange_weak(word, withValue(word & ~kAbandoned, self),
                                           std::memory_order_acquire, std::memory_order_relaxed)) {
      object->recursion = 1;
      addOwned(currentThread(), object);
      return (word & kAbandoned) != 0 ? Try::Abandoned : Try::Taken;
    }
  }
}

/// Takes the object if that needs no lock.
Try tryTake(HANDLE handle) noexcept {
  WaitObject* object = locate(handle);
  if (object == nullptr) return Try::Invalid;
  std::uint64_t word = object->word.load(std::memory_order_acquire);
  for (;;) {
    if (!names(handle, word)) return Try::Invalid;
    const Kind kind = kindOf(word);
    if (kind == Kind::Mutex) return tryTakeMutex(object, handle, word);
    if (valueOf(word) == 0) return Try::NotSignalled;
    if (kind != Kind::AutoEvent && kind != Kind::Semaphore) return Try::Taken;
    if ((word & kWaiters) != 0) return Try::Contended;
    if (object->word.compare_exchange_weak(word, withValue(word, valueOf(word) - 1),
                                           std::memory_order_acquire)) {
      return Try::Taken;
    }
  }
}

/// Sets the event (1) or resets it (0).
bool changeEvent(HANDLE event, DWORD value) noexcept {
  WaitObject* object = locate(event);
  if (object == nullptr) return failWith(ERROR_INVALID_HANDLE);
  std::uint64_t word = object->word.load(std::memory_order_relaxed);
  for (;;) {
    if (!names(event, word) || !isEvent(kindOf(word))) return failWith(ERROR_INVALID_HANDLE);
    if ((word & kWaiters) != 0) {
      return changeUnderLock(event, [value](WaitObject* target) {
        replaceValue(target, value);
        return true;
      });
    }
    // Written even when the event has the value already: a waiter that is just about to mark the
    // word must not be missed.
    if (object->word.compare_exchange_weak(word, withValue(word, value), std::memory_order_acq_rel,
                                           std::memory_order_relaxed)) {
      return true;
    }
  }
}

}  // namespace

HANDLE createEvent(bool manualReset, bool initiallySet) noexcept {
  return create(manualReset ? Kind::ManualEvent : Kind::AutoEvent, initiallySet ? 1 : 0);
}

HANDLE createMutex(bool initiallyOwned) noexcept {
  const HANDLE mutex = create(Kind::Mutex, 0);
  if (mutex != nullptr && initiallyOwned) wait(mutex, 0);
  return mutex;
}

HANDLE createSemaphore(LONG initial, LONG maximum) noexcept {
  if (maximum < 1 || initial < 0 || initial > maximum) {
    setLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  HANDLE handle = nullptr;
  WaitObject* object = newObject(Kind::Semaphore, static_cast<DWORD>(initial), &handle);
  if (object == nullptr) return nullptr;
  object->maximum.store(maximum, std::memory_order_relaxed);
  return handle;
}

bool setEvent(HANDLE event) noexcept { return changeEvent(event, 1); }

bool resetEvent(HANDLE event) noexcept { return changeEvent(event, 0); }

bool releaseMutex(HANDLE mutex) noexcept {
  WaitObject* object = locate(mutex);
  if (object == nullptr) return failWith(ERROR_INVALID_HANDLE);
  std::uint64_t word = object->word.load(std::memory_order_relaxed);
  if (!names(mutex, word) || kindOf(word) != Kind::Mutex) return failWith(ERROR_INVALID_HANDLE);
  if (valueOf(word) != currentThreadId()) return failWith(ERROR_NOT_OWNER);
  if (--object->recursion != 0) return true;
  removeOwned(currentThread(), object);
  for (;;) {
    // A mutex that somebody closed meanwhile is still the owner's to release.
    if ((word & kWaiters) != 0 || !names(mutex, word)) {
      DispatcherLock lock;
      replaceValue(object, 0);
      finishChange(object, lock);
      return true;
    }
    if (object->word.compare_exchange_weak(word, withValue(word, 0), std::memory_order_release,
                                           std::memory_order_relaxed)) {
      return true;
    }
  }
}

bool releaseSemaphore(HANDLE semaphore, LONG count, LONG* previous) noexcept {
  WaitObject* object = locate(semaphore);
  if (object == nullptr) return failWith(ERROR_INVALID_HANDLE);
  std::uint64_t word = object->word.load(std::memory_order_relaxed);
  for (;;) {
    if (!names(semaphore, word) || kindOf(word) != Kind::Semaphore) {
      return failWith(ERROR_INVALID_HANDLE);
    }
    if (count < 1) return failWith(ERROR_INVALID_PARAMETER);
    const auto held = static_cast<LONG>(valueOf(word));
    const LONG maximum = object->maximum.load(std::memory_order_relaxed);
    const bool full = count > maximum - held;
    if ((word & kWaiters) != 0) {
      return changeUnderLock(semaphore, [&](WaitObject* target) {
        const auto now = static_cast<LONG>(valueOf(target->word.load(std::memory_order_relaxed)));
        if (count > maximum - now) return failWith(ERROR_TOO_MANY_POSTS);
        if (previous != nullptr) *previous = now;
        replaceValue(target, static_cast<DWORD>(now + count));
        return true;
      });
    }
    // A full semaphore is written back unchanged, for the same reason as an event already set.
    const DWORD value = static_cast<DWORD>(full ? held : held + count);
    if (object->word.compare_exchange_weak(word, withValue(word, value), std::memory_order_release,
                                           std::memory_order_relaxed)) {
      if (full) return failWith(ERROR_TOO_MANY_POSTS);
      if (previous != nullptr) *previous = held;
      return true;
    }
  }
}

bool closeHandle(HANDLE handle) noexcept {
  DispatcherLock lock;
  WaitObject* object = resolve(handle);
  if (object == nullptr) return false;
  std::uint64_t word = object->word.load(std::memory_order_relaxed);
  const Kind kind = kindOf(word);
  const std::uint32_t next = (generationOf(word) + 1) & kGenerationMask;
  const auto renamed = [next](std::uint64_t old) {
    return (old & ((std::uint64_t{1} << kGenerationShift) - 1)) |
           (std::uint64_t{next} << kGenerationShift);
  };
  while (!object->word.compare_exchange_weak(word, renamed(word), std::memory_order_acq_rel)) {
  }
  object->closed = true;
  if (kind == Kind::Mutex && valueOf(word) != 0) {
    // An owned mutex stands in its owner's list until that thread releases or abandons it.
    if (valueOf(word) != currentThreadId()) return true;
    removeOwned(currentThread(), object);
  }
  ++object->pins;
  unpin(object);
  return true;
}

DWORD waitAnyUntil(const HANDLE* handles, std::size_t count, const Deadline& deadline) noexcept {
  if (handles == nullptr || count == 0 || count > MAXIMUM_WAIT_OBJECTS) {
    return failWait(ERROR_INVALID_PARAMETER);
  }
  bool contended = false;
  for (std::size_t i = 0; i < count && !contended; ++i) {
    switch (tryTake(handles[i])) {
      case Try::Taken:
        return WAIT_OBJECT_0 + static_cast<DWORD>(i);
      case Try::Abandoned:
        return WAIT_ABANDONED_0 + static_cast<DWORD>(i);
      case Try::Invalid:
        return failWait(ERROR_INVALID_HANDLE);
      case Try::Contended:
        contended = true;
        break;
      case Try::NotSignalled:
        break;
    }
  }
  if (!contended && deadline.passed()) return WAIT_TIMEOUT;
  return blockingWait(handles, count, false, deadline);
}

DWORD waitAny(const HANDLE* handles, std::size_t count, DWORD timeoutMs) noexcept {
  if (handles == nullptr || count == 0 || count > MAXIMUM_WAIT_OBJECTS) {
    return failWait(ERROR_INVALID_PARAMETER);
  }
  // The clock is read only when the wait may have to block.
  switch (tryTake(handles[0])) {
    case Try::Taken:
      return WAIT_OBJECT_0;
    case Try::Abandoned:
      return WAIT_ABANDONED_0;
    case Try::Invalid:
      return failWait(ERROR_INVALID_HANDLE);
    case Try::NotSignalled:
      if (count == 1 && timeoutMs == 0) return WAIT_TIMEOUT;
      break;
    case Try::Contended:
      break;
  }
  return waitAnyUntil(handles, count, Deadline::after(timeoutMs));
}

DWORD wait(HANDLE handle, DWORD timeoutMs) noexcept { return waitAny(&handle, 1, timeoutMs); }

DWORD waitUntil(HANDLE handle, const Deadline& deadline) noexcept {
  return waitAnyUntil(&handle, 1, deadline);
}

DWORD waitAll(const HANDLE* handles, std::size_t count, DWORD timeoutMs) noexcept {
  if (handles == nullptr || count == 0 || count > MAXIMUM_WAIT_OBJECTS) {
    return failWait(ERROR_INVALID_PARAMETER);
  }
  return blockingWait(handles, count, true, Deadline::after(timeoutMs));
}

}  // namespace qm::platform
