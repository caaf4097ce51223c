#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include "programs/testtool/Command.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/program.h"

namespace programs {
namespace {

constexpr auto kPause = std::chrono::milliseconds(200);

bool goesOn() { return !qm::platform::interrupted() && std::ferror(stdout) == 0; }

/// Shows one file, found anew by its name each time.
class Follower {
 public:
  explicit Follower(const std::string& path) : path_(qm::platform::nativePath(path.c_str())) {}

  /// Goes to where the last `lines` lines begin; false when there is no such file.
  bool skipToLastLines(long long lines) {
    std::ifstream in;
    if (!open(in)) return false;
    std::deque<std::streamoff> starts;
    bool atStart = true;
    position_ = 0;
    forEachBlock(in, [&](const char* block, std::streamoff size) {
      for (std::streamoff i = 0; i < size; ++i) {
        if (atStart) starts.push_back(position_ + i);
        if (static_cast<long long>(starts.size()) > lines) starts.pop_front();
        atStart = block[i] == '\n';
      }
      position_ += size;
    });
    if (!starts.empty()) position_ = starts.front();
    shown_ = textBefore(in, position_);
    if (static_cast<std::streamoff>(shown_.size()) < std::min(position_, kRemembered)) {
      position_ = 0;  // shortened meanwhile
      shown_.clear();
    }
    return true;
  }

  /// Prints what was added since the last call.
  void printNews() {
    std::ifstream in;
    if (!open(in)) return;
    if (textBefore(in, position_) != shown_) {
      if (!shown_.ends_with('\n')) std::fputc('\n', stdout);
      std::fputs("--- the log was begun anew ---\n", stdout);
      position_ = 0;
      shown_.clear();
    }
    in.clear();
    in.seekg(position_);
    forEachBlock(in, [this](const char* block, std::streamoff size) {
      const auto count = static_cast<std::size_t>(size);
      std::fwrite(block, 1, count, stdout);
      position_ += size;
      shown_.append(block, count);
      if (shown_.size() > kRemembered) shown_.erase(0, shown_.size() - kRemembered);
    });
    std::fflush(stdout);
  }

 private:
  static constexpr std::streamoff kRemembered = 256;

  /// Hands on what is left of a file, until the user or the output has had enough.
  template <class Take>
  static void forEachBlock(std::ifstream& in, const Take& take) {
    char block[4096];
    while (goesOn() && (in.read(block, sizeof block) || in.gcount() > 0)) take(block, in.gcount());
  }

  bool open(std::ifstream& in) const {
    std::error_code ignored;
    if (std::filesystem::is_directory(path_, ignored)) return false;
    in.open(path_, std::ios::binary);
    return in.is_open();
  }

  /// The last bytes before a position; fewer when the file ends sooner.
  static std::string textBefore(std::ifstream& in, std::streamoff position) {
    const std::streamoff count = std::min(position, kRemembered);
    std::string text(static_cast<std::size_t>(count), '\0');
    in.clear();
    in.seekg(position - count);
    in.read(text.data(), count);
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
  }

  const std::string path_;
  std::streamoff position_ = 0;
  std::string shown_;  // what stands before it: tells a file that has grown from another one
};

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
      return usageError(kLogCommand, "unknown argument '" + arguments[i] + "'");
    }
  }
  if (path.empty()) return usageError(kLogCommand, "no file given");
  qm::platform::noteInterrupts();
  Follower follower(path);
  if (!follower.skipToLastLines(lines)) {
    std::fprintf(stderr, "testtool log: cannot open %s\n", path.c_str());
    return kFailure;
  }
  follower.printNews();
  while (follow && goesOn()) {
    std::this_thread::sleep_for(kPause);
    follower.printNews();
  }
  return kSuccess;
}

}  // namespace

const Command kLogCommand = {"log", "follow a log file",
                             "usage: testtool log FILE [-n LINES] [--once]\n"
                             "Prints the last lines of a log and then every line that is added, "
                             "until Ctrl-C. A log that is\n"
                             "deleted, replaced or begun anew is followed on.\n"
                             "  -n LINES   begin with the last LINES lines (10)\n"
                             "  --once     do not follow\n",
                             run};

}  // namespace programs
