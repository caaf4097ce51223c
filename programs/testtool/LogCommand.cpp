#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <string>
#include <thread>

#include "programs/testtool/Command.h"
#include "qmutils/foundation/QMFileUtilsC.h"

namespace programs {
namespace {

constexpr auto kPause = std::chrono::milliseconds(200);

/// Where to begin so that the last `lines` lines are shown.
std::streamoff startOfLastLines(std::ifstream& in, long long lines) {
  std::deque<std::streamoff> starts;
  std::streamoff start = 0;
  for (std::string line; lines > 0 && std::getline(in, line);) {
    starts.push_back(start);
    if (static_cast<long long>(starts.size()) > lines) starts.pop_front();
    start += static_cast<std::streamoff>(line.size()) + 1;
  }
  in.clear();
  in.seekg(0, std::ios::end);
  return starts.empty() ? static_cast<std::streamoff>(in.tellg()) : starts.front();
}

/// Prints what lies behind `position`; gives the new position, or 0 when the file has become shorter
/// and so begins anew.
std::streamoff printFrom(const std::string& path, std::streamoff position) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return 0;
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < position) {
    std::fputs("--- the log was begun anew ---\n", stdout);
    position = 0;
  }
  in.seekg(position);
  char buffer[4096];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    std::fwrite(buffer, 1, static_cast<std::size_t>(in.gcount()), stdout);
    position += in.gcount();
  }
  std::fflush(stdout);
  return position;
}

int run(const Arguments& arguments) {
  std::string path;
  long long lines = 10;
  bool follow = true;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string value;
    if (arguments[i] == "--once") {
      follow = false;
    } else if (arguments[i] == "-n") {
      if (!takeValue(arguments, i, value) || !parseNumber(value, 0LL, 1'000'000'000LL, lines)) {
        return usageError(kLogCommand, "-n wants a number of lines");
      }
    } else if (path.empty() && !arguments[i].starts_with("-")) {
      path = arguments[i];
    } else {
      return usageError(kLogCommand, "'" + arguments[i] + "' means nothing here");
    }
  }
  if (path.empty()) return usageError(kLogCommand, "no file given");
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "testtool log: cannot open %s\n", path.c_str());
    return kFailure;
  }
  std::streamoff position = startOfLastLines(in, lines);
  in.close();
  noteInterrupts();
  position = printFrom(path, position);
  while (follow && !interrupted()) {
    std::this_thread::sleep_for(kPause);
    position = printFrom(path, position);
  }
  return kSuccess;
}

}  // namespace

const Command kLogCommand = {
    "log", "follow a log file",
    "usage: testtool log FILE [-n LINES] [--once]\n"
    "Prints the last lines of a log and then every line that is added, until Ctrl-C. A log that is\n"
    "deleted, replaced or begun anew is followed on.\n"
    "  -n LINES   begin with the last LINES lines (10)\n"
    "  --once     do not follow\n",
    run};

}  // namespace programs
