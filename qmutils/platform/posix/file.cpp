#include "qmutils/platform/file.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/file_marks.h"
#include "qmutils/platform/posix/file_replacing.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/posix/unix_time.h"

namespace qm::platform {

namespace {

constexpr mode_t kAnyWrite = S_IWUSR | S_IWGRP | S_IWOTH;

/// A file is read-only when nobody may write it, or when this caller may not. The first counts for
/// the superuser too, whom the permissions would not stop.
bool isReadOnly(const char* path, const struct stat& status) noexcept {
  return (status.st_mode & kAnyWrite) == 0 || faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) != 0;
}

bool isFolder(const struct stat& status) noexcept { return S_ISDIR(status.st_mode); }

bool sameFile(const struct stat& a, const struct stat& b) noexcept {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool writeAll(int descriptor, const char* data, std::size_t size) noexcept {
  while (size > 0) {
    const ssize_t written = write(descriptor, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool copyContent(int from, int to) noexcept {
  char buffer[32 * 1024];
  for (;;) {
    const ssize_t got = read(from, buffer, sizeof buffer);
    if (got == 0) return true;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || !writeAll(to, buffer, static_cast<std::size_t>(got))) return false;
  }
}

bool changeMode(const char* path, mode_t from, mode_t to) noexcept {
  return from == to || chmod(path, to & 07777) == 0 || failWithErrno(errno);
}

/// A mark can only be written while the file is writable.
bool writeMarksAs(const char* path, DWORD attributes, mode_t mode) noexcept {
  const mode_t writable = mode | S_IWUSR;
  if (!changeMode(path, mode, writable)) return false;
  const bool written = writeMarks(path, attributes);
  return changeMode(path, writable, mode) && written;
}

/// Opens a file for reading and asks for its status; folders fail with 5. Never waits for the other
/// end of a pipe.
Descriptor openForReading(const char* path, struct stat* status) noexcept {
  Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.isOpen()) {
    failOnPath(path);
  } else if (fstat(file.get(), status) != 0) {
    failWithErrno(errno);
    file.reset();
  } else if (isFolder(*status)) {
    failWith(ERROR_ACCESS_DENIED);
    file.reset();
  }
  return file;
}

struct CopyTarget {
  Descriptor file;
  bool isNew = false;
};

/// Opens the target of a copy; not truncated yet, as it may be the source itself. Only a regular
/// file is written to, and no open waits for the other end of a pipe.
CopyTarget openForCopying(const char* path, bool mustBeNew, const struct stat& source) noexcept {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK;
  CopyTarget target{Descriptor(open(path, kFlags | O_EXCL, S_IRUSR | S_IWUSR)), true};
  if (!target.file.isOpen() && errno == EEXIST) {
    if (mustBeNew) {
      failWith(ERROR_FILE_EXISTS);
      return target;
    }
    target = {Descriptor(open(path, kFlags, S_IRUSR | S_IWUSR)), false};
  }
  struct stat status;
  if (!target.file.isOpen()) {
    failOnPath(path);
  } else if (fstat(target.file.get(), &status) != 0) {
    failWithErrno(errno);
    target.file.reset();
  } else if (!S_ISREG(status.st_mode)) {
    failWith(ERROR_ACCESS_DENIED);
    target.file.reset();
  } else if (sameFile(status, source)) {
    failWith(ERROR_SHARING_VIOLATION);
    target.file.reset();
  }
  return target;
}

/// Gives a copy the marks, mode and times of its source. A file that was there before may belong to
/// somebody else, who alone may change these: its content counts.
bool copyProperties(int from, const struct stat& source, const CopyTarget& target) noexcept {
  const timespec times[] = {source.st_atim, source.st_mtim};
  const auto allowed = [&target](bool done) { return done || (!target.isNew && errno == EPERM); };
  const int file = target.file.get();
  return allowed(copyMarks(from, file)) && allowed(fchmod(file, source.st_mode & 0777) == 0) &&
         allowed(futimens(file, times) == 0);
}

/// Gives a new file the marks of the one it replaces, as far as its file system keeps any.
bool takeMarks(const char* path, const char* target) noexcept {
  const DWORD marks = readMarks(target);
  if (hasMarks(path, marks)) return true;
  struct stat status;
  if (stat(path, &status) != 0) return failOnPath(path);
  return writeMarksAs(path, marks, status.st_mode) || lastError() == ERROR_NOT_SUPPORTED;
}

/// True for a pipe that has a name in a folder, to which perhaps nobody ever writes. One that was
/// handed to the program ("/dev/stdin") is a source like others.
bool isNamedPipe(int file, const struct stat& status) noexcept {
  struct statfs system;
  return S_ISFIFO(status.st_mode) && (fstatfs(file, &system) != 0 || system.f_type != PIPEFS_MAGIC);
}

/// As fopen() in the modes that want a file to be there, but without waiting to open it.
std::FILE* openExisting(const char* path, const char* mode) noexcept {
  const int access = std::strchr(mode, '+') != nullptr ? O_RDWR : O_RDONLY;
  Descriptor file(open(path, access | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status;
  if (!file.isOpen()) {
    failOnPath(path);
  } else if (fstat(file.get(), &status) != 0 || fcntl(file.get(), F_SETFL, 0) != 0) {
    failWithErrno(errno);
  } else if (isFolder(status) || isNamedPipe(file.get(), status)) {
    failWith(ERROR_ACCESS_DENIED);
  } else if (std::FILE* const stream = fdopen(file.get(), mode)) {
    file.release();
    return stream;
  } else {
    failWithErrno(errno);
  }
  return nullptr;
}

/// Moves `temporary` over `target` when a symbolic link leads to another file system, where a
/// rename cannot go: copies it beside the target first.
bool replaceAcrossFileSystems(const char* temporary, const char* target) noexcept {
  struct stat source;
  const Descriptor from = openForReading(temporary, &source);
  if (!from.isOpen()) return false;
  char beside[PATH_MAX + 8];
  std::snprintf(beside, sizeof beside, "%s.XXXXXX", target);
  const Descriptor to(mkostemp(beside, O_CLOEXEC));
  if (!to.isOpen()) return failOnPath(target);
  if (copyContent(from.get(), to.get()) && copyMarks(from.get(), to.get()) &&
      takeModeAndOwner(to.get(), source) && fsync(to.get()) == 0 && rename(beside, target) == 0) {
    unlink(temporary);
    return true;
  }
  const int error = errno;
  unlink(beside);
  return failWithErrno(error);
}

}  // namespace

std::string nativePath(const char* path) { return NativePath(path).c_str(); }

std::FILE* openFile(const char* path, const char* mode) noexcept {
  const NativePath native(path);
  if (!native.ok()) return nullptr;
  if (mode == nullptr || *mode == '\0') {
    failWith(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (mode[0] == 'r') return openExisting(native.c_str(), mode);
  char closeOnExec[32];
  std::snprintf(closeOnExec, sizeof closeOnExec, "%ce%s", mode[0], mode + 1);
  FilePtr file(std::fopen(native.c_str(), closeOnExec));
  if (file == nullptr) failOnPath(native.c_str());
  return file.release();
}

bool isRegularFile(std::FILE* file) noexcept {
  struct stat status;
  if (fstat(fileno(file), &status) != 0) return failWithErrno(errno);
  return S_ISREG(status.st_mode) || failWith(ERROR_ACCESS_DENIED);
}

std::FILE* createFileExclusively(const char* path) noexcept {
  const NativePath native(path);
  if (!native.ok()) return nullptr;
  Descriptor file(open(native.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file.isOpen()) {
    if (errno == EEXIST) {
      failWith(ERROR_FILE_EXISTS);
    } else {
      failOnPath(native.c_str());
    }
    return nullptr;
  }
  std::FILE* stream = fdopen(file.get(), "w");
  if (stream == nullptr) {
    failWithErrno(errno);
    unlink(native.c_str());
    return nullptr;
  }
  file.release();
  return stream;
}

DWORD fileAttributes(const char* path) noexcept {
  const NativePath native(path);
  if (!native.ok()) return INVALID_FILE_ATTRIBUTES;
  struct stat status;
  if (stat(native.c_str(), &status) != 0) {
    failOnPath(native.c_str());
    return INVALID_FILE_ATTRIBUTES;
  }
  DWORD attributes = readMarks(native.c_str());
  if (isFolder(status)) {
    attributes |= FILE_ATTRIBUTE_DIRECTORY;
  } else if (isReadOnly(native.c_str(), status)) {
    attributes |= FILE_ATTRIBUTE_READONLY;
  }
  return attributes == 0 ? FILE_ATTRIBUTE_NORMAL : attributes;
}

bool setFileAttributes(const char* path, DWORD attributes) noexcept {
  const NativePath native(path);
  if (!native.ok()) return false;
  struct stat status;
  if (stat(native.c_str(), &status) != 0) return failOnPath(native.c_str());
  mode_t mode = status.st_mode;
  const bool makeReadOnly = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
  if (!isFolder(status) && makeReadOnly != isReadOnly(native.c_str(), status)) {
    mode = makeReadOnly ? mode & ~kAnyWrite : mode | S_IWUSR;
  }
  return (hasMarks(native.c_str(), attributes) ||
          writeMarksAs(native.c_str(), attributes, status.st_mode)) &&
         changeMode(native.c_str(), status.st_mode, mode);
}

bool deleteFile(const char* path) noexcept {
  const NativePath native(path);
  if (!native.ok()) return false;
  return unlink(native.c_str()) == 0 || failOnPath(native.c_str());
}

bool copyFile(const char* from, const char* to, bool failIfExists) noexcept {
  const NativePath source(from);
  if (!source.ok()) return false;
  const NativePath target(to);
  if (!target.ok()) return false;
  struct stat status;
  const Descriptor in = openForReading(source.c_str(), &status);
  if (!in.isOpen()) return false;
  CopyTarget out = openForCopying(target.c_str(), failIfExists, status);
  if (!out.file.isOpen()) return false;
  bool copied = ftruncate(out.file.get(), 0) == 0 && copyContent(in.get(), out.file.get()) &&
                copyProperties(in.get(), status, out);
  // Some file systems report a full disk only when the file is closed.
  if (copied) copied = close(out.file.release()) == 0;
  if (copied) return true;
  const int error = errno;
  if (out.isNew) unlink(target.c_str());
  return failWithErrno(error);
}

bool lastWriteTime(const char* path, FILETIME* time) noexcept {
  const NativePath native(path);
  if (!native.ok()) return false;
  struct stat status;
  if (!openForReading(native.c_str(), &status).isOpen()) return false;
  *time = fileTimeFromTicks(ticksFromTimespec(status.st_mtim));
  return true;
}

bool createDirectory(const char* path) noexcept {
  const NativePath native(path);
  if (!native.ok()) return false;
  return mkdir(native.c_str(), 0777) == 0 || failOnPath(native.c_str());
}

bool isSameFile(const char* path, const char* other) noexcept {
  const NativePath first(path), second(other);
  struct stat one, two;
  return first.ok() && second.ok() && stat(first.c_str(), &one) == 0 &&
         stat(second.c_str(), &two) == 0 && sameFile(one, two);
}

bool mayReplaceFile(const char* target) noexcept {
  const NativePath native(target);
  if (!native.ok()) return false;
  struct stat status;
  if (stat(native.c_str(), &status) != 0) return errno == ENOENT || failOnPath(native.c_str());
  // Only a regular file may be replaced: not a folder, and not a device by a file of its name.
  return (S_ISREG(status.st_mode) && !isReadOnly(native.c_str(), status)) ||
         failWith(ERROR_ACCESS_DENIED);
}

bool replaceFile(const char* temporary, const char* target) noexcept {
  const NativePath source(temporary);
  if (!source.ok()) return false;
  NativePath destination(target);
  if (!destination.ok() || !mayReplaceFile(target) || !resolveLinks(&destination)) return false;
  struct stat status;
  if (stat(destination.c_str(), &status) == 0) {
    const Descriptor file(open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) return failOnPath(source.c_str());
    if (!takeMarks(source.c_str(), destination.c_str())) return false;
    if (!takeModeAndOwner(file.get(), status)) return false;
  }
  if (rename(source.c_str(), destination.c_str()) == 0) return true;
  if (errno == EXDEV) return replaceAcrossFileSystems(source.c_str(), destination.c_str());
  return failOnPath(destination.c_str());
}

bool flushToDisk(std::FILE* file) noexcept {
  return (std::fflush(file) == 0 && fsync(fileno(file)) == 0) || failWithErrno(errno);
}

}  // namespace qm::platform
