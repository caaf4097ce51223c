#include "qmutils/platform/posix/file_replacing.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

bool resolveLinks(NativePath* path) noexcept {
  constexpr int kMaxLinks = 40;
  for (int links = 0; links < kMaxLinks; ++links) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path->c_str(), target, sizeof target - 1);
    if (length < 0) return errno == EINVAL || errno == ENOENT || failOnPath(path->c_str());
    target[length] = '\0';
    const char* separator = target[0] == '/' ? nullptr : std::strrchr(path->c_str(), '/');
    const std::size_t prefix =
        separator == nullptr ? 0 : static_cast<std::size_t>(separator - path->c_str()) + 1;
    if (prefix + static_cast<std::size_t>(length) >= PATH_MAX) {
      return failWith(ERROR_FILENAME_EXCED_RANGE);
    }
    std::memcpy(path->data() + prefix, target, static_cast<std::size_t>(length) + 1);
  }
  return failWithErrno(ELOOP);
}

bool takeModeAndOwner(int file, const struct stat& target) noexcept {
  struct stat own;
  if (fstat(file, &own) != 0) return failWithErrno(errno);
  mode_t mode = target.st_mode & 07777;
  const bool differs = own.st_uid != target.st_uid || own.st_gid != target.st_gid;
  if (differs && fchown(file, target.st_uid, target.st_gid) != 0 &&
      fchown(file, static_cast<uid_t>(-1), target.st_gid) != 0) {
    mode &= 0777;
  }
  return fchmod(file, mode) == 0 || failWithErrno(errno);
}

}  // namespace qm::platform
