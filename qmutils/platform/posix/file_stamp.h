// Telling whether a file has changed, from what the system says about it. For platform/posix/ only.
#pragma once

#include <sys/stat.h>
#include <time.h>

#include <cstdint>

namespace qm::platform::posix {

constexpr std::int64_t nanoseconds(const timespec& time) noexcept {
  return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

/// What differs after changes of a file. Nobody can set the time of the last change of status back,
/// as the time of the last write can be.
struct FileStamp {
  explicit FileStamp(const struct stat& status) noexcept
      : device(status.st_dev),
        inode(status.st_ino),
        size(status.st_size),
        written(nanoseconds(status.st_mtim)),
        changed(nanoseconds(status.st_ctim)) {}
  FileStamp() noexcept = default;
  bool operator==(const FileStamp&) const = default;
  bool isSameFile(const FileStamp& other) const noexcept {
    return device == other.device && inode == other.inode;
  }

  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t written = 0;
  std::int64_t changed = 0;
};

/// False when a file may have changed once more without another stamp by `time` (of
/// CLOCK_REALTIME): the clock of file times stands still for up to 10 ms, and where it counts in
/// seconds for up to two of them.
inline bool isSettled(const FileStamp& stamp, const timespec& time) noexcept {
  constexpr std::int64_t kMillisecond = 1'000'000;
  const bool coarse = stamp.written % kMillisecond == 0 || stamp.changed % kMillisecond == 0;
  return nanoseconds(time) - stamp.changed > (coarse ? 3000 : 50) * kMillisecond;
}

}  // namespace qm::platform::posix
