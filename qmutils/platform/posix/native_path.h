// A path of the interface in the system's own spelling, without allocation. For platform/posix/
// only.
#pragma once

#include <limits.h>

namespace qm::platform {

/// Takes '\' as a separator. ok() is false, with the last error set, for null (3), an empty path
/// (3) and one that is too long (206).
class NativePath {
 public:
  explicit NativePath(const char* path) noexcept;

  bool ok() const noexcept { return ok_; }
  const char* c_str() const noexcept { return text_; }
  char* data() noexcept { return text_; }

 private:
  bool ok_ = false;
  char text_[PATH_MAX];
};

/// The last error of a failed call on `path`: as lastErrorFromErrno(errno), but 3 when a folder on
/// the way does not exist. Gives false.
bool failOnPath(const char* path) noexcept;

}  // namespace qm::platform
