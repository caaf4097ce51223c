#include "qmutils/platform/posix/named_objects_mutex.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/suspension.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace qm::platform::posix {

namespace {

constexpr std::uint32_t kMutexMagic = 0x534D5851u;

std::mutex registryLock;
RobustMutex* registry = nullptr;

/// Names the calling thread and, unlike the system's identifiers, is never given to another one.
std::uint64_t threadToken() noexcept {
  static std::atomic<std::uint64_t> last{0};
  thread_local const std::uint64_t token = ++last;
  return token;
}

void pauseBriefly() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  __asm__ __volatile__("yield");
#endif
}

bool initialise(pthread_mutex_t* mutex) noexcept {
  pthread_mutexattr_t attributes;
  int result = pthread_mutexattr_init(&attributes);
  if (result != 0) return failWithErrno(result);
  result = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  if (result == 0) result = pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  if (result == 0) result = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  if (result == 0) result = pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return result == 0 || failWithErrno(result);
}

/// A thread that ends as the owner leaves the mutex to whichever process is next, and one of those
/// that ThreadSanitizer cannot see may put it in order and free it. So for ThreadSanitizer a thread
/// that keeps the mutex frees it, and takes it again should it give it up after all.
void hideOwner([[maybe_unused]] pthread_mutex_t* mutex) noexcept {
#if defined(__SANITIZE_THREAD__)
  __tsan_mutex_pre_unlock(mutex, 0);
  __tsan_mutex_post_unlock(mutex, 0);
#endif
}

void showOwner([[maybe_unused]] pthread_mutex_t* mutex) noexcept {
#if defined(__SANITIZE_THREAD__)
  __tsan_mutex_pre_lock(mutex, 0);
  __tsan_mutex_post_lock(mutex, 0, 0);
#endif
}

}  // namespace

const SharedSectionKind RobustMutex::kKind = {sizeof(MutexBlock), 0, kMutexMagic};

RobustMutex* RobustMutex::create(const ObjectName& name) noexcept {
  removeLeavings(name, kKind);
  Mapping mapping;
  ObjectIdentity identity;
  bool fresh = false;
  if (!openAndMap(name, sizeof(MutexBlock), &mapping, &identity, &fresh)) return nullptr;
  if (!fresh) {
    failWith(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  // First the mark: should this process die before the mutex is ready, the next user, who is then
  // alone, knows the object as ours and makes it afresh. Others open it only behind the gate.
  MutexBlock* block = mapping.as<MutexBlock>();
  std::atomic_ref(block->magic).store(kMutexMagic, std::memory_order_release);
  if (!initialise(&block->mutex)) {
    removeIfSame(name, identity);
    return nullptr;
  }
  mapping.unmap();
  return open(name);
}

RobustMutex* RobustMutex::open(const ObjectName& name) noexcept {
  const Descriptor object = openObject(name);
  ObjectIdentity identity;
  if (!object.isOpen() || !identify(object, &identity)) return nullptr;
  if (sizeOf(object) != static_cast<off_t>(sizeof(MutexBlock))) {
    failWith(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  std::lock_guard lock(registryLock);
  reapDead(name, identity);
  RobustMutex* mutex = find(identity);
  if (mutex == nullptr) mutex = adopt(name, object, identity);
  if (mutex != nullptr) ++mutex->openings_;
  return mutex;
}

RobustMutex* RobustMutex::adopt(const ObjectName& name, const Descriptor& object,
                                const ObjectIdentity& identity) noexcept {
  std::unique_ptr<RobustMutex> mutex(new (std::nothrow) RobustMutex);
  if (mutex == nullptr) {
    failWith(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  if (!mutex->mapping_.map(object, sizeof(MutexBlock))) return nullptr;
  if (std::atomic_ref(mutex->block().magic).load(std::memory_order_acquire) != kMutexMagic) {
    failWith(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  mutex->name_ = name;
  mutex->identity_ = identity;
  mutex->next_ = registry;
  registry = mutex.release();
  return registry;
}

RobustMutex* RobustMutex::find(const ObjectIdentity& identity) noexcept {
  for (RobustMutex* mutex = registry; mutex != nullptr; mutex = mutex->next_) {
    if (mutex->identity_ == identity) return mutex;
  }
  return nullptr;
}

void RobustMutex::reapDead(const ObjectName& name, const ObjectIdentity& alive) noexcept {
  // A kept mutex of this name whose object has been replaced has no other users left, so trying it
  // disturbs nobody. While its keeper still lives, it stays mapped.
  for (RobustMutex** link = &registry; *link != nullptr;) {
    RobustMutex* mutex = *link;
    const bool replaced = mutex->openings_ == 0 && !(mutex->identity_ == alive) &&
                          std::strcmp(mutex->name_.text, name.text) == 0;
    if (replaced) {
      mutex->giveUpKept();
      if (mutex->tryOnce() != WAIT_TIMEOUT) {
        mutex->declareRepaired();
        pthread_mutex_unlock(&mutex->block().mutex);
        *link = mutex->next_;
        delete mutex;
        continue;
      }
    }
    link = &mutex->next_;
  }
}

void RobustMutex::close(bool keep) noexcept {
  std::lock_guard lock(registryLock);
  --openings_;
  if (keep) {
    keptBy_ = threadToken();
    hideOwner(&block().mutex);
    // The thread goes on without the mutex's business, so it may be suspended again.
    allowSuspension();
  }
  if (openings_ > 0 || keptBy_ != 0) return;
  for (RobustMutex** link = &registry; *link != nullptr; link = &(*link)->next_) {
    if (*link == this) {
      *link = next_;
      delete this;
      return;
    }
  }
}

DWORD RobustMutex::tryOnce() noexcept {
  const int result = pthread_mutex_trylock(&block().mutex);
  switch (result) {
    case 0:
      return WAIT_OBJECT_0;
    case EOWNERDEAD:
      return WAIT_ABANDONED;
    case EBUSY:
      return WAIT_TIMEOUT;
    default:
      failWithErrno(result);
      return WAIT_FAILED;
  }
}

DWORD RobustMutex::tryAcquire() noexcept {
  // Holders need well under a microsecond. Trying again beats going to sleep at once by half in a
  // stream of messages on two processors, and costs nothing measurable on one. Each try takes the
  // mutex's memory away from its holder, hence the pauses.
  constexpr int kTries = 20;
  constexpr int kPauses = 8;
  deferSuspension();
  for (int i = 0; i < kTries; ++i) {
    const DWORD result = tryOnce();
    if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) return result;
    if (result == WAIT_FAILED) {
      allowSuspension();
      return result;
    }
    for (int n = 0; n < kPauses; ++n) pauseBriefly();
  }
  allowSuspension();
  return WAIT_TIMEOUT;
}

DWORD RobustMutex::acquire(const Deadline& deadline) noexcept {
  DWORD result = tryAcquire();
  // A killed owner wakes nobody, so the first sleeps are short.
  constexpr DWORD kFirstSleepMs = 2;
  DWORD sleepMs = kFirstSleepMs;
  while (result == WAIT_TIMEOUT) {
    block().sleepers.store(1);
    deferSuspension();
    result = tryOnce();
    if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) return result;
    allowSuspension();
    if (result == WAIT_FAILED || deadline.passed()) return result;
    sharedWait(block().sleepers, 1, std::min(sleepMs, deadline.remainingMs()));
    sleepMs = std::min(2 * sleepMs, kLookAgainMs);
  }
  return result;
}

void RobustMutex::declareRepaired() noexcept {
  // Fails, harmlessly, when the owner before did not die.
  pthread_mutex_consistent(&block().mutex);
}

void RobustMutex::unlockAndWake() noexcept {
  pthread_mutex_unlock(&block().mutex);
  // Exchanged and not only read: a sleeper announces itself and tries the mutex, we free the mutex
  // and look for an announcement, and one of us must see the other.
  if (block().sleepers.exchange(0) != 0) sharedWake(block().sleepers, 1);
}

void RobustMutex::release() noexcept {
  unlockAndWake();
  allowSuspension();
}

void RobustMutex::giveUpKept() noexcept {
  if (keptBy_ != threadToken()) return;
  keptBy_ = 0;
  showOwner(&block().mutex);
  unlockAndWake();
}

void RobustMutex::lockRegistry() noexcept { registryLock.lock(); }

void RobustMutex::unlockRegistry() noexcept { registryLock.unlock(); }

void RobustMutex::dropAllInCopy() noexcept {
  while (registry != nullptr) {
    RobustMutex* mutex = registry;
    registry = mutex->next_;
    delete mutex;
  }
}

}  // namespace qm::platform::posix
