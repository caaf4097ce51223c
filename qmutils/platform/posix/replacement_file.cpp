#include "qmutils/platform/replacement_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
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
  const Descriptor found(open(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!found.isOpen()) {
    if (errno == ENOENT) return Found::Gone;  // what has the name by now is somebody's
    // A link, or a file that we may not read: nobody else replaces the target by that.
    return removeName(name) ? Found::Gone : Found::Stuck;
  }
  if (!lock(found.get())) return Found::InUse;
  if (!isStillNamed(found.get(), name)) return Found::Gone;
  return removeName(name) ? Found::Gone : Found::Stuck;
}

/// A new file of that name, locked. Null with the last error set.
std::FILE* createLocked(const char* name) noexcept {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    Descriptor made(open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (made.isOpen()) {
      // Before it was locked, somebody may have taken it for a leftover.
      if (!lock(made.get()) || !isStillNamed(made.get(), name)) continue;
      std::FILE* const file = fdopen(made.get(), "wb");
      if (file == nullptr) {
        failWithErrno(errno);
        removeName(name);
      } else {
        made.release();
      }
      return file;
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
  target_ = target;
  const NativePath temporary((target_ + ".tmp").c_str());
  if (!temporary.ok()) return;
  temporary_ = temporary.c_str();
  file_.reset(createLocked(temporary_.c_str()));
}

ReplacementFile::~ReplacementFile() {
  if (file_ == nullptr) return;
  const int descriptor = fileno(file_.get());
  if (!committed_ && isStillNamed(descriptor, temporary_.c_str())) removeName(temporary_.c_str());
  flock(descriptor, LOCK_UN);  // closing leaves it to a copy of the process that has been forked
}

bool ReplacementFile::commit() noexcept {
  if (file_ == nullptr || std::ferror(file_.get()) != 0) return failWith(ERROR_INVALID_HANDLE);
  if (!flushToDisk(file_.get())) return false;
  if (!isStillNamed(fileno(file_.get()), temporary_.c_str())) {
    return failWith(ERROR_SHARING_VIOLATION);
  }
  committed_ = replaceFile(temporary_.c_str(), target_.c_str());
  return committed_;
}

}  // namespace qm::platform
