#include "qmutils/foundation/QMLogFileC.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/foundation/LogFileWriter.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/thread.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using qmtest::readFile;

const char kDeleted[] = "Previous log file was deleted during this run of the process\n";

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
  LogFile() {
    setenv("TZ", "CET-1", 1);
    tzset();
  }
  ~LogFile() override {
    unsetenv("TZ");
    tzset();
  }

  void write(const char* text) { writer_.write(0, text, style_); }

  /// What a call writes to standard error.
  template <class Call>
  std::string standardErrorOf(Call call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
  }

  qmtest::TempFolder folder_;
  qmtest::FakeClock clock_;  // Monday, 2006-11-06 14:03:07.045 UTC
  qm::LogFileStyle style_{false, false, false, [] { return "** extra"; }};
  qm::LogFileWriter writer_;
};

TEST_F(LogFile, HeaderOpensTheFileAndOnlyTheFile) {
  const std::string path = folder_.file("app.log");
  write("dropped without a name\n");
  ASSERT_TRUE(writer_.setName(path.c_str(), false, false, true));
  write("first\n");
  write("second\r\n");
  const std::string expected = std::string(64, '*') + "\n** " + path +
                               " Created on: 06\\11\\2006 15:03:07.045 \n** extra\n"
                               "TagFields:TimeStamp Level Thread ThreadPriority Message\n"
                               "first\nsecond\r\n";
  EXPECT_EQ(readFile(path), expected);

  // A later run goes on in the same file, with a header of its own; with auto delete it starts
  // afresh.
  qm::LogFileWriter later;
  later.setName(path.c_str(), false, false, true);
  later.write(0, "third\n", style_);
  EXPECT_EQ(headersIn(path), 2u);
  EXPECT_EQ(linesOf(path).back(), "third");
  qm::LogFileWriter fresh;
  fresh.setName(path.c_str(), true, false, true);
  fresh.write(0, "fourth\n", style_);
  fresh.write(0, "fifth\n", style_);
  EXPECT_EQ(headersIn(path), 1u);
  EXPECT_EQ(readFile(path).find("third"), std::string::npos);
  EXPECT_EQ(linesOf(path).back(), "fifth");
}

TEST_F(LogFile, TagsShowTimeLevelThreadAndPriority) {
  const std::string path = folder_.file("app.log");
  writer_.setName(path.c_str(), false, false, true);
  style_.tag = true;
  write("x\n");
  style_.tagShowsDate = true;
  clock_.advanceMs(2);
  writer_.write(0xABCD, "y\n", style_);
  char thread[32];
  std::snprintf(thread, sizeof thread, " 0x%04x 0x0000 ", qm::platform::currentThreadId());
  const auto lines = linesOf(path);
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    EXPECT_EQ(lines[i].find(std::string("15:03:07.045 000") + thread), 0u) << lines[i];
  }
  EXPECT_EQ(lines.back(), std::string("15:03:07.047  06\\11\\2006 abcd") + thread + "y");
}

TEST_F(LogFile, NoticesWhatHappensToItsFile) {
  const std::string path = folder_.file("logs/app.log");
  const std::string away = folder_.file("logs/app.old");
  const std::string other = folder_.file("other.log");
  const struct {
    const char* what;
    std::function<void()> happen;
    bool headerAgain;
  } kCases[] = {
      {"deleted", [&] { fs::remove(path); }, true},
      {"renamed", [&] { fs::rename(path, away); }, true},
      {"replaced by another file",
       [&] {
         qmtest::writeFile(other, "other\n");
         fs::rename(other, path);
       },
       false},
      {"deleted and made again",
       [&] {
         fs::remove(path);
         qmtest::writeFile(path, "new\n");
       },
       false},
      {"its folder renamed",
       [&] {
         fs::rename(folder_.file("logs"), folder_.file("old"));
         fs::create_directory(folder_.file("logs"));
       },
       true},
      {"touched", [&] { fs::permissions(path, fs::perms::owner_all); }, false},
  };
  for (const auto& c : kCases) {
    fs::remove_all(folder_.file("logs"));
    fs::remove_all(folder_.file("old"));
    fs::create_directory(folder_.file("logs"));
    qm::LogFileWriter writer;
    writer.setName(path.c_str(), false, false, true);
    writer.write(0, "before\n", style_);
    c.happen();
    writer.write(0, "after\n", style_);
    writer.write(0, "last\n", style_);
    const std::string content = readFile(path);
    EXPECT_EQ(content.find(kDeleted) != std::string::npos, c.headerAgain) << c.what;
    EXPECT_NE(content.find("after\nlast\n"), std::string::npos) << c.what << ": " << content;
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
  EXPECT_EQ(readFile(tuesday).find(kDeleted), std::string::npos);
}

TEST_F(LogFile, AutoDeleteTakesADailyFileOfAnotherDate) {
  const std::string path = folder_.file("app_MON.log");
  const auto writtenAt = [&](const char* content, const SYSTEMTIME& utc) {
    qmtest::writeFile(path, content);
    FILETIME time{};
    ASSERT_TRUE(qm::platform::systemTimeToFileTime(utc, &time));
    const auto seconds = static_cast<std::int64_t>(qm::platform::fileTimeTicks(time) / 10'000'000);
    const std::chrono::sys_seconds moment{std::chrono::seconds(seconds - 11'644'473'600)};
    fs::last_write_time(path, std::chrono::file_clock::from_sys(moment));
  };
  const struct {
    const char* content;
    SYSTEMTIME utc;
    bool kept, header;
  } kCases[] = {
      {"last week\n", {2006, 10, 1, 30, 14, 0, 0, 0}, false, true},
      {"last year\n", {2005, 11, 0, 6, 14, 0, 0, 0}, false, true},
      {"today\n", {2006, 11, 1, 6, 0, 0, 0, 0}, true, false},
      {"", {2006, 11, 1, 6, 0, 0, 0, 0}, true, true},
      {"yesterday\n", {2006, 11, 0, 5, 23, 59, 59, 0}, false, true},
  };
  for (const auto& c : kCases) {
    writtenAt(c.content, c.utc);
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
  const std::string path = folder_.file("app.log");
  writer_.setName(path.c_str(), false, false, true);
  write("before\n");
  const auto former = std::signal(SIGXFSZ, SIG_IGN);
  rlimit unlimited{};
  getrlimit(RLIMIT_FSIZE, &unlimited);
  const rlimit small{fs::file_size(path) + 3, unlimited.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const std::string reported = standardErrorOf([&] { write("too much\n"); });
  setrlimit(RLIMIT_FSIZE, &unlimited);
  std::signal(SIGXFSZ, former);
  EXPECT_EQ(reported, "QMLogFileC::WriteToFileFailed to write to:" + path + "\n");
  write("\nafter\n");
  EXPECT_EQ(linesOf(path).back(), "after");
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
  const std::string path = folder_.file("hooked.log");
  {
    Quiet file(path);
    EXPECT_STREQ(QMLogFileC::GetLogName(), path.c_str());
    QMLogOutputFn output = nullptr;
    QMLogSetNameFn setName = nullptr;
    QMLogSetLevelFn setLevel = nullptr;
    QMLogGetLevelFn getLevel = nullptr;
    QMLogStreamC::GetHooks(&output, &setName, &setLevel, &getLevel);
    {
      QMLogStreamC log(QMLogFileC::DebugOut, QMLogFileC::SetLogName, QMLogFileC::SetDebugLevel,
                       QMLogFileC::GetDebugLevel);
      EXPECT_EQ(log.SetDebugLevel(3), 1u);
      log << QMMessageLevel{2} << "shown" << std::endl << QMMessageLevel{3} << "not" << std::endl;
      log.SetDebugLevel(1);
    }
    EXPECT_NE(readFile(path).find("** No extra header info available.\n"), std::string::npos);
    EXPECT_NE(linesOf(path).back().find(" shown"), std::string::npos);
    std::ostringstream tag;
    tag << std::hex << std::showbase << std::setfill('*');
    QMLogFileC::TagLog(tag, 2);
    EXPECT_EQ(linesOf(path).back().substr(0, tag.str().size()), tag.str());
    QMLogFileC::m_bTagLog = false;
    tag.str("");
    QMLogFileC::TagLog(tag, 2);
    EXPECT_EQ(tag.str(), "");
    QMLogFileC::m_bTagLog = true;
    QMLogStreamC(
        output != nullptr ? output : [](unsigned, int, char*) {}, setName, setLevel,
        getLevel != nullptr ? getLevel : [] { return 100u; });
  }
  EXPECT_EQ(QMLogFileC::GetLogName(), nullptr);
  const std::string before = readFile(path);
  out(1, "after the end\n");
  EXPECT_EQ(readFile(path), before);
  {
    QMLogFileC named(folder_.file("second.log").c_str(), false, false, false);
    out(1, "line\n");
    EXPECT_NE(
        readFile(folder_.file("second.log")).find("** No extra header info function defined.\n"),
        std::string::npos);
  }
}

std::string boxes;

TEST_F(LogFile, ModeBitsChooseTheDestinations) {
  const std::string path = folder_.file("modes.log");
  Quiet file(path);
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
  EXPECT_NE(linesOf(path).back().find("file and box"), std::string::npos);
}

TEST_F(LogFile, AHeaderThatLogsIsNoTrouble) {
  const std::string path = folder_.file("nested.log");
  Quiet file(path);
  file.extra = [] {
    out(1, "nested\n");
    return "** extra";
  };
  out(1, "outer\n");
  const std::string content = readFile(path);
  EXPECT_LT(content.find("nested\n"), content.find("** extra\n"));
  EXPECT_NE(linesOf(path).back().find("outer"), std::string::npos);
}

TEST_F(LogFile, ALineIsDroppedAfterAMinuteOfWaiting) {
  const std::string path = folder_.file("blocked.log");
  Quiet file(path);
  std::atomic<bool> entered{false}, leave{false};
  file.extra = [&]() -> const char* {
    entered = true;
    while (!leave) std::this_thread::yield();
    return nullptr;
  };
  std::thread holder([] { out(1, "kept\n"); });
  while (!entered) std::this_thread::yield();
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
  leave = true;
  holder.join();
  EXPECT_EQ(reported,
            "QMLogFileC::DebugOut: ERROR: Timed out waiting for logfile mutex on:" + path + "\n");
  EXPECT_EQ(readFile(path).find("dropped"), std::string::npos);
}

TEST_F(LogFile, LinesOfManyThreadsStayWhole) {
  const std::string path = folder_.file("threads.log");
  Quiet file(path);
  QMLogFileC::m_bTagLog = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string line = "<" + std::string(200, static_cast<char>('a' + t)) + ">\n";
      for (int i = 0; i < 300; ++i) out(1, line.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  QMLogFileC::m_bTagLog = true;
  int whole = 0;
  for (const std::string& line : linesOf(path)) {
    if (line.front() != '<') continue;
    EXPECT_EQ(line, "<" + std::string(200, line[1]) + ">");
    ++whole;
  }
  EXPECT_EQ(whole, 1200);
}

TEST_F(LogFile, RunningOutOfMemoryLosesALineAtMost) {
  const std::string path = folder_.file("memory.log");
  testing::internal::CaptureStderr();
  int failures = 0;
  for (int n = 1; n < 50; ++n) {
    Quiet file(path);
    qmtest::FailingAllocation nth(n);
    out(1, "line\n");
    if (!nth.hasFailed()) break;
    ++failures;
  }
  const std::string reported = testing::internal::GetCapturedStderr();
  EXPECT_GE(failures, 1);
  EXPECT_EQ(std::count(reported.begin(), reported.end(), '\n'), failures) << reported;
  Quiet file(path);
  out(1, "line\n");
  EXPECT_NE(linesOf(path).back().find("line"), std::string::npos);
}

TEST_F(LogFile, Stamps) {
  std::ostringstream os;
  os << std::setfill('*') << std::hex;
  QMLogUtilsC::TimeStamp(os);
  QMLogUtilsC::DateStamp(os);
  SYSTEMTIME now{};
  EXPECT_EQ(os.str(), "15:03:07.045  06\\11\\2006 ");
  EXPECT_STREQ(QMLogUtilsC::GetDayOfWeek(&now), "MON");
  EXPECT_EQ(now.wHour, 15);
  clock_.advanceMs(6 * 86'400'000LL);
  EXPECT_STREQ(QMLogUtilsC::GetDayOfWeek(nullptr), "SUN");
}

}  // namespace
