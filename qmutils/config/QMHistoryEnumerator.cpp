// The reading half of QMHistoryC.
#include <algorithm>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "qmutils/config/DataLineScanner.h"
#include "qmutils/config/QMHistoryC.h"
#include "qmutils/platform/shared_file.h"

using qm::platform::SharedReadFile;
using QMErrors::QMErrorT;

/// The characters of a file one by one, in blocks from the system.
class QMHistoryC::HistoryEnumeratorC::ReaderC {
 public:
  explicit ReaderC(std::shared_ptr<const SharedReadFile> file) : file_(std::move(file)) {}

  /// Goes on to the next data line and takes its first three characters.
  QMErrorT SeekToData(std::string& line) {
    line.clear();
    for (;;) {
      const QMErrorT result = fill();
      if (result != QMErrors::NoError) return result;
      const char c = block_[next_++];
      if (qm::isLineEnd(c)) {
        lineEndSeen_ = true;
        line.clear();
      } else if (line.size() < kMark) {
        line += c;
        if (line.size() == kMark && c == '/' && lineEndSeen_) {
          lineStart_ = position_ - end_ + next_ - kMark;
          return QMErrors::NoError;
        }
      }
    }
  }

  /// Adds the rest of the line and takes its line end.
  QMErrorT TakeLine(std::string& line) {
    for (bool settled = false;;) {
      QMErrorT result = fill();
      if (result == QMErrors::EndOfFileError) {
        if (settled) return QMErrors::NoError;
        // The rest may be on its way; or what was there may be taken back, and another line come.
        file_->awaitAppend();
        settled = true;
        position_ = lineStart_;
        next_ = end_ = 0;
        result = SeekToData(line);
        if (result == QMErrors::NoError) continue;
      }
      if (result != QMErrors::NoError) return result;
      const char* const begin = block_ + next_;
      const char* const end = block_ + end_;
      const char* const lineEnd = std::find_if(begin, end, qm::isLineEnd);
      line.append(begin, lineEnd);
      next_ = static_cast<std::size_t>(lineEnd - block_);
      if (next_ == end_) continue;
      ++next_;
      return QMErrors::NoError;
    }
  }

 private:
  static constexpr std::size_t kMark = 3;

  QMErrorT fill() {
    if (next_ != end_) return QMErrors::NoError;
    const std::ptrdiff_t got = file_->read(position_, block_, sizeof block_);
    if (got < 0) return QMErrors::FailedToReadFromFile;
    position_ += static_cast<std::uint64_t>(got);
    next_ = 0;
    end_ = static_cast<std::size_t>(got);
    return got > 0 ? QMErrors::NoError : QMErrors::EndOfFileError;
  }

  std::shared_ptr<const SharedReadFile> file_;
  std::uint64_t position_ = 0;   // of the next block
  std::uint64_t lineStart_ = 0;  // of the data line that is being read
  std::size_t next_ = 0;
  std::size_t end_ = 0;
  bool lineEndSeen_ = false;
  char block_[8 * 1024] = {};
};

QMHistoryC::HistoryEnumeratorC QMHistoryC::GetEnumerator() const {
  return HistoryEnumeratorC(m_Path);
}

QMHistoryC::HistoryEnumeratorC::HistoryEnumeratorC(const char* path) noexcept : m_bValid(1) {
  try {
    auto file = std::make_shared<const SharedReadFile>(path);
    m_bValid = file->isOpen() ? 1 : 0;
    if (m_bValid != 0) m_pReader = std::make_unique<ReaderC>(std::move(file));
  } catch (const std::bad_alloc&) {
    m_pReader.reset();  // NextElement() says so
  }
}

QMHistoryC::HistoryEnumeratorC::HistoryEnumeratorC(const HistoryEnumeratorC& other) noexcept
    : m_bValid(other.m_bValid),
      m_pReader(other.m_pReader != nullptr ? new (std::nothrow) ReaderC(*other.m_pReader)
                                           : nullptr) {}

QMHistoryC::HistoryEnumeratorC::HistoryEnumeratorC(HistoryEnumeratorC&& other) noexcept
    : m_bValid(std::exchange(other.m_bValid, 0)), m_pReader(std::move(other.m_pReader)) {}

QMHistoryC::HistoryEnumeratorC& QMHistoryC::HistoryEnumeratorC::operator=(
    HistoryEnumeratorC other) noexcept {
  std::swap(m_bValid, other.m_bValid);
  std::swap(m_pReader, other.m_pReader);
  return *this;
}

QMHistoryC::HistoryEnumeratorC::~HistoryEnumeratorC() = default;

QMErrorT QMHistoryC::HistoryEnumeratorC::NextElement(QMCString& line) {
  if (m_bValid == 0) return QMErrors::EndOfFileError;
  line.Empty();
  const QMErrorT result = ReadLine(line);
  if (result != QMErrors::NoError) SetEnd();
  return result;
}

QMErrorT QMHistoryC::HistoryEnumeratorC::ReadLine(QMCString& line) try {
  if (m_pReader == nullptr) return QMErrors::MemoryAllocationFailed;
  std::string text;
  QMErrorT result = m_pReader->SeekToData(text);
  if (result == QMErrors::NoError) result = m_pReader->TakeLine(text);
  if (result != QMErrors::NoError) return result;
  return line.Assign(text) ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

void QMHistoryC::HistoryEnumeratorC::SetEnd() {
  m_bValid = 0;
  m_pReader.reset();
}
