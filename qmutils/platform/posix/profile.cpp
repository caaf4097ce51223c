#include "qmutils/platform/profile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/posix/profile_cache.h"
#include "qmutils/platform/posix/profile_text.h"
#include "qmutils/platform/posix/regular_file.h"
#include "qmutils/platform/replacement_file.h"

namespace qm::platform {

namespace {

using posix::ProfileText;
using posix::SharedProfile;

bool isMissing(DWORD error) noexcept {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

/// The whole file, an empty text for a missing one; nothing with the last error set. `status` is as
/// it was before, with no inode when there is no file.
std::optional<std::string> readWhole(const NativePath& path, struct stat* status) {
  *status = {};
  const Descriptor file = openRegularFile(path.c_str(), O_RDONLY, status);
  std::string bytes;
  if (!file.isOpen()) return isMissing(lastError()) ? std::optional(bytes) : std::nullopt;
  bytes.resize(static_cast<std::size_t>(status->st_size) + 1);
  for (std::size_t size = 0;;) {
    if (size == bytes.size()) bytes.resize(2 * size);
    const ssize_t got = read(file.get(), bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      failWithErrno(errno);
      return std::nullopt;
    }
    if (got == 0) {
      bytes.resize(size);
      return bytes;
    }
    size += static_cast<std::size_t>(got);
  }
}

/// The text of a file, empty for a missing one; null with the last error set.
SharedProfile profileOf(const char* name) {
  const NativePath path(name);
  if (!path.ok()) return isMissing(lastError()) ? std::make_shared<ProfileText>("") : nullptr;
  struct stat status;
  if (stat(path.c_str(), &status) == 0) {
    if (SharedProfile known = posix::knownProfile(status)) return known;
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  std::optional<std::string> bytes = readWhole(path, &status);
  if (!bytes) return nullptr;
  auto text = std::make_shared<const ProfileText>(std::move(*bytes));
  if (status.st_ino != 0) posix::rememberProfile(status, now, text);
  return text;
}

/// Runs `work` and turns a lack of memory into the last error.
template <class Work>
bool guarded(Work work) noexcept try {
  return work();
} catch (const std::bad_alloc&) {
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
} catch (const std::length_error&) {
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
}

std::string_view withoutTrailingSpaces(const char* text) noexcept {
  std::string_view rest = text != nullptr ? text : "";
  while (rest.ends_with(' ')) rest.remove_suffix(1);
  return rest;
}

/// Writes what does not fit into the room that the file has only after the system has given more,
/// so that the old content stays when it does not.
bool rewrite(const NativePath& path, const std::string& bytes) noexcept {
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file.isOpen()) return failOnPath(path.c_str());
  const auto size = static_cast<off_t>(bytes.size());
  if (const int error = posix_fallocate(file.get(), 0, size)) return failWithErrno(error);
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t written =
        pwrite(file.get(), bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (written < 0 && errno != EINTR) return failWithErrno(errno);
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  return ftruncate(file.get(), size) == 0 || failWithErrno(errno);
}

/// The file's new content; nothing with the last error set.
std::optional<std::string> changedContent(const NativePath& path, const char* section,
                                          const char* key, const char* value) {
  struct stat status;
  const std::optional<std::string> bytes = readWhole(path, &status);
  if (!bytes) return std::nullopt;
  std::optional<std::string> changed = posix::withValue(*bytes, section, key, value);
  if (!changed) failWith(ERROR_INVALID_PARAMETER);
  return changed;
}

bool changeFile(const NativePath& path, const char* section, const char* key, const char* value) {
  struct stat status;
  char resolved[PATH_MAX];
  if (stat(path.c_str(), &status) == 0 && status.st_nlink == 0 &&
      realpath(path.c_str(), resolved) == nullptr) {
    // A TemporaryFile: there is no name under which another file could take its place.
    const auto content = changedContent(path, section, key, value);
    return content && rewrite(path, *content);
  }
  ReplacementFile file(path.c_str());
  if (file.get() == nullptr) return false;
  // Read only now that nobody else is changing it.
  const auto content = changedContent(path, section, key, value);
  if (!content) return false;
  std::fwrite(content->data(), 1, content->size(), file.get());  // a failure is commit()'s
  return file.commit();
}

}  // namespace

bool readProfile(const char* path, const char* section, const char* key, const char* defaultText,
                 std::string* value) noexcept {
  value->clear();
  return guarded([&] {
    value->assign(withoutTrailingSpaces(defaultText));
    const SharedProfile profile = profileOf(path);
    if (profile == nullptr) return false;
    if (section == nullptr || key == nullptr) return true;
    if (const auto found = profile->find(section, key)) value->assign(*found);
    return true;
  });
}

bool writeProfile(const char* path, const char* section, const char* key,
                  const char* value) noexcept {
  if (section == nullptr || key == nullptr || value == nullptr) {
    return failWith(ERROR_INVALID_PARAMETER);
  }
  const NativePath native(path);
  return native.ok() && guarded([&] { return changeFile(native, section, key, value); });
}

bool listProfile(const char* path, const char* section,
                 std::vector<ProfileSection>* sections) noexcept {
  sections->clear();
  return guarded([&] {
    const SharedProfile profile = profileOf(path);
    if (profile != nullptr) *sections = profile->list(section);
    return profile != nullptr;
  });
}

}  // namespace qm::platform
