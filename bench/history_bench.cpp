// One event into a history of at most 10,000 lines, by a LogIt() that leaves the file's lines
// consistent for other programs, and that takes the oldest line out when the history is full.
//
// Below the limit the peers open the file for appending, write a line of the same length and close
// it, once by the system's calls and once by a stream. Neither they nor LogIt() flush to the disk.
// At the limit the peer copies the full file once from beginning to end and renames the copy over
// it; it flushes the copy before, as LogIt() does, since without that a power cut could leave
// neither file. What counts is the ratio to the peer in the same run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "qmutils/config/QMHistoryC.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kLimit = 10'000;
constexpr char kText[] = "A-2006-117\tplate 17\texposed in 4 min 12 s";
constexpr char kLine[] = "11/07/2006\t14:03:07\tA-2006-117\tplate 17\texposed in 4 min 12 s\n";

class HistoryC : public QMHistoryC {
 public:
  explicit HistoryC(const std::string& path) { Create(path.c_str(), "job\tplate\tevent", kLimit); }
  bool add() { return LogIt(kText) == QMErrors::NoError; }
};

std::string pathOf(const char* name) {
  return (fs::temp_directory_path() / ("qmutils-bench-" + std::string(name))).string();
}

/// Lines one after the other, into a file that is begun anew before it is full.
template <class Add>
void addLines(benchmark::State& state, const std::string& path, const Add& add) {
  unsigned lines = kLimit;
  for (auto _ : state) {
    if (++lines >= kLimit) {
      state.PauseTiming();
      fs::remove(path);
      add();
      lines = 1;
      state.ResumeTiming();
    }
    if (!add()) state.SkipWithError("not written");
  }
  fs::remove(path);
}

void logItBelowLimit(benchmark::State& state) {
  const std::string path = pathOf("history");
  HistoryC history(path);
  addLines(state, path, [&] { return history.add(); });
}

void systemCalls(benchmark::State& state) {
  const std::string path = pathOf("calls");
  addLines(state, path, [&] {
    const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    const bool written = write(file, kLine, sizeof kLine - 1) == sizeof kLine - 1;
    return close(file) == 0 && written;
  });
}

void fileStream(benchmark::State& state) {
  const std::string path = pathOf("stream");
  addLines(state, path, [&] {
    std::ofstream file(path, std::ios::app);
    file << kLine;
    file.close();
    return file.good();
  });
}

std::string fullHistory(const char* name) {
  const std::string path = pathOf(name);
  fs::remove(path);
  HistoryC history(path);
  for (unsigned i = 0; i < kLimit; ++i) history.add();
  return path;
}

void logItAtLimit(benchmark::State& state) {
  const std::string path = fullHistory("full-history");
  HistoryC history(path);
  history.add();  // counts the lines
  for (auto _ : state) {
    if (!history.add()) state.SkipWithError("not written");
  }
  fs::remove(path);
}

bool copyOnce(const std::string& path, const std::string& copy) {
  const int from = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int to = open(copy.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  bool good = from >= 0 && to >= 0;
  static char block[64 * 1024];
  ssize_t got;
  while (good && (got = read(from, block, sizeof block)) > 0) good = write(to, block, got) == got;
  good = good && fsync(to) == 0;
  close(from);
  return close(to) == 0 && good && std::rename(copy.c_str(), path.c_str()) == 0;
}

void copyAndRename(benchmark::State& state) {
  const std::string path = fullHistory("full-peer");
  for (auto _ : state) {
    if (!copyOnce(path, path + ".tmp")) state.SkipWithError("not copied");
  }
  fs::remove(path);
}

BENCHMARK(logItBelowLimit)->UseRealTime();
BENCHMARK(systemCalls)->UseRealTime();
BENCHMARK(fileStream)->UseRealTime();
BENCHMARK(logItAtLimit)->UseRealTime();
BENCHMARK(copyAndRename)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
