#include "qmutils/platform/shared_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/posix/process_generation.h"
#include "qmutils/platform/posix/regular_file.h"
#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform {

namespace {

constexpr DWORD kLongestWaitMs = 10'000;

FileState fileState(const struct stat& status) noexcept {
  return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size),
          status.st_mtim.tv_sec * std::int64_t{1'000'000'000} + status.st_mtim.tv_nsec};
}

/// True also on a file system without locks: it must not keep everybody from writing.
bool tryLock(int descriptor, int kind) noexcept {
  int result;
  do {
    result = flock(descriptor, kind | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno != EWOULDBLOCK;
}

/// How long to wait for others, from when they were found in the way.
class Patience {
 public:
  bool isOver() noexcept {
    if (!deadline_) deadline_ = Deadline::after(kLongestWaitMs);
    return deadline_->passed();
  }

 private:
  std::optional<Deadline> deadline_;
};

/// Tries until patience is over. Polling, because a lock that is waited for in the kernel has no
/// deadline, and whoever holds it might be stopped. Often, because the lock is only free for a
/// moment when somebody adds line after line.
template <class Attempt>
bool tryAgain(Patience& patience, const Attempt& attempt) noexcept {
  constexpr long kFirstPauseNanoseconds = 50'000;
  constexpr long kLongestPauseNanoseconds = 200'000;
  timespec pause{0, kFirstPauseNanoseconds};
  while (!attempt()) {
    if (patience.isOver()) return failWith(ERROR_SHARING_VIOLATION);
    nanosleep(&pause, nullptr);
    pause.tv_nsec = std::min(2 * pause.tv_nsec, kLongestPauseNanoseconds);
  }
  return true;
}

bool writeWhole(int descriptor, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return failWithErrno(errno);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

bool stateOf(std::FILE* file, FileState* state) noexcept {
  struct stat status;
  if (fstat(fileno(file), &status) != 0) return failWithErrno(errno);
  *state = fileState(status);
  return true;
}

struct SharedAppendFile::Opened {
  bool tryLock() noexcept {
    whileLocked.emplace();
    if (platform::tryLock(file.get(), LOCK_EX)) return true;
    whileLocked.reset();
    return false;
  }

  /// The permissions count, because who may no longer write the file must not go on doing so.
  bool isWhat(const struct stat& named) const noexcept {
    return named.st_dev == status.st_dev && named.st_ino == status.st_ino &&
           named.st_mode == status.st_mode && named.st_uid == status.st_uid &&
           named.st_gid == status.st_gid;
  }

  Descriptor file;
  struct stat status {};
  unsigned process = 0;  ///< which copy of the process opened it: copies share a lock
  /// A thread that is suspended while it has the lock would keep other programs from theirs.
  std::optional<SuspensionDeferral> whileLocked;
};

SharedAppendFile::SharedAppendFile() noexcept = default;
SharedAppendFile::~SharedAppendFile() { unlock(); }

bool SharedAppendFile::lock(const char* path) noexcept {
  const NativePath native(path);
  if (!native.ok()) return false;
  const unsigned process = posix::processGeneration();
  Patience patience;
  letGoOfParents();
  for (;;) {
    if (opened_ == nullptr) {
      opened_.reset(new (std::nothrow) Opened);
      if (opened_ == nullptr) return failWith(ERROR_NOT_ENOUGH_MEMORY);
      opened_->process = process;
      opened_->file =
          openRegularFile(native.c_str(), O_WRONLY | O_APPEND | O_CREAT, &opened_->status);
    }
    if (!opened_->file.isOpen()) break;
    if ((opened_->status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) {
      failWith(ERROR_ACCESS_DENIED);  // it binds the superuser too
      break;
    }
    if (!tryAgain(patience, [this] { return opened_->tryLock(); })) break;
    // The file may have been replaced since it was opened, also while its lock was waited for.
    struct stat named;
    if (stat(native.c_str(), &named) == 0 && opened_->isWhat(named)) {
      state_ = fileState(named);
      return true;
    }
    if (patience.isOver()) {
      failWith(ERROR_SHARING_VIOLATION);
      break;
    }
    opened_.reset();
  }
  opened_.reset();
  return false;
}

/// A forked copy has its parent's descriptor, lock and all, and must let go of it without giving
/// the lock back.
bool SharedAppendFile::letGoOfParents() noexcept {
  if (opened_ == nullptr || opened_->process == posix::processGeneration()) return false;
  opened_->file.reset();
  (void)opened_.release();  // with the deferral of a thread that is not here
  return true;
}

void SharedAppendFile::unlock() noexcept {
  if (letGoOfParents() || opened_ == nullptr || !opened_->whileLocked) return;
  flock(opened_->file.get(), LOCK_UN);
  opened_->whileLocked.reset();
}

void SharedAppendFile::readState() noexcept {
  struct stat status;
  // Without an answer the state is one that no file has, so it never counts as known.
  state_ = fstat(opened_->file.get(), &status) == 0 ? fileState(status) : FileState{};
}

bool SharedAppendFile::append(std::string_view text) noexcept {
  const std::uint64_t before = state_.size;
  const bool written = writeWhole(opened_->file.get(), text);
  readState();
  if (!written && state_.size > before) {
    const DWORD reason = lastError();
    cut(before);
    setLastError(reason);
  }
  return written;
}

bool SharedAppendFile::cut(std::uint64_t size) noexcept {
  const bool done = ftruncate(opened_->file.get(), static_cast<off_t>(size)) == 0;
  const int error = errno;
  readState();
  return done || failWithErrno(error);
}

SharedReadFile::SharedReadFile(const char* path) noexcept {
  const NativePath native(path);
  struct stat status;
  if (native.ok()) handle_ = openRegularFile(native.c_str(), O_RDONLY, &status).release();
}

SharedReadFile::~SharedReadFile() {
  if (isOpen()) close(static_cast<int>(handle_));
}

std::ptrdiff_t SharedReadFile::read(std::uint64_t position, char* buffer,
                                    std::size_t size) const noexcept {
  std::size_t got = 0;
  while (got < size) {
    const ssize_t more = pread(static_cast<int>(handle_), buffer + got, size - got,
                               static_cast<off_t>(position + got));
    if (more < 0 && errno == EINTR) continue;
    if (more < 0 && got == 0) {
      failWithErrno(errno);
      return -1;
    }
    if (more <= 0) break;  // what was read before a failure counts; the next call finds it again
    got += static_cast<std::size_t>(more);
  }
  return static_cast<std::ptrdiff_t>(got);
}

void SharedReadFile::awaitAppend() const noexcept {
  const int file = static_cast<int>(handle_);
  Patience patience;
  tryAgain(patience, [file] {
    const SuspensionDeferral whileLocked;
    if (!tryLock(file, LOCK_SH)) return false;
    flock(file, LOCK_UN);
    return true;
  });
}

}  // namespace qm::platform
