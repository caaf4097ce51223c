// findsEntry() of file.h: does a directory search with wildcards find anything?
#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>

#include "qmutils/platform/file.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"

namespace qm::platform {

namespace {

bool sameLetter(char a, char b) noexcept {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

/// '*' stands for any text, '?' for one character. Falls back to the last '*' on a mismatch, so the
/// time is at most the product of the two lengths.
bool matches(const char* pattern, const char* name) noexcept {
  const char* afterStar = nullptr;
  const char* retryAt = nullptr;
  while (*name != '\0') {
    if (*pattern == '*') {
      afterStar = ++pattern;
      retryAt = name;
    } else if (*pattern == '?' || (*pattern != '\0' && sameLetter(*pattern, *name))) {
      ++pattern;
      ++name;
    } else if (afterStar != nullptr) {
      pattern = afterStar;
      name = ++retryAt;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

struct DirectoryCloser {
  void operator()(DIR* directory) const noexcept { closedir(directory); }
};

}  // namespace

bool findsEntry(const char* path) noexcept {
  NativePath native(path);
  if (!native.ok()) {
    // An empty name is a bad name, not a missing folder.
    return path != nullptr && *path == '\0' ? failWith(ERROR_INVALID_NAME) : false;
  }
  char* separator = std::strrchr(native.data(), '/');
  const char* last = separator == nullptr ? native.c_str() : separator + 1;
  if (*last == '\0') return failWith(ERROR_FILE_NOT_FOUND);
  if (std::strpbrk(last, "*?") == nullptr) {
    // The search finds entries, so a link that leads nowhere counts.
    struct stat status;
    return lstat(native.c_str(), &status) == 0 || failOnPath(native.c_str());
  }
  const char* pattern = std::strcmp(last, "*.*") == 0 ? "*" : last;
  const char* folder = ".";
  if (separator == native.data()) {
    folder = "/";
  } else if (separator != nullptr) {
    *separator = '\0';
    folder = native.c_str();
  }
  const std::unique_ptr<DIR, DirectoryCloser> directory(opendir(folder));
  if (directory == nullptr) {
    return errno == ENOENT ? failWith(ERROR_PATH_NOT_FOUND) : failWithErrno(errno);
  }
  errno = 0;
  while (const dirent* entry = readdir(directory.get())) {
    if (matches(pattern, entry->d_name)) return true;
  }
  return errno == 0 ? failWith(ERROR_FILE_NOT_FOUND) : failWithErrno(errno);
}

}  // namespace qm::platform
