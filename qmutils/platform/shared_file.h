// A text file that several programs and threads append lines to, replace and read at a time. Who
// appends or replaces holds the file's lock meanwhile; readers need none, they see what was there
// or what is there now.
//
//   SharedAppendFile file;
//   if (!file.lock("jobs.his")) return ...;   // opens or creates it; the last error tells why not
//   if (!file.append("a line\n")) ...         // all of it is in the file, or nothing
//   file.unlock();
//
// The lock is advisory, goes with the process that dies (and the copies of it that were forked
// meanwhile), and costs two system calls while nobody else has it. On a file system without locks
// everybody gets it. A file is replaced by putting a ReplacementFile in its place: that one is
// locked too, so nobody gets the new file before the old one is given up, and who has waited for
// the old one finds the new one.
//
// An object belongs to one thread at a time. Nothing throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

namespace qm::platform {

/// What tells two states of a file apart, as far as the system tells: two changes within one tick
/// of its clock that leave the size may look alike.
struct FileState {
  std::uint64_t device = 0;
  std::uint64_t file = 0;  ///< on the device
  std::uint64_t size = 0;
  std::int64_t modified = 0;  ///< nanoseconds

  bool operator==(const FileState&) const = default;
};

/// False with the last error set.
bool stateOf(std::FILE* file, FileState* state) noexcept;

class SharedAppendFile {
 public:
  SharedAppendFile() noexcept;
  ~SharedAppendFile();
  SharedAppendFile(const SharedAppendFile&) = delete;
  SharedAppendFile& operator=(const SharedAppendFile&) = delete;

  /// Locks the regular file that the path leads to now; makes it when there is none. Waits up to
  /// ten seconds for others (then error 32). The file stays open after unlock(), and is opened anew
  /// when its name leads elsewhere, its permissions have changed, or the process is a copy.
  bool lock(const char* path) noexcept;
  void unlock() noexcept;

  // While locked:

  /// As it was found, or as the last append() or cut() has left it.
  const FileState& state() const noexcept { return state_; }
  /// Appends in one write, not flushed to the disk. When not all of it fits, what did is taken back
  /// and the result is false (112 when the disk is full).
  bool append(std::string_view text) noexcept;
  /// Shortens the file.
  bool cut(std::uint64_t size) noexcept;

 private:
  struct Opened;

  bool letGoOfParents() noexcept;
  void readState() noexcept;

  std::unique_ptr<Opened> opened_;
  FileState state_;
};

/// A regular file for reading at any place. It stays the file that was opened when another takes
/// its name. Many threads may read.
class SharedReadFile {
 public:
  /// isOpen() is false, with the last error set, when it could not be opened.
  explicit SharedReadFile(const char* path) noexcept;
  ~SharedReadFile();
  SharedReadFile(const SharedReadFile&) = delete;
  SharedReadFile& operator=(const SharedReadFile&) = delete;

  bool isOpen() const noexcept { return handle_ != kClosed; }
  /// The number of bytes read: fewer than asked for at the end, or before a place that cannot be
  /// read; -1 with the last error set when that is the first.
  std::ptrdiff_t read(std::uint64_t position, char* buffer, std::size_t size) const noexcept;
  /// Returns when nobody has the file locked, or after ten seconds: then a line that seemed to lack
  /// its end is complete, or stays as it is.
  void awaitAppend() const noexcept;

 private:
  static constexpr std::intptr_t kClosed = -1;
  std::intptr_t handle_ = kClosed;
};

}  // namespace qm::platform
