#include "qmutils/foundation/LogFileWriter.h"

#include <cstdio>
#include <initializer_list>
#include <new>
#include <optional>
#include <utility>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"

namespace qm {

namespace {

constexpr char kAsterisks[] = "****************************************************************";
static_assert(sizeof kAsterisks == 64 + 1);

void report(const char* problem, const char* name) noexcept {
  std::fprintf(stderr, "QMLogFileC::WriteToFile%s%s\n", problem, name);
}

void writeToStandardError(std::string_view text) noexcept {
  std::fwrite(text.data(), 1, text.size(), stderr);
}

/// "app.log" with its weekday, "app_MON.log"; the name ends at its first '.'.
std::string nameOfWeekday(std::string_view name, const char* weekday) {
  const std::size_t base = name.find_last_of("\\/") + 1;  // npos + 1 is 0
  const std::size_t dot = name.find('.', base);
  std::string result(name.substr(0, dot));
  result += '_';
  result += weekday;
  result += dot == std::string_view::npos ? ".txt" : name.substr(dot);
  return result;
}

/// A daily log's file of one day; nothing when memory runs out.
std::optional<SharedText> nameOf(const char* name, const SYSTEMTIME& day) noexcept {
  if (name == nullptr) return SharedText();
  try {
    return SharedText::copyOf(std::string_view(nameOfWeekday(name, weekdayName(day.wDayOfWeek))));
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

/// One tagged line; a line end that the text brings along is not doubled.
void appendLine(std::string* block, std::string_view tag,
                std::initializer_list<std::string_view> parts) {
  *block += tag;
  for (const std::string_view part : parts) *block += part;
  if (block->back() != '\n') *block += '\n';
}

bool isSameDate(const SYSTEMTIME& a, const SYSTEMTIME& b) noexcept {
  return a.wYear == b.wYear && a.wMonth == b.wMonth && a.wDay == b.wDay;
}

}  // namespace

bool LogFileWriter::setName(const char* name, bool autoDelete, bool daily, bool keepRoot) noexcept {
  const SYSTEMTIME today = platform::localSystemTime();
  std::optional<SharedText> root = SharedText::copyOf(name);
  std::optional<SharedText> path = daily ? nameOf(name, today) : SharedText::copyOf(name);
  if (!root || !path) return false;
  if (daily) day_ = today.wDay;
  daily_ = daily;
  autoDelete_ = autoDelete;
  if (keepRoot) root_ = std::move(*root);
  file_.close();
  const platform::ShortLock lock(nameMutex_);
  name_ = std::move(*path);
  isNamed_ = name_.c_str() != nullptr;
  return true;
}

bool LogFileWriter::setName(const char* name) noexcept {
  const SharedText root = root_;  // lives through the change
  return setName(name != nullptr ? name : root.c_str(), autoDelete_, daily_, name != nullptr);
}

void LogFileWriter::forgetName() noexcept {
  file_.close();
  root_ = {};
  const platform::ShortLock lock(nameMutex_);
  name_ = {};
  isNamed_ = false;
}

SharedText LogFileWriter::name() const noexcept {
  const platform::ShortLock lock(nameMutex_);
  return name_;
}

void LogFileWriter::write(unsigned int level, const char* text, const LogFileStyle& style) {
  if (!isNamed()) return;
  bool wasDeleted = false;
  if (!fileExists()) wasDeleted = std::exchange(headerWritten_, false);
  SharedText formerName;
  if (daily_ && headerWritten_ && LogStamp::now().day != day_) formerName = changeDay(level, style);
  deleteStaleFile();
  if (!openFile()) return;

  // Taken while in use: the header's extra text may log a line of its own.
  std::string block = std::exchange(block_, {});
  block.clear();
  const LogTag fullTag(LogStamp::now(), style.tagShowsDate, level);
  const std::string_view tag = style.tag ? fullTag.view() : std::string_view();
  if (!headerWritten_) appendHeader(&block, tag, style, wasDeleted, formerName);
  const std::size_t lineStart = block.size();
  block += tag;
  block += text;
  const bool written = file_.append(block);
  if (style.teeCerr) writeToStandardError(std::string_view(block).substr(lineStart));
  if (!written) reportWriteFailure();
  block_ = std::move(block);
}

/// True when the name leads to a file, the open one or another. Closes the open one when it is not
/// the one that the name leads to.
bool LogFileWriter::fileExists() noexcept {
  if (file_.isOpen()) {
    if (file_.stillNamed()) return true;
    file_.close();
  }
  return platform::FilePtr(platform::openFile(name_.c_str(), "r")) != nullptr;
}

bool LogFileWriter::openFile() noexcept {
  if (file_.isOpen() || file_.open(name_.c_str())) return true;
  report("Failed to open:", name_.orEmpty());
  return false;
}

/// Goes over to today's file; the former one ends with a line that says so. Gives its name.
SharedText LogFileWriter::changeDay(unsigned int level, const LogFileStyle& style) {
  SharedText formerName = name_;
  const std::string newName =
      nameOfWeekday(root_.c_str(), weekdayName(platform::localSystemTime().wDayOfWeek));
  const LogTag tag(LogStamp::now(), style.tagShowsDate, level);
  std::string line;
  appendLine(&line, style.tag ? tag.view() : std::string_view(),
             {"Log file day has changed: switching to: ", newName});
  const bool written = !openFile() || file_.append(line);
  if (style.teeCerr) writeToStandardError(line);
  if (!written) reportWriteFailure();
  if (!setName(nullptr)) throw std::bad_alloc();
  headerWritten_ = false;
  return formerName;
}

/// Before the first line of this run goes in: a file from an earlier run, or of this weekday a week
/// ago, is deleted; a daily one from today is gone on with.
void LogFileWriter::deleteStaleFile() noexcept {
  if (!autoDelete_ || headerWritten_) return;
  if (platform::fileAttributes(name_.c_str()) == INVALID_FILE_ATTRIBUTES) return;
  if (daily_ && isToBeContinued()) return;
  file_.close();
  if (!platform::deleteFile(name_.c_str())) {
    std::fprintf(stderr, "QMLogFileC::DeleteLog: ERROR: deleting file: %s\n",
                 QMErrToStr(QMErrors::lastOsError()));
  }
}

/// True for a file that was written today (UTC), which then needs no other header if it has one,
/// and for one that cannot be asked.
bool LogFileWriter::isToBeContinued() noexcept {
  const platform::FilePtr file(platform::openFile(name_.c_str(), "r"));
  if (file == nullptr) {
    std::fprintf(stderr, "QMLogFileC::DeleteLog: ERROR: opening file\n");
    return true;
  }
  FILETIME lastWrite{};
  SYSTEMTIME lastDay{};
  if (!platform::lastWriteTime(name_.c_str(), &lastWrite) ||
      !platform::fileTimeToSystemTime(lastWrite, &lastDay)) {
    std::fprintf(stderr, "QMLogFileC::DeleteLog: ERROR: %s\n", QMErrToStr(QMErrors::lastOsError()));
    return true;
  }
  if (!isSameDate(lastDay, platform::utcSystemTime())) return false;
  headerWritten_ = std::fseek(file.get(), 0, SEEK_END) == 0 && std::ftell(file.get()) > 0;
  return true;
}

void LogFileWriter::appendHeader(std::string* block, std::string_view tag,
                                 const LogFileStyle& style, bool wasDeleted,
                                 const SharedText& formerName) try {
  headerWritten_ = true;  // a line that the extra header logs has no header of its own
  const LogStamp stamp = LogStamp::now();
  appendLine(block, tag, {std::string_view(kAsterisks)});
  appendLine(block, tag, {"** ", name_.c_str(), " Created on:", stamp.date, stamp.time});
  appendLine(block, tag, {style.extraHeader()});
  if (wasDeleted) {
    appendLine(block, tag, {"Previous log file was deleted during this run of the process"});
  }
  if (formerName.c_str() != nullptr) {
    appendLine(block, tag, {"Log output continuing from: ", formerName.c_str()});
  }
  appendLine(block, tag, {"TagFields:", "TimeStamp Level Thread ThreadPriority Message"});
} catch (const std::bad_alloc&) {
  headerWritten_ = false;
  throw;
}

void LogFileWriter::reportWriteFailure() const noexcept {
  report("Failed to write to:", name_.orEmpty());
}

}  // namespace qm
