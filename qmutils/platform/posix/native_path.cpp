#include "qmutils/platform/posix/native_path.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

NativePath::NativePath(const char* path) noexcept {
  text_[0] = '\0';
  if (path == nullptr || *path == '\0') {
    failWith(ERROR_PATH_NOT_FOUND);
    return;
  }
  const std::size_t length = std::strlen(path);
  if (length >= sizeof text_) {
    failWith(ERROR_FILENAME_EXCED_RANGE);
    return;
  }
  for (std::size_t i = 0; i <= length; ++i) text_[i] = path[i] == '\\' ? '/' : path[i];
  ok_ = true;
}

bool failOnPath(const char* path) noexcept {
  const int error = errno;
  if (error == ENOENT) {
    NativePath folder(path);
    char* separator = std::strrchr(folder.data(), '/');
    if (separator != nullptr && separator != folder.c_str()) {
      *separator = '\0';
      struct stat status;
      if (stat(folder.c_str(), &status) != 0) return failWith(ERROR_PATH_NOT_FOUND);
    }
  }
  return failWithErrno(error);
}

}  // namespace qm::platform
