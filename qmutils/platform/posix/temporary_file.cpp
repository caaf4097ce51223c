#include "qmutils/platform/temporary_file.h"

#include <sys/mman.h>

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
  std::snprintf(path_, sizeof path_, "/proc/self/fd/%d", made.release());
}

}  // namespace qm::platform
