// One log line end to end: assembled by a log stream, tagged, appended to the log file, with a
// flush after each line. The peer writes the same fields through spdlog's thread-safe file sink,
// flushing after each line too.
//
// What counts is the ratio of the two at the same number of threads.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMLogFileC.h"

namespace {

namespace fs = std::filesystem;

std::string logPath(const char* name) {
  return (fs::temp_directory_path() / ("qmutils-bench-" + std::string(name))).string();
}

void qmutilsLine(benchmark::State& state) {
  static std::once_flag once;
  std::call_once(once, [] {
    static QMLogFileC* const file =
        new QMLogFileC(logPath("qmutils.log").c_str(), true, false, false);
    benchmark::DoNotOptimize(file);
    QMLogStreamC(QMLogFileC::DebugOut, QMLogFileC::SetLogName, QMLogFileC::SetDebugLevel,
                 QMLogFileC::GetDebugLevel);
  });
  int n = 0;
  for (auto _ : state) {
    qm::logError("PlateLoaderC::run(): ", "plate ", ++n, " of job ", "A-2006-117", " not clamped");
  }
}

void spdlogLine(benchmark::State& state) {
  static const std::shared_ptr<spdlog::logger> logger = [] {
    auto made = spdlog::basic_logger_mt("peer", logPath("spdlog.log"), true);
    // Time, level, thread and a priority, then the text: the fields of our tag.
    made->set_pattern("%H:%M:%S.%e %L 0x%t 0x0000 %v");
    made->set_level(spdlog::level::trace);
    made->flush_on(spdlog::level::trace);
    return made;
  }();
  int n = 0;
  for (auto _ : state) {
    logger->error("{}plate {} of job {} not clamped", "PlateLoaderC::run(): ", ++n, "A-2006-117");
  }
}

void qmutilsLineNotShown(benchmark::State& state) {
  QMLogStreamC(nullptr, nullptr, nullptr, QMLogFileC::GetDebugLevel);
  int n = 0;
  for (auto _ : state) {
    qm::logInfo(20, "PlateLoaderC::run(): ", "plate ", ++n, " of job ", "A-2006-117");
  }
}

}  // namespace

BENCHMARK(qmutilsLine)->Threads(1)->UseRealTime();
BENCHMARK(spdlogLine)->Threads(1)->UseRealTime();
BENCHMARK(qmutilsLine)->Threads(2)->UseRealTime();
BENCHMARK(spdlogLine)->Threads(2)->UseRealTime();
BENCHMARK(qmutilsLine)->Threads(8)->UseRealTime();
BENCHMARK(spdlogLine)->Threads(8)->UseRealTime();
BENCHMARK(qmutilsLineNotShown);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  for (const char* name : {"qmutils.log", "spdlog.log"}) fs::remove(logPath(name));
}
