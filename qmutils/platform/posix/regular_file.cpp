#include "qmutils/platform/posix/regular_file.h"

#include <fcntl.h>

#include <cerrno>

#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"

namespace qm::platform {

Descriptor openRegularFile(const char* nativePath, int flags, struct stat* status) noexcept {
  Descriptor file(open(nativePath, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666));
  if (!file.isOpen()) {
    failOnPath(nativePath);
  } else if (fstat(file.get(), status) != 0) {
    failWithErrno(errno);
    file.reset();
  } else if (!S_ISREG(status->st_mode)) {
    failWith(ERROR_ACCESS_DENIED);
    file.reset();
  }
  return file;
}

}  // namespace qm::platform
