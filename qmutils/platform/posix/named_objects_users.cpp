#include "qmutils/platform/posix/named_objects_users.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform::posix {

namespace {

constexpr off_t kGate = 0;
constexpr off_t kUsers = 1;

enum class Locking { Done, Refused, Failed };

/// `type`: F_RDLCK, F_WRLCK or F_UNLCK. A lock already held on the byte is converted; if that is
/// refused, the former one stays.
Locking setLock(const Descriptor& lock, off_t byte, short type) noexcept {
  struct flock request = {};
  request.l_type = type;
  request.l_whence = SEEK_SET;
  request.l_start = byte;
  request.l_len = 1;
  int result;
  do {
    result = ::fcntl(lock.get(), F_OFD_SETLK, &request);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return Locking::Done;
  if (errno == EAGAIN || errno == EACCES) return Locking::Refused;
  failWithErrno(errno);
  return Locking::Failed;
}

/// Tries until the deadline. Polling, because a lock that is waited for in the kernel has no
/// deadline, and whoever holds the gate might be stopped.
Locking takeGate(const Descriptor& lock, const Deadline& deadline) noexcept {
  constexpr long kFirstPauseNanoseconds = 50'000;
  constexpr long kLongestPauseNanoseconds = 5'000'000;
  timespec pause{0, kFirstPauseNanoseconds};
  for (;;) {
    const Locking result = setLock(lock, kGate, F_WRLCK);
    if (result != Locking::Refused || deadline.passed()) return result;
    ::nanosleep(&pause, nullptr);
    pause.tv_nsec = std::min(2 * pause.tv_nsec, kLongestPauseNanoseconds);
  }
}

}  // namespace

Joined UsersLock::join(const ObjectName& name, const Deadline& deadline) noexcept {
  name_ = name;
  for (;;) {
    lock_ = openOrCreateObject(name);
    if (!lock_.isOpen() || !identify(lock_, &identity_)) return Joined::Failed;
    if (sizeOf(lock_) != 0) {
      // Ours never holds anything.
      lock_.reset();
      failWith(ERROR_INVALID_HANDLE);
      return Joined::Failed;
    }
    const Locking gate = takeGate(lock_, deadline);
    if (gate != Locking::Done) {
      lock_.reset();
      return gate == Locking::Refused ? Joined::TimedOut : Joined::Failed;
    }
    // The last user may have removed the object between our opening and locking it.
    const Descriptor present = openObject(name);
    ObjectIdentity presentIdentity;
    if (present.isOpen() && identify(present, &presentIdentity) && presentIdentity == identity_)
      break;
    lock_.reset();
    if (!present.isOpen() && lastError() != ERROR_FILE_NOT_FOUND) return Joined::Failed;
    if (deadline.passed()) return Joined::TimedOut;
  }
  switch (setLock(lock_, kUsers, F_WRLCK)) {
    case Locking::Done:
      return Joined::Alone;
    case Locking::Refused:
      return Joined::WithOthers;
    case Locking::Failed:
      break;
  }
  lock_.reset();
  return Joined::Failed;
}

bool UsersLock::share() noexcept {
  return setLock(lock_, kUsers, F_RDLCK) == Locking::Done &&
         setLock(lock_, kGate, F_UNLCK) == Locking::Done;
}

bool UsersLock::isLast(const Deadline& deadline) noexcept {
  return lock_.isOpen() && takeGate(lock_, deadline) == Locking::Done &&
         setLock(lock_, kUsers, F_WRLCK) == Locking::Done;
}

void UsersLock::openGate() noexcept { setLock(lock_, kGate, F_UNLCK); }

}  // namespace qm::platform::posix
