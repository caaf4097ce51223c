// What the commands that exchange text with somebody have in common.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace programs {

/// From here on the library's log lines up to that level (0: errors and warnings) go to standard
/// error, and no others.
void showLogLines(unsigned level);

/// Makes lines of what arrives in pieces. Line ends are LF or CR LF; a line of more than 64 kB is
/// handed over in pieces of that length.
class LineCollector {
 public:
  /// The lines that this piece completes.
  std::vector<std::string> add(std::string_view piece);
  /// What came behind the last line end.
  std::string rest();

 private:
  std::string pending_;
};

/// Prints a line for the user, one thread at a time, as a terminal may show it.
void printLine(std::string_view prefix, std::string_view line);
/// True when standard output takes nothing any more.
bool outputHasFailed();

/// Text on its way from one thread to another.
class TextQueue {
 public:
  void add(std::string_view text);
  /// All of it, which is then gone.
  std::string take();
  std::size_t size();

 private:
  std::mutex mutex_;
  std::string text_;
};

/// Beyond this, whoever fills a queue waits until some of it is gone.
inline constexpr std::size_t kFullQueue = 1 << 20;

}  // namespace programs
