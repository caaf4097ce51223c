// A file that takes another's place when it is complete. Whatever happens on the way - a full disk,
// a kill, a power cut - the target is the old file or the new one.
//
//   ReplacementFile file("settings.xml");
//   if (file.get() == nullptr) return ...;             // the last error tells why
//   std::fputs("...", file.get());
//   if (!file.commit()) return ...;                    // the old file is still there
//
// It is written beside the target, under the target's name with ".tmp". Any number of programs and
// threads may replace one target at a time, also through symbolic links, which are followed: one
// after the other does, and the last one wins. Of a file with several names (hard links) only the
// one that was given leads to the new file. An object belongs to one thread at a time. The
// constructor may throw std::bad_alloc.
#pragma once

#include <cstdio>
#include <string>

#include "qmutils/platform/export.h"
#include "qmutils/platform/file.h"

namespace qm::platform {

class QMUTILS_API ReplacementFile {
 public:
  /// Waits up to ten seconds for others who are replacing the target (then error 32), and removes
  /// what a killed one has left, unless another user has and we may not open it. Error 5 for a
  /// target that mayReplaceFile() refuses. From the beginning, nobody may read the file who may not
  /// read the target.
  explicit ReplacementFile(const char* target);
  /// Removes the file unless it was committed. Until here it is locked, also under the target's
  /// name.
  ~ReplacementFile();
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;

  /// For writing; null when it could not be made.
  std::FILE* get() const noexcept { return file_.get(); }
  /// The name it is written under.
  const char* name() const noexcept { return temporary_.c_str(); }
  /// Writes everything to the disk and puts the file in the target's place, as replaceFile() does.
  /// Error 32 when somebody has taken the file away meanwhile; after a write that failed, its error
  /// or 29.
  bool commit() noexcept;

 private:
  std::string target_;
  std::string temporary_;
  FilePtr file_;
  bool committed_ = false;
};

}  // namespace qm::platform
