// The log file: the process-wide destination of the diagnostic lines of QMLogStreamC. A program
// makes one object with the file's name and installs the static functions as the stream's hooks:
//
//   QMLogFileC logFile("C:\\logs\\app.log", true, true, false);
//   QMLogStreamC(QMLogFileC::DebugOut, QMLogFileC::SetLogName,
//                QMLogFileC::SetDebugLevel, QMLogFileC::GetDebugLevel);
//
// Each line is appended with a tag in front (time, level, thread, priority); a header opens the
// file when it is first written in this process. A daily log has one file a weekday, used again
// week by week, and changes over at local midnight. The file is kept open between lines; when it is
// deleted, renamed or replaced meanwhile, the next line notices and makes it anew.
//
// Any thread may deliver lines: a mutex keeps them whole, waited for at most 60 seconds. A line is
// one write to the file. Failures (full disk, no permission) are reported on standard error and
// the program goes on; nothing throws.
#pragma once

#include <atomic>
#include <iosfwd>

#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/foundation/QMLogUtilsC.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMLogFileC {
 public:
  /// No file yet. This object gives the header's extra text from now on.
  explicit QMLogFileC(bool teeCerr);
  /// Sets the name as SetName() does.
  QMLogFileC(const char* name, bool autoDelete, bool dailyLog, bool teeCerr);
  QMLogFileC(const QMLogFileC&) = delete;
  QMLogFileC& operator=(const QMLogFileC&) = delete;
  /// Closes the file and forgets its name: later lines are dropped.
  virtual ~QMLogFileC();

  /// Names the file, '\' and '/' alike. `autoDelete`: a file left by an earlier run is deleted
  /// before the first line (a daily one only when it is not from today). `dailyLog`: "app.log"
  /// becomes "app_MON.log", "app" becomes "app_MON.txt". A null name forgets the name.
  static void SetName(const char* name, bool autoDelete, bool dailyLog);
  /// The same with the flags in force; null works the name out again for the current weekday.
  static void SetLogName(char* name);
  /// The current file's path, null without one; valid until the calling thread's next call.
  static const char* GetLogName();

  static void SetDebugLevel(unsigned int level);
  /// 1 at start.
  static unsigned int GetDebugLevel();

  /// Delivers a line (its line end included) to the destinations whose bits are set in `mode`:
  /// 1 file, 2 immediate, 4 system, 8 user, in this order. Drops it while no file is named.
  static void DebugOut(unsigned int level, int mode, char* text);
  static void WriteToFile(unsigned int level, char* text);
  // Message boxes with an OK button; the system one is modal to the whole system.
  static void WriteToImmediate(unsigned int level, char* text);
  static void WriteToSystem(unsigned int level, char* text);
  static void WriteToUser(unsigned int level, char* text);

  /// Writes "time level 0xthread 0xpriority " in front of a line, unless tags are switched off.
  static void TagLog(std::ostream& os, unsigned int level);

  // Set at start-up.
  static std::atomic<bool> m_bTagLog;          ///< put the tag in front of each line (true)
  static std::atomic<bool> m_bTagLogShowDate;  ///< with the date (false)
  static std::atomic<bool> m_bTeeCerr;         ///< copy each line to standard error (true)

 protected:
  /// One or more lines for the header; null when there is nothing to say. Called with the log's
  /// mutex held, by the thread that writes the first line; the text stays the object's. A class
  /// that overrides it calls Close() first in its own destructor.
  virtual const char* GetExtraHeaderInfo();
  /// What the destructor does; later calls do nothing.
  void Close();

  QMLogStreamC m_Log;  ///< for a derived class's own lines

 private:
  bool m_bClosed = false;

  static void PSetName(const char* name, bool autoDelete, bool dailyLog);
  static const char* extraHeaderInfo();
  static void writeLine(unsigned int level, const char* text) noexcept;
};
