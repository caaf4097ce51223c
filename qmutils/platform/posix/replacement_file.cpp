#include "qmutils/platform/replacement_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/file_replacing.h"
#include "qmutils/platform/posix/native_path.h"

namespace qm::platform {

namespace {

constexpr int kAttempts = 2000;
constexpr timespec kPause = {0, 5'000'000};  // 5 ms

/// True while the name leads to the open file.
bool isStillNamed(int descriptor, const char* name) noexcept {
  struct stat opened, named;
  return fstat(descriptor, &opened) == 0 && lstat(name, &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

/// The lock is what tells a file that somebody writes from one that a killed program has left.
/// False when somebody has it; a file system that knows no locks must not keep everybody from
/// writing.
bool lock(int descriptor) noexcept {
  return flock(descriptor, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

bool removeName(const char* name) noexcept { return unlink(name) == 0 || errno == ENOENT; }

enum class Found { Gone, InUse, Stuck };

/// Looks at what has the name already.
Found removeLeftover(const char* name) noexcept {
  constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  Descriptor found;
  // For writing, as some file systems lock nothing else; one who may do less may still ask.
  for (const int access : {O_RDWR, O_WRONLY, O_RDONLY}) {
    found = Descriptor(open(name, access | kFlags));
    if (found.isOpen() || errno != EACCES) break;
  }
  if (!found.isOpen()) {
    if (errno == ENOENT) return Found::Gone;   // what has the name by now is somebody's
    if (errno == EACCES) return Found::InUse;  // another user's, whose lock we cannot ask for
    // A link, or something else that nobody replaces the target by.
    return removeName(name) ? Found::Gone : Found::Stuck;
  }
  if (!lock(found.get())) return Found::InUse;
  if (!isStillNamed(found.get(), name)) return Found::Gone;
  return removeName(name) ? Found::Gone : Found::Stuck;
}

/// A new file of that name, locked; when it replaces another (else null), with that one's mode and
/// owner before it holds anything, so that nobody reads it who may not read the target. Null with
/// the last error set.
std::FILE* createLocked(const char* name, const struct stat* replaced) noexcept {
  const mode_t mode = replaced != nullptr ? S_IRUSR | S_IWUSR : 0666;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    Descriptor made(open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (made.isOpen()) {
      // Before it was locked, somebody may have taken it for a leftover.
      if (!lock(made.get()) || !isStillNamed(made.get(), name)) continue;
      if (replaced == nullptr || takeModeAndOwner(made.get(), *replaced)) {
        if (std::FILE* const file = fdopen(made.get(), "wb")) {
          made.release();
          return file;
        }
        failWithErrno(errno);
      }
      removeName(name);
      return nullptr;
    }
    if (errno != EEXIST) {
      failOnPath(name);
      return nullptr;
    }
    const Found found = removeLeftover(name);
    if (found == Found::Stuck) {
      failOnPath(name);
      return nullptr;
    }
    if (found == Found::InUse) nanosleep(&kPause, nullptr);
  }
  failWith(ERROR_SHARING_VIOLATION);
  return nullptr;
}

}  // namespace

ReplacementFile::ReplacementFile(const char* target) {
  if (!mayReplaceFile(target)) return;
  // All writers of a file must meet at the same temporary, whichever links they come by.
  NativePath resolved(target);
  if (!resolveLinks(&resolved)) return;
  target_ = resolved.c_str();
  const NativePath temporary((target_ + ".tmp").c_str());
  if (!temporary.ok()) return;
  temporary_ = temporary.c_str();
  struct stat replaced {};
  const bool isThere = stat(target_.c_str(), &replaced) == 0;
  replaced.st_mode |= S_IRUSR | S_IWUSR;  // until it is complete
  file_.reset(createLocked(temporary_.c_str(), isThere ? &replaced : nullptr));
}

ReplacementFile::~ReplacementFile() {
  if (file_ == nullptr) return;
  const int descriptor = fileno(file_.get());
  if (!committed_ && isStillNamed(descriptor, temporary_.c_str())) removeName(temporary_.c_str());
  flock(descriptor, LOCK_UN);  // closing leaves it to a copy of the process that has been forked
}

bool ReplacementFile::commit() noexcept {
  if (file_ == nullptr) return failWith(ERROR_INVALID_HANDLE);
  const bool hasFailed = std::ferror(file_.get()) != 0;
  // One more byte fails in the same way, and tells why.
  if (hasFailed) std::fputc('\0', file_.get());
  if (!flushToDisk(file_.get())) return false;
  if (hasFailed) return failWith(ERROR_WRITE_FAULT);
  if (!isStillNamed(fileno(file_.get()), temporary_.c_str())) {
    return failWith(ERROR_SHARING_VIOLATION);
  }
  committed_ = replaceFile(temporary_.c_str(), target_.c_str());
  return committed_;
}

}  // namespace qm::platform
