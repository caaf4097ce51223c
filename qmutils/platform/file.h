// Files and folders by name. Every path may use '\' and '/' alike, so each path that the library
// builds opens on each system.
//
// Functions return false or null on failure and set the last error (2 file not found, 3 path not
// found, 5 denied, 32 in use, 80 or 183 already there, 112 disk full, 123 bad name). A null path is
// error 3. Any thread may call them.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

/// The path in the system's own spelling.
QMUTILS_API std::string nativePath(const char* path);

/// As fopen(), close-on-exec. Folders are error 5, and for reading so are pipes with a name, which
/// would keep the caller waiting.
std::FILE* openFile(const char* path, const char* mode) noexcept;
/// False with error 5 for devices and pipes, which may have no end.
bool isRegularFile(std::FILE* file) noexcept;
/// True when both paths lead to the same file, by whatever names. False also when one cannot be
/// found.
QMUTILS_API bool isSameFile(const char* path, const char* other) noexcept;
/// Creates a file for writing that must not exist yet (error 80 when it does).
QMUTILS_API std::FILE* createFileExclusively(const char* path) noexcept;

/// FILE_ATTRIBUTE_ bits; INVALID_FILE_ATTRIBUTES on failure. A file that nobody may write (which
/// binds the superuser too) or the caller may not is read-only; hidden is a mark of its own, not
/// part of the name.
DWORD fileAttributes(const char* path) noexcept;
bool setFileAttributes(const char* path, DWORD attributes) noexcept;

/// True when a directory search finds an entry: the last component may hold the wildcards * and ?,
/// and a trailing separator finds nothing (error 2, or 123 for an empty path).
bool findsEntry(const char* path) noexcept;

bool deleteFile(const char* path) noexcept;
/// Copies content, permissions and last-write time.
bool copyFile(const char* from, const char* to, bool failIfExists) noexcept;
/// UTC. Folders fail with 5, as they cannot be opened as a file.
bool lastWriteTime(const char* path, FILETIME* time) noexcept;
/// Makes one level (183 when it exists, 3 when its parent does not).
bool createDirectory(const char* path) noexcept;

/// Puts `temporary` in the place of `target` in one step: whatever happens, the target is the old
/// file or the new one. The new file takes the target's mode, owner and marks; a symbolic link is
/// followed, not replaced. Refused with 5 when the target exists and could not be written.
QMUTILS_API bool replaceFile(const char* temporary, const char* target) noexcept;
/// False with 5 when `target` exists and is read-only or no regular file; asked before the
/// temporary file is made.
bool mayReplaceFile(const char* target) noexcept;
/// Flushes a stream's data to the disk, so that a following replaceFile() is safe against power
/// loss.
QMUTILS_API bool flushToDisk(std::FILE* file) noexcept;

}  // namespace qm::platform
