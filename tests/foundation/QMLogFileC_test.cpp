#include "qmutils/foundation/QMLogFileC.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <latch>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/foundation/LogFileWriter.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/thread.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TimeZone.h"

namespace {

namespace fs = std::filesystem;
using qmtest::readFile;

std::vector<std::string> linesOf(const std::string& path) {
  std::istringstream in(readFile(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::size_t headersIn(const std::string& path) {
  std::size_t headers = 0;
  for (const std::string& line : linesOf(path)) headers += line == std::string(64, '*');
  return headers;
}

class LogFile : public testing::Test {
 protected:
  void write(const char* text) { writer_.write(0, text, style_); }

  /// What a call writes to standard error.
  template <class Call>
  std::string standardErrorOf(Call call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
  }

  std::string lastLine() const { return linesOf(path_).back(); }

  qmtest::TempFolder folder_;
  const std::string path_ = folder_.file("app.log");
  qmtest::TimeZone zone_{"CET-1"};
  qmtest::FakeClock clock_;  // Monday, 2006-11-06 14:03:07.045 UTC
  qm::LogFileStyle style_{false, false, false, [] { return "** extra"; }};
  qm::LogFileWriter writer_;
};

TEST_F(LogFile, HeaderOpensTheFileAndOnlyTheFile) {
  write("dropped without a name\n");
  ASSERT_TRUE(writer_.setName(path_.c_str(), false, false, true));
  write("first\n");
  write("second\r\n");
  const std::string expected = std::string(64, '*') + "\n** " + path_ +
                               " Created on: 06\\11\\2006 15:03:07.045 \n** extra\n"
                               "TagFields:TimeStamp Level Thread ThreadPriority Message\n"
                               "first\nsecond\r\n";
  EXPECT_EQ(readFile(path_), expected);

  // A later run goes on in the same file, with a header of its own; with auto delete it starts
  // afresh.
  qm::LogFileWriter later;
  later.setName(path_.c_str(), false, false, true);
  later.write(0, "third\n", style_);
  EXPECT_EQ(headersIn(path_), 2u);
  EXPECT_EQ(lastLine(), "third");
  qm::LogFileWriter fresh;
  fresh.setName(path_.c_str(), true, false, true);
  fresh.write(0, "fourth\n", style_);
  fresh.write(0, "fifth\n", style_);
  EXPECT_EQ(headersIn(path_), 1u);
  EXPECT_EQ(readFile(path_).find("third"), std::string::npos);
  EXPECT_EQ(lastLine(), "fifth");
}

TEST_F(LogFile, TagsAndStampsShowTimeLevelThreadAndPriority) {
  writer_.setName(path_.c_str(), false, false, true);
  style_.tag = true;
  write("x\n");
  style_.tagShowsDate = true;
  clock_.advanceMs(2);
  writer_.write(0xABCD, "y\n", style_);
  char thread[32];
  std::snprintf(thread, sizeof thread, " 0x%04x 0x0000 ", qm::platform::currentThreadId());
  const auto lines = linesOf(path_);
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    EXPECT_EQ(lines[i].find(std::string("15:03:07.045 000") + thread), 0u) << lines[i];
  }
  EXPECT_EQ(lines.back(), std::string("15:03:07.047  06\\11\\2006 abcd") + thread + "y");

  std::ostringstream os;
  os << std::setfill('*') << std::hex;
  QMLogUtilsC::TimeStamp(os);
  QMLogUtilsC::DateStamp(os);
  SYSTEMTIME now{};
  EXPECT_EQ(os.str(), "15:03:07.047  06\\11\\2006 ");
  EXPECT_STREQ(QMLogUtilsC::GetDayOfWeek(&now), "MON");
  EXPECT_EQ(now.wHour, 15);
  clock_.advanceMs(6 * 86'400'000LL);
  EXPECT_STREQ(QMLogUtilsC::GetDayOfWeek(nullptr), "SUN");
}

TEST_F(LogFile, SaysThatItsFileWasDeletedButNotThatItWasReplaced) {
  for (const bool replaced : {false, true}) {
    fs::remove(path_);
    qm::LogFileWriter writer;
    writer.setName(path_.c_str(), false, false, true);
    writer.write(0, "before\n", style_);
    fs::remove(path_);
    if (replaced) qmtest::writeFile(path_, "new\n");
    writer.write(0, "after\n", style_);
    writer.write(0, "last\n", style_);
    const std::string content = readFile(path_);
    EXPECT_NE(content.find(replaced ? "new\nafter\nlast\n" : "\nafter\nlast\n"), std::string::npos);
    EXPECT_EQ(content.find("Previous log file was deleted during this run of the process\n") ==
                  std::string::npos,
              replaced)
        << content;
  }
}

TEST_F(LogFile, DailyNamesTakeTheWeekdayBeforeTheFirstDot) {
  const std::pair<const char*, const char*> kNames[] = {
      {"C:\\logs\\app.log", "C:\\logs\\app_MON.log"},
      {"C:\\logs\\app", "C:\\logs\\app_MON.txt"},
      {"/var/v1.2/app.tar.gz", "/var/v1.2/app_MON.tar.gz"},
      {"/var/a.b\\app", "/var/a.b\\app_MON.txt"},
      {"app.log", "app_MON.log"},
      {"logs/", "logs/_MON.txt"},
  };
  for (const auto& [given, expected] : kNames) {
    writer_.setName(given, false, true, true);
    EXPECT_STREQ(writer_.name().c_str(), expected);
    writer_.setName(given, false, false, true);
    EXPECT_STREQ(writer_.name().c_str(), given);
  }
}

TEST_F(LogFile, DailyFilesChangeOverAtLocalMidnight) {
  const std::string monday = folder_.file("app_MON.log");
  const std::string tuesday = folder_.file("app_TUE.log");
  clock_.setUtc({2006, 11, 1, 6, 22, 59, 59, 0});  // 23:59:59 local
  writer_.setName(folder_.file("app.log").c_str(), false, true, true);
  write("monday\n");
  clock_.advanceMs(999);
  write("still monday\n");
  clock_.advanceMs(1);
  style_.teeCerr = true;
  const std::string tee = standardErrorOf([&] { write("tuesday\n"); });
  style_.teeCerr = false;
  write("later\n");
  const std::string notice = "Log file day has changed: switching to: " + tuesday;
  EXPECT_EQ(linesOf(monday).back(), notice);
  EXPECT_EQ(linesOf(monday)[linesOf(monday).size() - 2], "still monday");
  EXPECT_EQ(tee, notice + "\ntuesday\n") << "the header is not copied";
  const auto lines = linesOf(tuesday);
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[3], "Log output continuing from: " + monday);
  EXPECT_EQ(lines[5], "tuesday");
  EXPECT_EQ(readFile(tuesday).find("deleted"), std::string::npos);
}

TEST_F(LogFile, AutoDeleteTakesADailyFileOfAnotherDate) {
  const std::string path = folder_.file("app_MON.log");
  using namespace std::chrono;
  const struct {
    const char* content;
    sys_time<seconds> written;
    bool kept, header;
  } kCases[] = {
      {"last week\n", sys_days(2006y / 10 / 30) + 14h, false, true},
      {"last year\n", sys_days(2005y / 11 / 6) + 14h, false, true},
      {"today\n", sys_days(2006y / 11 / 6) + 0h, true, false},
      {"", sys_days(2006y / 11 / 6) + 0h, true, true},
      {"yesterday\n", sys_days(2006y / 11 / 6) - 1s, false, true},
  };
  for (const auto& c : kCases) {
    qmtest::writeFile(path, c.content);
    fs::last_write_time(path, file_clock::from_sys(c.written));
    qm::LogFileWriter writer;
    writer.setName(folder_.file("app.log").c_str(), true, true, true);
    writer.write(0, "line\n", style_);
    const std::string content = readFile(path);
    EXPECT_EQ(content.find(c.content) == 0 && *c.content != '\0', c.kept && *c.content != '\0');
    EXPECT_EQ(headersIn(path), c.header ? 1u : 0u) << c.content;
    EXPECT_EQ(linesOf(path).back(), "line");
  }
}

TEST_F(LogFile, FailuresAreReportedAndTheProgramGoesOn) {
  writer_.setName("/dev/full", false, false, true);
  EXPECT_EQ(standardErrorOf([&] { write("lost\n"); }),
            "QMLogFileC::WriteToFileFailed to write to:/dev/full\n");
  const std::string missing = folder_.file("no such folder/app.log");
  writer_.setName(missing.c_str(), false, false, true);
  EXPECT_EQ(standardErrorOf([&] { write("lost\n"); }),
            "QMLogFileC::WriteToFileFailed to open:" + missing + "\n");

  // A disk that fills up and has room again.
  writer_.setName(path_.c_str(), false, false, true);
  write("before\n");
  const auto former = std::signal(SIGXFSZ, SIG_IGN);
  rlimit unlimited{};
  getrlimit(RLIMIT_FSIZE, &unlimited);
  const rlimit small{fs::file_size(path_) + 3, unlimited.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const std::string reported = standardErrorOf([&] { write("too much\n"); });
  setrlimit(RLIMIT_FSIZE, &unlimited);
  std::signal(SIGXFSZ, former);
  EXPECT_EQ(reported, "QMLogFileC::WriteToFileFailed to write to:" + path_ + "\n");
  write("\nafter\n");
  EXPECT_EQ(lastLine(), "after");
}

// The class that programs use has one state a process, which tests before this one may have used.

class Quiet : public QMLogFileC {
 public:
  Quiet(const std::string& name) : QMLogFileC(false) { SetName(name.c_str(), true, false); }
  std::function<const char*()> extra = [] { return nullptr; };

 protected:
  const char* GetExtraHeaderInfo() override { return extra(); }
};

void out(int mode, const char* text) { QMLogFileC::DebugOut(0, mode, const_cast<char*>(text)); }

TEST_F(LogFile, HooksWriteTheNamedFileAndStopWithTheObject) {
  {
    Quiet file(path_);
    EXPECT_STREQ(QMLogFileC::GetLogName(), path_.c_str());
    {
      const qmtest::LogCapture puttingTheHooksBack;
      QMLogStreamC log(QMLogFileC::DebugOut, QMLogFileC::SetLogName, QMLogFileC::SetDebugLevel,
                       QMLogFileC::GetDebugLevel);
      EXPECT_EQ(log.SetDebugLevel(3), 1u);
      log << QMMessageLevel{2} << "shown" << std::endl << QMMessageLevel{3} << "not" << std::endl;
      log.SetDebugLevel(1);
    }
    EXPECT_NE(readFile(path_).find("** No extra header info available.\n"), std::string::npos);
    EXPECT_TRUE(lastLine().ends_with(" shown"));
    std::ostringstream tag;
    tag << std::hex << std::showbase << std::setfill('*');
    QMLogFileC::TagLog(tag, 2);
    EXPECT_EQ(lastLine().substr(0, tag.str().size()), tag.str());
  }
  EXPECT_EQ(QMLogFileC::GetLogName(), nullptr);
  const std::string before = readFile(path_);
  out(1, "after the end\n");
  EXPECT_EQ(readFile(path_), before);
  const std::string second = folder_.file("second.log");
  QMLogFileC named(second.c_str(), false, false, false);
  out(1, "line\n");
  EXPECT_NE(readFile(second).find("** No extra header info function defined.\n"),
            std::string::npos);
}

std::string boxes;

TEST_F(LogFile, ModeBitsChooseTheDestinations) {
  Quiet file(path_);
  const auto former =
      qm::platform::setPromptHook([](const char* text, const char* caption, UINT style) {
        boxes += std::string(caption) + ' ' + std::to_string(style) + ' ' + text;
        return IDOK;
      });
  out(15, "everywhere\n");
  EXPECT_EQ(boxes,
            "QMLogFileC::WriteToImmediate 0 everywhere\n"
            "QMLogFileC::WriteToSystem 4112 everywhere\n"
            "QMLogFileC::WriteToUser 0 everywhere\n");
  boxes.clear();
  out(3, "file and box\n");
  EXPECT_EQ(boxes, "QMLogFileC::WriteToImmediate 0 file and box\n");
  out(0, "nowhere\n");
  qm::platform::setPromptHook(former);
  EXPECT_TRUE(lastLine().ends_with("file and box"));
}

TEST_F(LogFile, AHeaderThatLogsIsNoTrouble) {
  Quiet file(path_);
  file.extra = [] {
    out(1, "nested\n");
    return "** extra";
  };
  out(1, "outer\n");
  const std::string content = readFile(path_);
  EXPECT_LT(content.find("nested\n"), content.find("** extra\n"));
  EXPECT_TRUE(lastLine().ends_with("outer"));
}

TEST_F(LogFile, ALineIsDroppedAfterAMinuteOfWaiting) {
  Quiet file(path_);
  std::latch entered(1), leave(1);
  file.extra = [&]() -> const char* {
    entered.count_down();
    leave.wait();
    return nullptr;
  };
  std::thread holder([] { out(1, "kept\n"); });
  entered.wait();
  const std::string reported = standardErrorOf([&] {
    std::atomic<bool> done{false};
    std::thread waiter([&] {
      out(1, "dropped\n");
      done = true;
    });
    while (!done) {
      clock_.advanceMs(500);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiter.join();
  });
  leave.count_down();
  holder.join();
  EXPECT_EQ(reported,
            "QMLogFileC::DebugOut: ERROR: Timed out waiting for logfile mutex on:" + path_ + "\n");
  EXPECT_EQ(readFile(path_).find("dropped"), std::string::npos);
}

TEST_F(LogFile, LinesOfManyThreadsStayWhole) {
  Quiet file(path_);
  QMLogFileC::m_bTagLog = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string line = "<" + std::string(200, static_cast<char>('a' + t)) + ">\n";
      for (int i = 0; i < 300; ++i) out(1, line.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::ostringstream tag;
  QMLogFileC::TagLog(tag, 2);
  EXPECT_EQ(tag.str(), "");
  QMLogFileC::m_bTagLog = true;
  int whole = 0;
  for (const std::string& line : linesOf(path_)) {
    if (line.front() != '<') continue;
    EXPECT_EQ(line, "<" + std::string(200, line[1]) + ">");
    ++whole;
  }
  EXPECT_EQ(whole, 1200);
}

TEST_F(LogFile, RunningOutOfMemoryLosesALineAtMost) {
  testing::internal::CaptureStderr();
  int failures = 0;
  for (int n = 1; n < 50; ++n) {
    Quiet file(path_);
    qmtest::FailingAllocation nth(n);
    out(1, "line\n");
    if (!nth.hasFailed()) break;
    ++failures;
  }
  const std::string reported = testing::internal::GetCapturedStderr();
  EXPECT_GE(failures, 1);
  EXPECT_EQ(std::count(reported.begin(), reported.end(), '\n'), failures) << reported;
  Quiet file(path_);
  out(1, "line\n");
  EXPECT_TRUE(lastLine().ends_with("line"));
}

}  // namespace
