// Diagnostic lines: a short-lived stream collects one line in memory and hands it, whole, to one
// process-wide output hook, together with the line's message level and mode.
//
//   QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
//   log.SetMessageLevel(5);
//   log._LogInfo() << "QMThreadC::run(): " << "cycle " << n << std::endl;
//
// A line is shown when its message level (0 errors and warnings; 1, 2, 5, 10, 15, 18, 20, 30 for
// ever finer information) is below the debug level; a line that is not shown costs one comparison
// per piece. Each thread writes through a stream of its own, so lines are assembled without locks;
// bringing lines of several threads into order is the output hook's business. A line up to 500
// characters of texts and whole numbers takes no allocation; when memory runs out the rest of a
// line is dropped. Numbers in lines never depend on the global locale.
//
// The hooks are process-wide and stay until replaced; null never uninstalls one. Programs install
// them at start-up, normally the static functions of QMLogFileC.
#pragma once

#include <cstdint>
#include <iomanip>
#include <memory>
#include <ostream>
#include <string_view>
#include <type_traits>

// The buffer's base class is part of the interface; its deprecation says nothing about our use.
#pragma push_macro("__DEPRECATED")
#undef __DEPRECATED
#if defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4996)
#endif
#include <strstream>
#pragma pop_macro("__DEPRECATED")

#include "qmutils/foundation/QMStringStream.h"
#include "qmutils/platform/export.h"

/// Receives each finished line, its line feed included; `text` is valid during the call only.
using QMLogOutputFn = void (*)(unsigned int level, int mode, char* text);
using QMLogSetNameFn = void (*)(char* name);
using QMLogSetLevelFn = void (*)(unsigned int level);
using QMLogGetLevelFn = unsigned int (*)();

/// The buffer under a log stream: the text of the line, its level and mode, and the hooks.
class QMUTILS_API QMLogStrstreambufC : public std::strstreambuf {
 public:
  QMLogStrstreambufC() noexcept;
  /// A copy takes level and mode; a line not yet delivered stays with the stream it was written to.
  QMLogStrstreambufC(const QMLogStrstreambufC& other) noexcept;
  QMLogStrstreambufC& operator=(const QMLogStrstreambufC& other) noexcept;
  /// Delivers what is still in the buffer.
  ~QMLogStrstreambufC() override;

  /// Both return the value before. The level stays for following lines; the mode goes back to 1
  /// after each delivered line.
  unsigned int SetMessageLevel(unsigned int level) noexcept;
  unsigned int SetMode(unsigned int mode) noexcept;

  /// The current debug level; without a get-level hook the message level plus 1, so that every
  /// line is shown.
  unsigned int GetDebugLevel() const noexcept;
  /// Returns the debug level before and passes the new one to the set-level hook.
  unsigned int SetDebugLevel(unsigned int level) noexcept;
  void SetLogFileName(char* name) noexcept;
  bool IsValidDebugLevel() const noexcept;

  // The four hooks. Setters ignore null; getters ignore a null destination and give null when no
  // hook is installed.
  static void SetDBFn(QMLogOutputFn hook) noexcept;
  static void GetDBFn(QMLogOutputFn* hook) noexcept;
  static void SetDBSetLogNameFn(QMLogSetNameFn hook) noexcept;
  static void GetDBSetLogNameFn(QMLogSetNameFn* hook) noexcept;
  static void SetDBSetLevelFn(QMLogSetLevelFn hook) noexcept;
  static void GetDBSetLevelFn(QMLogSetLevelFn* hook) noexcept;
  static void SetDBGetLevelFn(QMLogGetLevelFn hook) noexcept;
  static void GetDBGetLevelFn(QMLogGetLevelFn* hook) noexcept;

 protected:
  /// Delivers the buffered line to the output hook, if there is any text, and empties the buffer.
  int sync() override;
  int_type overflow(int_type c) override;

  /// Appends characters without asking the level.
  void append(std::string_view text) noexcept;
  bool endsInsideLine() const noexcept;

 private:
  bool grow(std::size_t needed) noexcept;
  void useBuffer(char* buffer, std::size_t size, std::size_t used) noexcept;

  static constexpr std::size_t kLocalSize = 512;
  unsigned int m_MessageLevel = 0;
  unsigned int m_Mode = 1;
  std::unique_ptr<char[]> heap_;
  char local_[kLocalSize];
};

/// Sets the message level in the middle of an expression: `log << QMMessageLevel{5} << "text"`.
/// On an ostream it acts when the stream writes into a log stream's buffer, else not at all.
struct QMMessageLevel {
  unsigned int level;
};

class QMUTILS_API QMLogStreamC : public QMLogStrstreambufC {
 public:
  /// Installs the hooks that are not null. Message level 0, mode 1.
  QMLogStreamC(QMLogOutputFn output, QMLogSetNameFn setLogName, QMLogSetLevelFn setLevel,
               QMLogGetLevelFn getLevel) noexcept;
  /// A copy takes level and mode and gets an ostream of its own when it needs one.
  QMLogStreamC(const QMLogStreamC& other) noexcept;
  QMLogStreamC& operator=(const QMLogStreamC& other) noexcept;
  /// Ends an unterminated line and delivers it.
  ~QMLogStreamC() override;

  // Each writes only when the line is shown.
  QMLogStreamC& operator<<(char value);
  QMLogStreamC& operator<<(unsigned char value) { return *this << static_cast<char>(value); }
  QMLogStreamC& operator<<(signed char value) { return *this << static_cast<char>(value); }
  QMLogStreamC& operator<<(short value);
  QMLogStreamC& operator<<(unsigned short value);
  QMLogStreamC& operator<<(int value);
  QMLogStreamC& operator<<(unsigned int value);
  QMLogStreamC& operator<<(long value);
  QMLogStreamC& operator<<(unsigned long value);
  QMLogStreamC& operator<<(long long value);
  QMLogStreamC& operator<<(unsigned long long value);
  QMLogStreamC& operator<<(double value);
  /// In the form of PointerText.h.
  QMLogStreamC& operator<<(const void* value);
  /// Null counts as an empty text.
  QMLogStreamC& operator<<(const char* text);
  QMLogStreamC& operator<<(std::string_view text);
  QMLogStreamC& operator<<(std::ios_base& (*manipulator)(std::ios_base&));
  QMLogStreamC& operator<<(std::ios& (*manipulator)(std::ios&));
  /// std::endl and std::flush deliver the line.
  QMLogStreamC& operator<<(std::ostream& (*manipulator)(std::ostream&));
  QMLogStreamC& operator<<(QMMessageLevel level) noexcept;

  /// std::setw, setfill, setprecision, setbase, setiosflags, resetiosflags.
  template <class Manipulator>
  requires(std::is_same_v<Manipulator, decltype(std::setw(0))> ||
           std::is_same_v<Manipulator, decltype(std::setfill(' '))> ||
           std::is_same_v<Manipulator, decltype(std::setprecision(0))> ||
           std::is_same_v<Manipulator, decltype(std::setbase(0))> ||
           std::is_same_v<Manipulator, decltype(std::setiosflags(std::ios::dec))> ||
           std::is_same_v<Manipulator, decltype(std::resetiosflags(std::ios::dec))>) QMLogStreamC&
  operator<<(Manipulator manipulator) {
    if (std::ostream* os = shownOstream()) *os << manipulator;
    return *this;
  }

  /// Sets the message level; when the line is then shown, sets the mode and writes the formatted
  /// text (at most 32767 characters, the rest is cut) and an end of line.
  void Format(unsigned int level, unsigned int mode, const char* format, ...) QMUTILS_PRINTF(4, 5);

  // Copy what is left to read of a stream into the line, without consuming it: up to a NUL, the
  // character 0xFF or the end. 16-bit text becomes UTF-8.
  QMLogStreamC& PeekString(QMistrstream& stream);
  QMLogStreamC& PeekString(QMstrstream& stream);
  QMLogStreamC& PeekString(QMistrstream_w& stream);
  QMLogStreamC& PeekString(QMstrstream_w& stream);

  // Line prefixes: " ASSERT: ", " ERROR: ", " WARNING: ", " INFO: ", and " thread: 0x" with the
  // calling thread's identifier in hexadecimal.
  QMLogStreamC& _LogAssert();
  QMLogStreamC& _LogError();
  QMLogStreamC& _LogWarning();
  QMLogStreamC& _LogInfo();
  QMLogStreamC& _LogThread();

  /// An ostream that writes into this stream's buffer, made on the first call; null when memory
  /// runs out. Owned by this object.
  std::ostream* GetOstream() noexcept;
  QMLogStrstreambufC* GetBuffer() noexcept { return this; }

  /// Reads the hooks; null destinations are ignored.
  static void GetHooks(QMLogOutputFn* output, QMLogSetNameFn* setLogName, QMLogSetLevelFn* setLevel,
                       QMLogGetLevelFn* getLevel) noexcept;
  /// The debug level as a line of level 0 sees it: 1 when no get-level hook is installed.
  static unsigned int GetDebugLevel() noexcept;

  /// Change format flags and return the ones before (the default flags when memory runs out).
  std::ios_base::fmtflags setf(std::ios_base::fmtflags flags) noexcept;
  std::ios_base::fmtflags setf(std::ios_base::fmtflags flags,
                               std::ios_base::fmtflags mask) noexcept;
  /// Delivers what has been written so far, without ending the line.
  void flush();

 private:
  std::ostream* shownOstream() noexcept;
  bool writesPlainText() const noexcept;
  bool writesPlainNumbers() const noexcept;
  template <class Integer>
  QMLogStreamC& writeInteger(Integer value);
  template <class Stream>
  QMLogStreamC& peek(Stream& stream);
  QMLogStreamC& deliver();

  std::unique_ptr<std::ostream> m_pOstream;
};

QMUTILS_API std::ostream& operator<<(std::ostream& os, QMMessageLevel level);

#if defined(_MSC_VER)
#pragma warning(pop)
#endif
