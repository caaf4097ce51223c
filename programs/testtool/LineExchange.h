// What the commands that exchange text with somebody have in common.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qmutils/platform/types.h"
#include "qmutils/transport/CQMSocketCommon.h"

namespace programs {

using Clock = std::chrono::steady_clock;

/// From here on the library's log lines up to that level (0: errors and warnings) go to standard
/// error, and no others.
void showLogLines(unsigned level);
/// Takes the value of --log.
bool parseLogLevel(const std::string& text, unsigned& level);
inline constexpr const char* kLogLevelWanted = "--log wants a level, 0 to 99";

/// The text with '?' in place of every NUL, at which a text that is sent would end.
std::string sendable(std::string text);

/// Ends a thread before its object goes. When it does not end, the program does.
void endThread(QMThreadC& thread);

/// Makes lines of what arrives in pieces. Line ends are LF or CR LF; a line of more than 64 kB is
/// handed over in pieces of that length.
class LineCollector {
 public:
  struct Line {
    std::string text;
    bool ended;  ///< false for a piece of a line that goes on
  };
  /// The lines that this piece completes.
  std::vector<Line> add(std::string_view piece);
  /// What came behind the last line end.
  std::string rest();

 private:
  std::string pending_;
};

/// Beyond this, whoever fills a queue waits until some of it is gone.
inline constexpr std::size_t kFullQueue = 1 << 20;

/// Text on its way from one thread to another.
class TextQueue {
 public:
  void add(std::string_view text);
  /// The first of it, which is then gone.
  std::string take(std::size_t most);
  std::size_t size();
  bool isFull() { return size() > kFullQueue; }
  /// True when it is full and nobody has taken anything for that time.
  bool hasStoodStill(DWORD ms);

 private:
  std::mutex mutex_;
  std::string text_;
  Clock::time_point lastTake_ = Clock::now();
};

/// The user's end of the exchange. Any thread may print; the main thread alone writes, and only
/// what the streams take at once, so that a reader who stands still keeps nobody from ending.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Text for standard output. While too much waits to be written the caller waits, too, until the
  /// console is closed.
  void print(std::string_view text);
  /// A line, as a terminal may show it.
  void printLine(std::string_view prefix, std::string_view line);
  /// A line for standard error, in its turn. Never waits.
  void note(std::string_view line);
  bool isFull() const { return size_ > kFullQueue; }
  bool hasWrittenAll() const { return size_ == 0; }

  // For the main thread.

  /// A step of the main loop, 50 ms at most: writes what was printed, and gives what has come from
  /// standard input, if that is wanted.
  std::string step(bool wantsInput);
  bool inputHasEnded() const { return inputHasEnded_; }
  /// False when the user has interrupted, or standard output takes nothing any more.
  bool goesOn() const;
  /// From here on nobody waits to print. Before the threads that print are ended.
  void close() { closed_ = true; }
  /// Writes all that is left. After an interrupt a reader who stands still is not waited for.
  void finish();

 private:
  enum class Progress { Done, Stalled, More };
  struct Text {
    std::FILE* stream;
    std::string text;
  };

  void add(std::FILE* stream, std::string_view text);
  bool takeNext();
  Progress write();

  const HANDLE arrived_;  // set when something was printed
  std::atomic<std::size_t> size_{0};
  std::atomic<bool> closed_{false};
  std::mutex mutex_;
  std::deque<Text> waiting_;  // under the mutex
  // The main thread's own.
  Text current_{nullptr, {}};
  std::size_t written_ = 0;  // of the current text
  bool failed_ = false;
  bool inputHasEnded_ = false;
};

/// What a connection does with its lines: prints those that come, and sends what is outgoing. For
/// the thread of the connection, but for those marked.
class LineLink {
 public:
  /// CQMSocketCommon::Receive() of the socket.
  using Receive = std::function<QMErrors::QMErrorT(char*, DWORD, DWORD&, DWORD)>;

  LineLink(Console& console, std::string prefix, bool echo)
      : console_(console), prefix_(std::move(prefix)), echo_(echo) {}

  TextQueue outgoing;  // any thread

  /// A connection begins. What is left of a line that the one before has begun is not sent.
  void begin();
  /// One listening step, which goes on while there is something to send; its result.
  QMErrors::QMErrorT step(CQMSocketCommon& socket, const Receive& receive);
  /// A connection has ended: prints a line that has no end.
  void end();

  /// Any thread: nothing is on its way.
  bool isIdle() { return outgoing.size() == 0 && !sending_; }
  /// Any thread: some text may not have been sent.
  bool hasLost() const { return hasLost_; }

 private:
  QMErrors::QMErrorT takeAndSend(CQMSocketCommon& socket, const Receive& receive);
  std::string nextText();
  QMErrors::QMErrorT send(CQMSocketCommon& socket);

  Console& console_;
  const std::string prefix_;
  const bool echo_;
  LineCollector lines_;
  bool hasSent_ = false;   // on this connection
  bool midLine_ = false;   // the last text that was sent has no line end
  bool skipping_ = false;  // up to the next line end
  std::atomic<bool> sending_{false};
  std::atomic<bool> hasLost_{false};
};

}  // namespace programs
