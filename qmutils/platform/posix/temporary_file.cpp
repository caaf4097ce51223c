#include "qmutils/platform/temporary_file.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

TemporaryFile::TemporaryFile() noexcept {
  Descriptor made(memfd_create("qmutils", MFD_CLOEXEC));
  if (made.isOpen()) file_.reset(fdopen(made.get(), "w+b"));
  if (file_ == nullptr) {
    failWithErrno(errno);
    return;
  }
  // Of the thread that asks: "/proc/self" is the main thread, which may have ended.
  std::snprintf(path_, sizeof path_, "/proc/thread-self/fd/%d", made.release());
  struct stat opened, found;
  if (fstat(fileno(file_.get()), &opened) != 0 || stat(path_, &found) != 0) {
    failWithErrno(errno);
    file_.reset();
  } else if (opened.st_dev != found.st_dev || opened.st_ino != found.st_ino) {
    failWith(ERROR_FILE_NOT_FOUND);
    file_.reset();
  }
}

}  // namespace qm::platform
