#include "qmutils/config/QMHistoryC.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/platform/shared_file.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TimeZone.h"

namespace {

namespace fs = std::filesystem;
using Enumerator = QMHistoryC::HistoryEnumeratorC;
using QMErrors::QMErrorT;
using qmtest::readFile;
using qmtest::writeFile;

class HistoryC : public QMHistoryC {
 public:
  HistoryC() = default;
  HistoryC(const std::string& path, unsigned maxLines) {
    EXPECT_EQ(Create(path.c_str(), "job", maxLines), QMErrors::NoError);
  }
  using QMHistoryC::Create;
  using QMHistoryC::GetFilePath;
  QMErrorT LogIt(const std::string& text) { return QMHistoryC::LogIt(text.c_str()); }
};

std::vector<std::string> linesOf(Enumerator lines) {
  std::vector<std::string> texts;
  QMCString line;
  while (lines.NextElement(line) == QMErrors::NoError) texts.emplace_back(line.view());
  return texts;
}

/// It is 09:03:07 in New York.
class HistoryTest : public testing::Test {
 protected:
  static std::string stamped(const std::string& text) {
    return "11/06/2006\t09:03:07\t" + text + "\n";
  }
  /// Somebody who waits looks at the clock again and again.
  bool somebodyWaits() const {
    const unsigned before = clock_.looks();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (clock_.looks() < before + 10 && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    return clock_.looks() >= before + 10;
  }

  qmtest::TimeZone zone_{"EST5EDT"};
  qmtest::FakeClock clock_;
  qmtest::LogCapture log_{1};
  qmtest::TempFolder folder_;
  const std::string path_ = folder_.file("jobs");
  const std::string temporary_ = path_ + ".tmp";
  const std::string header_ =
      "0x00000001\nFirst created: (mm/dd/yyyy): 11/06/2006 09:03:07\ndate\ttime\tjob\n";
  const std::string a_ = stamped("a"), b_ = stamped("b"), c_ = stamped("c"), d_ = stamped("d");
};

TEST_F(HistoryTest, HoldsTheNewestLinesBehindTheHeader) {
  HistoryC history;
  const std::string spelling = folder_.path() + "\\jobs";
  EXPECT_EQ(history.LogIt("too early"), QMErrors::InvalidFilename);
  EXPECT_EQ(history.Create(spelling.c_str(), "job", 3), QMErrors::NoError);
  EXPECT_EQ(history.Create("other", "title", 1), QMErrors::NoError);
  EXPECT_EQ(history.GetFilePath(), spelling.c_str());
  clock_.setUtc({2024, 2, 0, 29, 17, 5, 6, 0});
  EXPECT_EQ(HistoryC().Create(path_.c_str(), "title", 1), QMErrors::NoError);
  EXPECT_EQ(readFile(path_), header_);
  for (const char* text : {"1", "2", "3\twith/slashes/", "", "two\r\nlines\n12/34/5\n\n"}) {
    EXPECT_EQ(history.LogIt(text), QMErrors::NoError);
  }
  const std::string stamp = "02/29/2024\t12:05:06\t";
  EXPECT_EQ(readFile(path_),
            header_ + stamp + "3\twith/slashes/\n" + stamp + "\n" + stamp + "two  lines 12/34/5\n");
  EXPECT_EQ(HistoryC(path_, 1).LogIt("last"), QMErrors::NoError);
  EXPECT_EQ(readFile(path_), header_ + stamp + "last\n");
  EXPECT_EQ(HistoryC(path_, 0).LogIt("gone"), QMErrors::NoError);
  EXPECT_EQ(readFile(path_), header_);
  EXPECT_EQ(log_.text(), " ERROR: QMHistoryC::LogIt(): failed writing to: \n");
}

TEST_F(HistoryTest, EnumeratesDataLinesOnly) {
  HistoryC history(path_, 10);
  QMCString line("before");
  Enumerator empty = history.GetEnumerator();
  EXPECT_EQ(empty.NextElement(line), QMErrors::EndOfFileError);
  EXPECT_TRUE(line.IsEmpty());
  for (const std::string& noFile : {folder_.file("none"), folder_.path(), std::string()}) {
    EXPECT_EQ(Enumerator(noFile.c_str()).NextElement(line), QMErrors::EndOfFileError) << noFile;
  }
  EXPECT_FALSE(fs::exists(folder_.file("none")));
  Enumerator unreadable("/proc/self/mem");  // opens, but its beginning cannot be read
  EXPECT_EQ(unreadable.NextElement(line), QMErrors::FailedToReadFromFile);
  EXPECT_EQ(unreadable.NextElement(line), QMErrors::EndOfFileError);

  const std::string longLine = "12/" + std::string(20'000, 'x');
  writeFile(path_, "ab/ first\r\n\ncd/\rxx\n/\n//\n///\n\r12/" + std::string(1, '\0') + "/\n" +
                       longLine + "\n34/end");
  const std::vector<std::string> expected = {"cd/", "///", std::string("12/\0/", 5), longLine,
                                             "34/end"};
  EXPECT_EQ(linesOf(history.GetEnumerator()), expected);
  Enumerator one = history.GetEnumerator();
  EXPECT_EQ(one.NextElement(line), QMErrors::NoError);
  Enumerator two(one), moved(std::move(one));
  fs::remove(path_);
  EXPECT_EQ(linesOf(std::move(moved)).size(), 4u);
  EXPECT_EQ(linesOf(two), linesOf(two)) << "a copy goes on by itself";
  EXPECT_EQ(one.NextElement(line), QMErrors::EndOfFileError);
}

TEST_F(HistoryTest, NoticesWhatOthersDoToTheFile) {
  const std::string page(4096 - 22, 'h');
  const std::string sameSize = "11/\n11/\n11/\n" + std::string(2 * a_.size() - 12, '-');
  // Three lines at most; a and b are there, and after the change c is added.
  const struct {
    const char* what;
    std::function<void()> change;
    std::string expected;
  } kCases[] = {
      {"nothing", [] {}, header_ + a_ + b_ + c_},
      {"another object's line", [&] { HistoryC(path_, 9).LogIt("d"); }, header_ + b_ + d_ + c_},
      {"another object's limit", [&] { HistoryC(path_, 1).LogIt("d"); }, header_ + d_ + c_},
      {"rewritten", [&] { writeFile(path_, header_ + d_ + d_ + d_ + d_ + b_); },
       header_ + d_ + b_ + c_},
      {"rewritten in the same size",
       [&] {
         writeFile(path_, header_ + sameSize);
         fs::last_write_time(path_, fs::last_write_time(path_) + std::chrono::seconds(1));
       },
       header_ + sameSize.substr(4) + "\n" + c_},
      {"replaced",
       [&] {
         writeFile(temporary_, "x\n" + d_ + d_ + d_);
         fs::rename(temporary_, path_);
       },
       "x\n" + d_ + d_ + c_},
      {"deleted", [&] { fs::remove(path_); }, header_ + c_},
      {"emptied", [&] { writeFile(path_, ""); }, header_ + c_},
      {"no last line end", [&] { writeFile(path_, header_ + "11/x"); }, header_ + "11/x\n" + c_},
      {"no line end at all", [&] { writeFile(path_, "12/"); }, "12/\n" + c_},
      // Where the system ends a write whose program is killed, a part of a line goes.
      {"killed in a write", [&] { writeFile(path_, page + "\n11/06/2006\t09:03:07\tx"); },
       page + "\n" + c_},
      {"a full page by hand", [&] { writeFile(path_, page + "\n11/06/2006 09:03:07\tx"); },
       page + "\n11/06/2006 09:03:07\tx\n" + c_},
  };
  for (const auto& [what, change, expected] : kCases) {
    fs::remove(path_);
    HistoryC history(path_, 3);
    EXPECT_EQ(history.LogIt("a"), QMErrors::NoError);
    EXPECT_EQ(history.LogIt("b"), QMErrors::NoError);
    change();
    EXPECT_EQ(history.LogIt("c"), QMErrors::NoError) << what;
    EXPECT_EQ(readFile(path_), expected) << what;
  }
  EXPECT_EQ(log_.text(), "");
}

TEST_F(HistoryTest, SaysWhatFailsAndLosesNothing) {
  HistoryC nowhere;
  const std::string missing = folder_.file("none/jobs");
  EXPECT_EQ(nowhere.Create(missing.c_str(), nullptr, 3), QMErrors::FailedToOpenFile);
  EXPECT_EQ(nowhere.LogIt("x"), QMErrors::FailedToOpenFile);
  EXPECT_EQ(log_.text(), " WARNING: QMHistoryC::Create(): failed to open file: " + missing +
                             "\n ERROR: QMHistoryC::LogIt(): failed writing to: " + missing + "\n");
  mkfifo(folder_.file("pipe").c_str(), 0600);
  for (const std::string& noFile : {folder_.file("pipe"), folder_.path()}) {
    EXPECT_EQ(HistoryC(noFile, 3).LogIt("x"), QMErrors::FailedToOpenFile) << noFile;
  }
  EXPECT_EQ(HistoryC("/proc/self/mem", 3).LogIt("x"), QMErrors::FailedToWriteToFile);
  EXPECT_TRUE(log_.contains("QMHistoryC::TruncateLog(): Data lines in file: /proc/self/mem"));

  log_.clear();
  HistoryC history(path_, 1);
  EXPECT_EQ(history.LogIt("a"), QMErrors::NoError);
  fs::create_directory(temporary_);
  EXPECT_EQ(history.LogIt("b"), QMErrors::FailedToOpenFile);
  EXPECT_EQ(
      log_.text(),
      " WARNING: QMHistoryC::TruncateLog(): Failed copying data lines from file: " + path_ + "\n");
  EXPECT_EQ(readFile(path_), header_ + a_ + b_);
  fs::remove(temporary_);
  EXPECT_EQ(history.LogIt("c"), QMErrors::NoError);
  EXPECT_EQ(readFile(path_), header_ + c_);
}

TEST_F(HistoryTest, WritersAndReadersWaitForWhoeverWrites) {
  HistoryC history(path_, 3);
  const int other = open(path_.c_str(), O_WRONLY | O_APPEND);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  QMErrorT result = QMErrors::NoError;
  std::thread writer([&] { result = history.LogIt("x"); });
  EXPECT_TRUE(somebodyWaits());
  clock_.advanceMs(10'001);
  writer.join();
  EXPECT_EQ(result, QMErrors::FailedToOpenFile);

  ASSERT_EQ(write(other, "11/06/2006\tone", 14), 14);
  std::vector<std::string> lines;
  std::thread reader([&] { lines = linesOf(history.GetEnumerator()); });
  EXPECT_TRUE(somebodyWaits());
  ASSERT_EQ(write(other, " line\n", 6), 6);
  close(other);
  reader.join();
  EXPECT_EQ(lines, std::vector<std::string>{"11/06/2006\tone line"});

  // A writer that takes half a line back, as no more fits, and another who writes.
  const int full = open(path_.c_str(), O_WRONLY | O_APPEND);
  ASSERT_EQ(flock(full, LOCK_EX), 0);
  const auto size = static_cast<off_t>(fs::file_size(path_));
  ASSERT_EQ(write(full, "11/06/2006\tfailed half", 22), 22);
  std::thread another([&] { lines = linesOf(history.GetEnumerator()); });
  EXPECT_TRUE(somebodyWaits());
  ASSERT_EQ(ftruncate(full, size), 0);
  ASSERT_EQ(write(full, "11/07/2006\tone that is whole\n", 29), 29);
  close(full);
  another.join();
  EXPECT_EQ(lines,
            (std::vector<std::string>{"11/06/2006\tone line", "11/07/2006\tone that is whole"}));
}

/// A copy of the process that ends must not give its parent's lock back.
TEST_F(HistoryTest, ForkedCopiesLeaveTheLockAlone) {
  qm::platform::SharedAppendFile file;
  ASSERT_TRUE(file.lock(path_.c_str()));
  if (const pid_t child = fork(); child == 0) {
    file.unlock();
    _exit(0);
  } else {
    waitpid(child, nullptr, 0);
  }
  const int other = open(path_.c_str(), O_RDONLY);
  EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0);
  file.unlock();
  EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  close(other);
}

TEST_F(HistoryTest, WithoutMemoryNoLineIsLostOrHalf) {
  bool failed = true;
  for (int n = 1; failed; ++n) {
    fs::remove(path_);
    HistoryC history(path_, 1);
    EXPECT_EQ(history.LogIt("a"), QMErrors::NoError);
    QMErrorT logged, read;
    {
      QMCString line;
      qmtest::FailingAllocation nth(n);
      logged = history.LogIt("b");
      read = history.GetEnumerator().NextElement(line);
      failed = nth.hasFailed();
    }
    EXPECT_EQ(logged != QMErrors::NoError || read != QMErrors::NoError, failed) << n;
    const std::string text = readFile(path_);
    const bool written = logged == QMErrors::NoError;
    EXPECT_TRUE(text == header_ + b_ || (!written && text == header_ + a_) ||
                (!written && text == header_ + a_ + b_))
        << n << '\n'
        << text;
  }
}

/// Runs in a process of its own in which no file grows beyond `size`; gives its exit status.
int withFilesUpTo(std::size_t size, const std::function<bool()>& good) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{size, size};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(good() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

// A full disk takes a part of a write, as a limit on the size of files does.
TEST_F(HistoryTest, AFullDiskLosesNothing) {
  const auto log = [this](unsigned maxLines, QMErrorT expected) {
    return
        [=, this] { return HistoryC(path_, maxLines).LogIt(std::string(3000, 'n')) == expected; };
  };
  std::string full = header_, newest;
  for (int i = 0; i < 100; ++i) {
    const std::string line = stamped(std::to_string(i) + std::string(200, '.'));
    full += line;
    if (i >= 90) newest += line;
  }
  writeFile(path_, full);
  EXPECT_EQ(withFilesUpTo(full.size() + 1000, log(1000, QMErrors::FailedToWriteToFile)), 0);
  EXPECT_EQ(readFile(path_), full) << "half a line was left";
  EXPECT_EQ(withFilesUpTo(full.size() / 2, log(99, QMErrors::FailedToWriteToFile)), 0);
  EXPECT_EQ(readFile(path_), full) << "not even the copy fits";
  EXPECT_FALSE(fs::exists(temporary_));
  EXPECT_EQ(withFilesUpTo(full.size() / 2, log(10, QMErrors::FailedToWriteToFile)), 0);
  EXPECT_EQ(readFile(path_), header_ + newest) << "the copy fits, and makes room";
  EXPECT_EQ(withFilesUpTo(full.size() / 2, log(10, QMErrors::NoError)), 0);
  fs::remove(path_);
  const auto create = [this] { return HistoryC().Create(path_.c_str(), "job", 3); };
  EXPECT_EQ(withFilesUpTo(10, [&] { return create() == QMErrors::FailedToWriteToFile; }), 0);
  EXPECT_EQ(HistoryC(path_, 3).LogIt("a"), QMErrors::NoError);
  EXPECT_EQ(readFile(path_), header_ + a_);
}

TEST(History, ThreadsAndObjectsLoseNoLine) {
  qmtest::TempFolder folder;
  HistoryC shared(folder.file("jobs"), 1000), other(folder.file("jobs"), 1000);
  std::vector<std::thread> threads;
  for (HistoryC* history : {&shared, &shared, &other, &other}) {
    threads.emplace_back([history] {
      for (int i = 0; i < 100; ++i) EXPECT_EQ(history->LogIt("x"), QMErrors::NoError);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(linesOf(shared.GetEnumerator()).size(), 400u);
}

/// What programs that may be killed have done, in memory that outlives them.
struct Done {
  static constexpr int kMost = 50'000;
  std::atomic<int> next;
  std::atomic<bool> reported[kMost];
};

std::string textOf(int number) {
  return std::to_string(number) + "\t" + std::string(static_cast<std::size_t>(number % 500), 'p') +
         "!";
}

pid_t startLogging(const std::string& path, unsigned maxLines, Done* done) {
  const pid_t child = fork();
  if (child != 0) return child;
  HistoryC history(path, maxLines);
  for (int number; (number = done->next++) < Done::kMost;) {
    done->reported[number] = history.LogIt(textOf(number)) == QMErrors::NoError;
  }
  _exit(0);
}

class KilledPrograms : public testing::TestWithParam<int> {};

TEST_P(KilledPrograms, TearNoLineAndLoseNone) {
  constexpr int kPrograms = 3, kKills = 150;
  qmtest::TempFolder folder;
  const std::string path = folder.file("jobs");
  auto* const done = static_cast<Done*>(
      mmap(nullptr, sizeof(Done), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t programs[kPrograms] = {};
  for (int i = 0; i < kKills + kPrograms; ++i) {
    pid_t& program = programs[i % kPrograms];
    if (program != 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(3 + i % 5));
      kill(program, SIGKILL);
      waitpid(program, nullptr, 0);
    }
    program = i < kKills && done->next < Done::kMost ? startLogging(path, GetParam(), done) : 0;
  }
  HistoryC last(path, GetParam());
  EXPECT_EQ(last.LogIt("last"), QMErrors::NoError);

  std::vector<std::string> lines = linesOf(last.GetEnumerator());
  EXPECT_LE(lines.size(), static_cast<std::size_t>(GetParam()));
  EXPECT_TRUE(lines.back().ends_with("\tlast"));
  lines.pop_back();
  std::vector<bool> present(Done::kMost);
  for (const std::string& line : lines) {
    const auto number = static_cast<std::size_t>(std::atoi(line.substr(20).c_str()));
    ASSERT_EQ(line.substr(20), textOf(static_cast<int>(number))) << "torn or mixed";
    ASSERT_FALSE(present[number]) << "twice: " << number;
    present[number] = true;
  }
  // Behind a line stand those of higher numbers, and of lower ones that other programs had drawn
  // but not written yet, one each.
  const int numbers = std::min<int>(done->next, Done::kMost);
  const int oldest = std::max(0, numbers - GetParam() + 2 * kPrograms);
  int checked = 0;
  for (int number = oldest; number < numbers; ++number) {
    if (!done->reported[number]) continue;
    EXPECT_TRUE(present[static_cast<std::size_t>(number)]) << "lost: " << number;
    ++checked;
  }
  EXPECT_GT(checked, 10);
  munmap(done, sizeof(Done));
}

// Without a limit, and so that each line takes another one out.
INSTANTIATE_TEST_SUITE_P(Limits, KilledPrograms, testing::Values(1'000'000, 40));

}  // namespace
