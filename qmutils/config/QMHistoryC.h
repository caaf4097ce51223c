// A history: a text file with a header and one time-stamped line per event, bounded to its newest
// lines. A program derives from it and decides what a line holds.
//
// Any number of threads, objects and programs may add to one history. Below the limit LogIt() costs
// little more than opening, writing and closing a file, at the limit a copy of it that is flushed
// to the disk; the first one, and those after changes by others, also count the lines. A line is in
// the file when LogIt() returns 0; after a failure it is there whole or not at all. A killed
// program or a full disk costs no other line. Nothing throws. Codes: 1000, 1001, 2055, 2056, 2001,
// the system's and those of QMCriticalSectionC. Failures are logged while the history is locked, so
// a log hook must not add to one.
//
//   class JobHistoryC : public QMHistoryC {
//    public:
//     QMErrors::QMErrorT Open() { return Create("jobs.txt", "job\tplates", 10000); }
//     QMErrors::QMErrorT Add(const char* job) { return LogIt(job); }
//   };
//
// The file: "0x00000001", "First created: (mm/dd/yyyy): " and when, "date\ttime\t" and the column
// titles, then data lines: MM/DD/YYYY, tab, hh:mm:ss (local time), tab, text. A data line is one
// with '/' as its third character that is not the first of the file; LF and CR both end a line.
// Oldest lines leave by a new file that takes the old one's place when it is complete.
#pragma once

#include <memory>

#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/foundation/QMCString.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

namespace qm::platform {
class SharedReadFile;
}

class QMUTILS_API QMHistoryC {
 public:
  class HistoryEnumeratorC;

  QMHistoryC();
  virtual ~QMHistoryC();
  QMHistoryC(const QMHistoryC&) = delete;
  QMHistoryC& operator=(const QMHistoryC&) = delete;

  /// Reads the file as it is now. After Create().
  HistoryEnumeratorC GetEnumerator() const;

 protected:
  /// Takes the path ('\' and '/' separate), which must lead to a regular file or to none, and the
  /// number of data lines to keep. A missing file is made, with `columns` (may be null) as the
  /// titles; one that is there stays as it is. Once a path was taken, later calls do nothing.
  /// 1001 "Failed to Open File", 2055 "Failed to write to file".
  virtual QMErrors::QMErrorT Create(const char* path, const char* columns, unsigned int maxLines);

  /// Adds a line with the time and `text` (may be null; line ends in it become blanks), then drops
  /// the oldest lines beyond the limit. 1000 "Invalid Filename" before Create(); 1001 when the file
  /// cannot be opened, also when others have it locked for ten seconds; 2055 when the line could
  /// not be written, 2001 without memory for it. A failure to drop lines (1001, 2055, 2056, 2001 or
  /// the system's) comes back too, although the line is there; the log tells which it was.
  QMErrors::QMErrorT LogIt(const char* text);

  /// Empty before Create().
  const QMCString& GetFilePath() const { return m_Path; }

 private:
  struct LinesS;

  QMErrors::QMErrorT MakeFile();
  QMErrors::QMErrorT NotWritten(QMErrors::QMErrorT reason) const;
  QMErrors::QMErrorT NotCopied(QMErrors::QMErrorT reason) const;
  QMErrors::QMErrorT WriteLine(const char* text);
  bool MendLastLine();
  QMErrors::QMErrorT TruncateLog();
  QMErrors::QMErrorT CutOldest(const qm::platform::SharedReadFile& in);

  QMCString m_Path;
  unsigned int m_nMaxLines = 0;
  QMCriticalSectionC m_Section;
  QMCString m_Columns;
  std::unique_ptr<LinesS> m_pLines;
};

/// Gives the data lines of a history, oldest first. It goes on reading the file that it was opened
/// on, also when another has taken its place. A copy goes on by itself from where it was made. Used
/// by one thread at a time.
class QMUTILS_API QMHistoryC::HistoryEnumeratorC {
 public:
  /// A file that does not open has no lines; it is not made.
  explicit HistoryEnumeratorC(const char* path) noexcept;
  HistoryEnumeratorC(const HistoryEnumeratorC& other) noexcept;
  HistoryEnumeratorC(HistoryEnumeratorC&& other) noexcept;
  HistoryEnumeratorC& operator=(HistoryEnumeratorC other) noexcept;
  virtual ~HistoryEnumeratorC();

  /// The next data line without its line end, the date and time included. 2007 "End of file error"
  /// after the last one, `line` then being empty the first time and untouched from then on; 2056
  /// "Failed to read from file"; 2001 "Memory allocation failed". A failure ends the enumeration.
  /// Waits up to ten seconds for whoever is adding when the last line lacks its end.
  virtual QMErrors::QMErrorT NextElement(QMCString& line);

 protected:
  /// Ends the enumeration and closes the file.
  virtual void SetEnd();

 private:
  class ReaderC;

  QMErrors::QMErrorT ReadLine(QMCString& line);

  int m_bValid;
  std::unique_ptr<ReaderC> m_pReader;
};
