#include "qmutils/config/QMHistoryC.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "qmutils/config/DataLineScanner.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMFileUtilsC.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/replacement_file.h"
#include "qmutils/platform/shared_file.h"

using namespace qm::platform;
using QMErrors::QMErrorT;

/// The file, and how many data lines it had when this object was last through with it.
struct QMHistoryC::LinesS {
  bool areCounted() const { return file.state() == countedState; }

  SharedAppendFile file;
  std::uint64_t count = 0;
  FileState countedState;  // any other one: somebody has changed the file
};

namespace {

using User = QMCriticalSectionC::QMCriticalSectionUserC;

constexpr const char* kCreate = "QMHistoryC::Create(): ";
constexpr const char* kLogIt = "QMHistoryC::LogIt(): ";
constexpr const char* kTruncate = "QMHistoryC::TruncateLog(): ";

constexpr std::size_t kBlockSize = 32 * 1024;
constexpr std::size_t kWriteBufferSize = 128 * 1024;
constexpr std::uint64_t kEndOfFile = UINT64_MAX;
constexpr std::uint64_t kPageSize = 4096;  // larger ones are multiples of it

struct Unlocker {
  SharedAppendFile& file;
  ~Unlocker() { file.unlock(); }
};

void appendNumber(std::string& text, unsigned number, unsigned highestPlace) {
  for (unsigned place = highestPlace; place > 0; place /= 10) {
    text += static_cast<char>('0' + number / place % 10);
  }
}

/// "MM/DD/YYYY", a separator, "hh:mm:ss": the local time. By hand, as printf() would cost as much
/// as a system call.
void appendStamp(std::string& text, char separator) {
  const SYSTEMTIME now = localSystemTime();
  const struct {
    unsigned number, highestPlace;
    char before;
  } kParts[] = {{now.wMonth, 10, 0},        {now.wDay, 10, '/'},    {now.wYear, 1000, '/'},
                {now.wHour, 10, separator}, {now.wMinute, 10, ':'}, {now.wSecond, 10, ':'}};
  for (const auto& part : kParts) {
    if (part.before != 0) text += part.before;
    appendNumber(text, part.number, part.highestPlace);
  }
}

/// Adds a text as a part of one line: line ends become blanks, those at its end are dropped.
void appendOneLine(std::string& line, std::string_view text) {
  while (!text.empty() && qm::isLineEnd(text.back())) text.remove_suffix(1);
  const std::size_t start = line.size();
  line += text;
  std::replace_if(line.begin() + static_cast<std::ptrdiff_t>(start), line.end(), qm::isLineEnd,
                  ' ');
}

std::string header(const QMCString& columns) {
  std::string text = "0x00000001\nFirst created: (mm/dd/yyyy): ";
  appendStamp(text, ' ');
  text += "\ndate\ttime\t";
  appendOneLine(text, columns.view());
  return text += '\n';
}

/// Hands on the blocks of a file until `take` has had enough; false when the file cannot be read.
template <class Take>
bool forEachBlock(const SharedReadFile& file, std::uint64_t from, const Take& take) {
  char block[kBlockSize];
  for (;;) {
    const std::ptrdiff_t got = file.read(from, block, sizeof block);
    if (got <= 0) return got == 0;
    from += static_cast<std::uint64_t>(got);
    if (!take(std::string_view(block, static_cast<std::size_t>(got)))) return true;
  }
}

template <class Visit>
bool forEachDataLine(const SharedReadFile& file, const Visit& visit) {
  qm::DataLineScanner scanner;
  return forEachBlock(file, 0, [&](std::string_view block) { return scanner.scan(block, visit); });
}

/// Copies what stands from one place to another, or to the end.
QMErrorT copyPart(const SharedReadFile& from, std::uint64_t begin, std::uint64_t end,
                  std::FILE* to) {
  if (begin == end) return QMErrors::NoError;
  bool fits = true;
  const bool readable = forEachBlock(from, begin, [&](std::string_view block) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), end - begin));
    fits = std::fwrite(block.data(), 1, count, to) == count;
    begin += count;
    return fits && begin < end;
  });
  if (!fits) return QMErrors::FailedToWriteToFile;
  return readable ? QMErrors::NoError : QMErrors::FailedToReadFromFile;
}

/// Where the header ends and where the lines begin that stay.
struct Cut {
  std::uint64_t dataBegin = kEndOfFile;
  std::uint64_t newestBegin = kEndOfFile;
};

bool findCut(const SharedReadFile& file, std::uint64_t oldest, Cut* cut) {
  std::uint64_t seen = 0;
  return forEachDataLine(file, [&](std::uint64_t position) {
    if (seen == 0) cut->dataBegin = position;
    if (seen == oldest) cut->newestBegin = position;
    return seen++ < oldest;
  });
}

QMErrorT copyAround(const SharedReadFile& from, const Cut& cut, std::FILE* to) {
  QMErrorT result = copyPart(from, 0, cut.dataBegin, to);
  if (result == QMErrors::NoError) result = copyPart(from, cut.newestBegin, kEndOfFile, to);
  if (result != QMErrors::NoError) return result;
  return std::fflush(to) == 0 ? QMErrors::NoError : QMErrors::FailedToWriteToFile;
}

/// Where the last line begins, be it empty; false when the file cannot be read.
bool findLastLine(const SharedReadFile& file, std::uint64_t size, std::uint64_t* start) {
  char block[kBlockSize];
  for (std::uint64_t end = size; end > 0;) {
    const std::uint64_t from = end - std::min<std::uint64_t>(end, sizeof block);
    const auto wanted = static_cast<std::size_t>(end - from);
    if (file.read(from, block, wanted) != static_cast<std::ptrdiff_t>(wanted)) return false;
    const std::size_t lineEnd = std::string_view(block, wanted).find_last_of("\r\n");
    if (lineEnd != std::string_view::npos) {
      *start = from + lineEnd + 1;
      return true;
    }
    end = from;
  }
  *start = 0;
  return true;
}

constexpr std::string_view kForm = "00/00/0000\t00:00:00\t";
constexpr std::size_t kStampSize = kForm.size();

/// True for a line of ours, however short it was cut.
bool beginsAsStamp(std::string_view line) {
  return std::equal(
      line.begin(), line.begin() + std::min(line.size(), kForm.size()), kForm.begin(),
      [](char c, char form) { return form == '0' ? c >= '0' && c <= '9' : c == form; });
}

}  // namespace

QMHistoryC::QMHistoryC() = default;
QMHistoryC::~QMHistoryC() = default;

QMErrorT QMHistoryC::Create(const char* path, const char* columns, unsigned int maxLines) {
  User user(&m_Section);
  const QMErrorT entered = user.EnterCriticalSection(kCreate, INFINITE);
  if (entered != QMErrors::NoError) return entered;
  if (!m_Path.IsEmpty()) return QMErrors::NoError;
  m_pLines.reset(new (std::nothrow) LinesS);
  if (m_pLines == nullptr) return QMErrors::MemoryAllocationFailed;
  // The path last: who has it has all.
  const auto orEmpty = [](const char* text) {
    return std::string_view(text != nullptr ? text : "");
  };
  if (!m_Columns.Assign(orEmpty(columns))) return QMErrors::MemoryAllocationFailed;
  m_nMaxLines = maxLines;
  if (!m_Path.Assign(orEmpty(path))) return QMErrors::MemoryAllocationFailed;
  return QMFileUtilsC::FileExists(m_Path) != 0 ? QMErrors::NoError : MakeFile();
}

/// Only an empty file is written to: another program may have made it meanwhile.
QMErrorT QMHistoryC::MakeFile() try {
  SharedAppendFile& file = m_pLines->file;
  if (!file.lock(m_Path)) {
    qm::logWarning(0, kCreate, "failed to open file: ", m_Path.view());
    return QMErrors::FailedToOpenFile;
  }
  const Unlocker unlocker{file};
  if (file.state().size != 0 || file.append(header(m_Columns))) return QMErrors::NoError;
  qm::logWarning(0, kCreate, "failed writing to: ", m_Path.view());
  return QMErrors::FailedToWriteToFile;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT QMHistoryC::LogIt(const char* text) {
  User user(&m_Section);
  const QMErrorT entered = user.EnterCriticalSection(kLogIt, INFINITE);
  if (entered != QMErrors::NoError) return entered;
  if (m_Path.IsEmpty()) return NotWritten(QMErrors::InvalidFilename);
  if (!m_pLines->file.lock(m_Path)) return NotWritten(QMErrors::FailedToOpenFile);
  const Unlocker unlocker{m_pLines->file};
  const QMErrorT written = WriteLine(text != nullptr ? text : "");
  const QMErrorT bounded = TruncateLog();
  if (written == QMErrors::NoError) return bounded;
  m_pLines->countedState = FileState();  // nobody has seen to the last line's end
  return written;
}

QMErrorT QMHistoryC::NotWritten(QMErrorT reason) const {
  qm::logError(kLogIt, "failed writing to: ", m_Path.view());
  return reason;
}

QMErrorT QMHistoryC::WriteLine(const char* text) try {
  SharedAppendFile& file = m_pLines->file;
  const bool counted = m_pLines->areCounted();
  std::string line;
  line.reserve(std::strlen(text) + 64);
  // Also when the file was deleted or emptied: the first line of a file would not count as data.
  if (file.state().size == 0) {
    line = header(m_Columns);
  } else if (!counted && !MendLastLine()) {
    line = "\n";
  }
  appendStamp(line, '\t');
  line += '\t';
  appendOneLine(line, text);
  line += '\n';

  const std::uint64_t expectedSize = file.state().size + line.size();
  if (!file.append(line)) return NotWritten(QMErrors::FailedToWriteToFile);
  if (counted && file.state().size == expectedSize) {
    ++m_pLines->count;
    m_pLines->countedState = file.state();
  }
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return NotWritten(QMErrors::MemoryAllocationFailed);
}

/// Sees to it that the file ends with a line end; false when one must be added, or nobody can tell:
/// an empty line does no harm. A last line without one is an editor's, and stays, or what was
/// written of a line by a program that was killed meanwhile. The system ends such a write between
/// two pages, so a line of ours that ends there is cut away: LogIt() has never said that it is in
/// the file.
bool QMHistoryC::MendLastLine() {
  SharedAppendFile& file = m_pLines->file;
  const std::uint64_t size = file.state().size;
  const SharedReadFile in(m_Path);
  std::uint64_t start = 0;
  if (!in.isOpen() || !findLastLine(in, size, &start)) return false;
  if (start == size) return true;
  if (start == 0 || size % kPageSize != 0) return false;
  char begin[kStampSize];
  const std::ptrdiff_t got = in.read(start, begin, sizeof begin);
  return got > 0 && beginsAsStamp({begin, static_cast<std::size_t>(got)}) && file.cut(start);
}

/// Drops the oldest data lines beyond the limit.
QMErrorT QMHistoryC::TruncateLog() try {
  LinesS& lines = *m_pLines;
  if (lines.areCounted() && lines.count <= m_nMaxLines) return QMErrors::NoError;
  const SharedReadFile in(m_Path);
  if (!in.isOpen()) {
    qm::logWarning(0, kTruncate, "failed to open file: ", m_Path.view());
    return QMErrors::FailedToOpenFile;
  }
  if (!lines.areCounted()) {
    std::uint64_t count = 0;
    if (!forEachDataLine(in, [&count](std::uint64_t) { return ++count != 0; })) {
      qm::logWarning(0, kTruncate, "Data lines in file: ", m_Path.view(),
                     "ERROR counting lines in: ", m_Path.view());
      return QMErrors::FailedToReadFromFile;
    }
    lines.count = count;
    lines.countedState = lines.file.state();
  }
  return lines.count <= m_nMaxLines ? QMErrors::NoError : CutOldest(in);
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

/// Puts a file with the header and the newest lines in the place of this one.
QMErrorT QMHistoryC::CutOldest(const SharedReadFile& in) {
  LinesS& lines = *m_pLines;
  Cut cut;
  if (!findCut(in, lines.count - m_nMaxLines, &cut)) {
    return NotCopied(QMErrors::FailedToReadFromFile);
  }
  if (cut.newestBegin == kEndOfFile && m_nMaxLines > 0) {
    // Fewer lines than were counted: changed without a trace in size or time.
    lines.countedState = FileState();
    return QMErrors::NoError;
  }
  // Large aligned writes: small ones would cost a third more, in the writing to the disk alone.
  const auto buffer = std::make_unique<char[]>(kWriteBufferSize);
  ReplacementFile copy(m_Path);
  if (copy.get() == nullptr) return NotCopied(QMErrors::FailedToOpenFile);
  std::setvbuf(copy.get(), buffer.get(), _IOFBF, kWriteBufferSize);
  const QMErrorT copied = copyAround(in, cut, copy.get());
  if (copied != QMErrors::NoError) return NotCopied(copied);
  if (!copy.commit()) {
    const QMErrorT reason = QMErrors::lastOsError();
    qm::logWarning(0, kTruncate, "Failed copying file: ", copy.name(), ", to: ", m_Path.view());
    return reason;
  }
  // Still locked, so nobody has added to it yet.
  lines.count = m_nMaxLines;
  if (!stateOf(copy.get(), &lines.countedState)) lines.countedState = FileState();
  return QMErrors::NoError;
}

QMErrorT QMHistoryC::NotCopied(QMErrorT reason) const {
  qm::logWarning(0, kTruncate, "Failed copying data lines from file: ", m_Path.view());
  return reason;
}
