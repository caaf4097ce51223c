#include <climits>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include "programs/testtool/Command.h"
#include "qmutils/config/QMHistoryC.h"
#include "qmutils/platform/file.h"

namespace programs {
namespace {

int complain(const std::string& path, const char* complaint) {
  std::fprintf(stderr, "testtool history: %s: %s\n", path.c_str(), complaint);
  return kFailure;
}

/// To the enumerator, what cannot be opened has no lines.
bool canBeRead(const std::string& path) {
  const std::string native = qm::platform::nativePath(path.c_str());
  std::error_code ignored;
  return std::filesystem::is_regular_file(native, ignored) && std::ifstream(native).is_open();
}

void print(const QMCString& line) {
  std::fwrite(line.view().data(), 1, line.view().size(), stdout);
  std::fputc('\n', stdout);
}

/// Prints the newest lines, all of them as they are read, fewer when their number is known.
QMErrors::QMErrorT show(const std::string& path, long long lines) {
  QMHistoryC::HistoryEnumeratorC history(path.c_str());
  std::deque<QMCString> newest;
  QMCString line;
  QMErrors::QMErrorT result = QMErrors::NoError;
  while (std::ferror(stdout) == 0 && (result = history.NextElement(line)) == QMErrors::NoError) {
    if (lines == LLONG_MAX) {
      print(line);
      continue;
    }
    newest.push_back(std::move(line));
    if (static_cast<long long>(newest.size()) > lines) newest.pop_front();
  }
  for (const QMCString& text : newest) print(text);
  return result == QMErrors::EndOfFileError ? QMErrors::NoError : result;
}

int run(const Arguments& arguments) {
  std::string path;
  bool given = false;
  long long lines = LLONG_MAX;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string value;
    if (arguments[i] == "-n") {
      if (!takeValue(arguments, i, value) || !parseNumber(value, 0LL, 1'000'000'000LL, lines)) {
        return usageError(kHistoryCommand, "-n wants a number of lines");
      }
    } else if (!given && !arguments[i].starts_with("-")) {
      path = arguments[i];
      given = true;
    } else {
      return usageError(kHistoryCommand, "unknown argument '" + arguments[i] + "'");
    }
  }
  if (path.empty()) return usageError(kHistoryCommand, "no file given");
  if (!canBeRead(path)) return complain(path, "cannot be read");
  const QMErrors::QMErrorT result = show(path, lines);
  return result == QMErrors::NoError ? kSuccess : complain(path, QMErrToStr(result));
}

}  // namespace

const Command kHistoryCommand = {"history", "show what is in a history",
                                 "usage: testtool history FILE [-n LINES]\n"
                                 "Prints the events of a history, the oldest first: date, time and "
                                 "what the program wrote, with\n"
                                 "tabs between. Programs may go on adding to it meanwhile.\n"
                                 "  -n LINES   the newest LINES events only\n",
                                 run};

}  // namespace programs
