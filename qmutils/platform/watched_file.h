// A file kept open for appending that notices when its name no longer leads to it: deleted,
// renamed, or replaced by another file. For logs, which people move away while programs run.
//
// Not thread-safe: its owner serialises the calls. Nothing throws.
#pragma once

#include <memory>
#include <string_view>

namespace qm::platform {

class WatchedAppendFile {
 public:
  WatchedAppendFile() noexcept;
  ~WatchedAppendFile();
  WatchedAppendFile(const WatchedAppendFile&) = delete;
  WatchedAppendFile& operator=(const WatchedAppendFile&) = delete;

  /// Opens or creates the file; false with the last error set. Close-on-exec.
  bool open(const char* path) noexcept;
  void close() noexcept;
  bool isOpen() const noexcept;
  /// True while the name the file was opened under leads to this very file. Costs far less than
  /// asking the file system each time where the system reports changes by itself.
  bool stillNamed() noexcept;
  /// Appends the whole text; false with the last error set (112 when the disk is full).
  bool append(std::string_view text) noexcept;

 private:
  struct Watch;
  std::unique_ptr<Watch> watch_;
};

}  // namespace qm::platform
