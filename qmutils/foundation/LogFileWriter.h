// Writes log lines into one file, or one a weekday: naming, header, change of day, stale and
// vanished files. What QMLogFileC shows to programs, without its lock.
//
// Not thread-safe except name() and isNamed(): its owner serialises the calls. A call may come back
// while another one of the same thread is under way (the header's extra text may log). Failures are
// reported on standard error, as there is no log to report them in; only memory running out is
// thrown, for the owner to report.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>

#include "qmutils/foundation/LogStamp.h"
#include "qmutils/foundation/SharedText.h"
#include "qmutils/platform/watched_file.h"

namespace qm {

/// How a line is written.
struct LogFileStyle {
  bool tag;                      ///< a tag in front of each line
  bool tagShowsDate;             ///< the date in the tag
  bool teeCerr;                  ///< a copy of each line to standard error
  const char* (*extraHeader)();  ///< more lines for the header; never null
};

class LogFileWriter {
 public:
  /// False when memory runs out; nothing has changed then. A null name forgets the name.
  bool setName(const char* name, bool autoDelete, bool daily, bool keepRoot) noexcept;
  /// With the flags in force; null works the name out again from the one given last.
  bool setName(const char* name) noexcept;
  /// Closes the file; nothing is written until a name is set again.
  void forgetName() noexcept;
  /// The current file's path; no text without one. Any thread may ask.
  SharedText name() const noexcept;
  /// The same question at the cost of a load.
  bool isNamed() const noexcept { return isNamed_.load(std::memory_order_acquire); }

  void write(unsigned int level, const char* text, const LogFileStyle& style);

 private:
  bool fileExists() noexcept;
  bool openFile() noexcept;
  SharedText changeDay(unsigned int level, const LogFileStyle& style);
  void deleteStaleFile() noexcept;
  bool isToBeContinued() noexcept;
  void appendHeader(std::string* block, std::string_view tag, const LogFileStyle& style,
                    bool wasDeleted, const SharedText& formerName);
  void reportWriteFailure() const noexcept;

  mutable std::mutex nameMutex_;  ///< for name() against a change of the name
  SharedText root_;               ///< as given, to work out the name of another weekday
  SharedText name_;
  std::atomic<bool> isNamed_{false};
  bool daily_ = false;
  bool autoDelete_ = false;
  bool headerWritten_ = false;  ///< since the program started, into the current file
  WORD day_ = 0xFFFF;           ///< of the month, of the current daily file
  platform::WatchedAppendFile file_;
  std::string block_;  ///< kept between lines for its memory
};

}  // namespace qm
