#include "qmutils/platform/posix/file_marks.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

namespace {

constexpr char kName[] = "user.DOSATTRIB";
constexpr std::size_t kLongestValue = 256;  // other programs store more behind the text
constexpr DWORD kMarks = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;

}  // namespace

DWORD readMarks(const char* path) noexcept {
  char text[kLongestValue + 1];
  const ssize_t length = getxattr(path, kName, text, sizeof text - 1);
  if (length <= 0) return 0;
  text[length] = '\0';
  return static_cast<DWORD>(std::strtoul(text, nullptr, 16)) & kMarks;
}

bool hasMarks(const char* path, DWORD attributes) noexcept {
  return (attributes & kMarks) == readMarks(path);
}

bool writeMarks(const char* path, DWORD attributes) noexcept {
  const DWORD marks = attributes & kMarks;
  char text[16];
  const int length = std::snprintf(text, sizeof text, "0x%x", marks);
  const int result = marks == 0 ? removexattr(path, kName)
                                : setxattr(path, kName, text, static_cast<std::size_t>(length), 0);
  return result == 0 || failWithErrno(errno);
}

bool copyMarks(int from, int to) noexcept {
  char value[kLongestValue];
  const ssize_t length = fgetxattr(from, kName, value, sizeof value);
  if (length < 0 && errno != ENODATA && errno != ENOTSUP) return false;
  if (length < 0) return fremovexattr(to, kName) == 0 || errno == ENODATA || errno == ENOTSUP;
  return fsetxattr(to, kName, value, static_cast<std::size_t>(length), 0) == 0 || errno == ENOTSUP;
}

}  // namespace qm::platform
