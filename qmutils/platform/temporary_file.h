// A file without a name, for data that nobody else shall see: it is in no folder, and it is gone
// with the object, also when the program is killed (and, after a fork, the child too).
//
// An object belongs to one thread at a time. Nothing throws.
#pragma once

#include <cstdio>

#include "qmutils/platform/export.h"
#include "qmutils/platform/file.h"

namespace qm::platform {

class QMUTILS_API TemporaryFile {
 public:
  /// Empty, for reading and writing. get() is null when it could not be made; the last error tells
  /// why.
  TemporaryFile() noexcept;
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  std::FILE* get() const noexcept { return file_.get(); }
  /// Leads this process to the file, also in profile functions, while the object lives.
  const char* path() const noexcept { return path_; }

 private:
  FilePtr file_;
  char path_[40] = "";
};

}  // namespace qm::platform
