#include "qmutils/imager/CTPImagerUserC.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/QMErrorC.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/prompt.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

using QMErrors::NoError;
using namespace std::chrono_literals;

/// Collects what the imager says.
class TestImager : public CTPImagerUserC {
 public:
  explicit TestImager(const char* command = FAKE_IMAGER) : CTPImagerUserC(command, "press room") {}
  ~TestImager() override { StopImager(); }

  std::string awaitMessage(std::size_t index) {
    std::unique_lock lock(mutex_);
    news_.wait_for(lock, 30s, [&] { return messages_.size() > index; });
    return messages_.size() > index ? messages_[index] : "nothing";
  }
  std::size_t messageCount() {
    const std::lock_guard guard(mutex_);
    return messages_.size();
  }
  std::atomic<int> deaths{0};

  QMErrors::QMErrorT command(int code, const char* text) {
    QMErrors::QMMessagePacketT packet;
    packet.nType = 3;
    packet.nCode = code;
    packet.pString = const_cast<char*>(text);
    return SendMessage(packet);
  }

 protected:
  QMErrors::QMErrorT HandleImagerMessage(QMErrors::QMMessagePacketT& packet) override {
    const std::lock_guard guard(mutex_);
    messages_.push_back(std::to_string(packet.nType) + ":" + std::to_string(packet.nCode) + ":" +
                        packet.pString);
    news_.notify_all();
    return NoError;
  }
  void HandleImagerError(const char*) override { ++deaths; }

 private:
  std::mutex mutex_;
  std::condition_variable news_;
  std::vector<std::string> messages_;
};

/// Makes a call while a fake clock runs on, which gives how long the call took by that clock.
std::chrono::nanoseconds durationOf(const auto& call) {
  qmtest::FakeClock clock;
  std::atomic<bool> stop{false};
  std::thread runner([&] {
    for (; !stop; std::this_thread::sleep_for(1ms)) clock.advanceMs(250);
  });
  const auto before = clock.monotonicNanoseconds();
  call();
  const auto after = clock.monotonicNanoseconds();
  stop = true;
  runner.join();
  return std::chrono::nanoseconds(after - before);
}

std::string stackText() {
  const std::unique_ptr<char[]> text(QMErrorC::GetStack()->ToString(false, true));
  return text == nullptr ? "" : text.get();
}

/// Both parts are in what is on the error stack, which is taken from it.
testing::AssertionResult isOnStack(const std::string& part, const std::string& other = "") {
  const std::string all = stackText();
  const auto holds = [&](const std::string& text) { return all.find(text) != std::string::npos; };
  return holds(part) && holds(other) ? testing::AssertionSuccess()
                                     : testing::AssertionFailure() << "on the stack: " << all;
}

class CTPImagerUser : public testing::Test {
 protected:
  CTPImagerUser() {
    setenv("QMUTILS_OBJECT_PREFIX", ("qmtest-imager-" + std::to_string(getpid())).c_str(), 1);
    QMErrorC::ClearStack();
  }
  ~CTPImagerUser() override { qm::platform::setPromptHook(nullptr); }

  static QMErrors::QMErrorT start(TestImager& imager, const char* profile) {
    CTPImagerUserC::ImagerStartDataC data("first", profile, 11, 12, 0);
    return imager.StartImager(data);
  }

  qmtest::LogCapture log_;
};

TEST_F(CTPImagerUser, StartsTalksAndStops) {
  TestImager imager;
  EXPECT_EQ(imager.StopImager(), NoError) << "nothing to stop";
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(start(imager, "normal"), NoError) << stackText();
    EXPECT_TRUE(log_.contains(std::string(" INFO: CTPImagerUserC::StartImager(): About to launch "
                                          "process: ") +
                              FAKE_IMAGER + " -pid 11 -id 12 -nip -pr \"normal\"\n"));
    log_.clear();
    EXPECT_EQ(start(imager, "normal"), NoError) << "a second start finds the imager";
    EXPECT_FALSE(log_.contains("About to launch"));
    const std::size_t first = round * 3u;
    EXPECT_EQ(imager.awaitMessage(first), "7:194:press room");
    EXPECT_EQ(imager.command(97, "text"), NoError);
    EXPECT_EQ(imager.awaitMessage(first + 1), "7:97:text");
    EXPECT_EQ(imager.ReplyCopyInfo(12, 3, 5), NoError);
    EXPECT_EQ(imager.awaitMessage(first + 2), "7:144:12/17") << "the separator parts the text";
    EXPECT_EQ(imager.command(97, std::string(300, 'x').c_str()), QMErrors::BufferHasOverflowed);
    EXPECT_EQ(imager.StopImager(), NoError);
    EXPECT_TRUE(
        log_.contains(" INFO: CTPImagerUserC::StopImager(): Imager Thread signalled so "
                      "process has died\n"));
    EXPECT_EQ(imager.messageCount(), first + 3) << "late progress and errors are dropped";
    EXPECT_TRUE(
        log_.contains(" WARNING: CTPImagerUser::run(): m_bStoppingImager defined ignoring:"
                      "1;1;12;0;late progress;\n"));
  }
  ASSERT_EQ(start(imager, "normal"), NoError);
  EXPECT_EQ(QMThreadC::stopAll(), NoError);
  EXPECT_EQ(imager.StopImager(), NoError) << "also when all threads were stopped before";
  EXPECT_EQ(imager.deaths, 0);
  EXPECT_TRUE(QMErrorC::IsEmpty()) << stackText();
}

TEST_F(CTPImagerUser, AStartThatFailsIsReported) {
  TestImager missing("no/such/imager");
  EXPECT_EQ(start(missing, "normal"), QMErrors::ErrorUnableToCreateProcess);
  EXPECT_TRUE(isOnStack("Error Unable To Create Process: 2039, in FUNCTION: ",
                        " REASON: While creating process: Error: 2 (0x2) "));
  char text[16];
  EXPECT_EQ(SvReceiveMessage(text, sizeof text, 0), QMErrors::CommandAborted) << "pool not left";

  TestImager imager;
  EXPECT_EQ(start(imager, "dead"), QMErrors::ImagerHasDied);
  EXPECT_EQ(imager.deaths, 1);
  EXPECT_TRUE(imager.HasImagerDied());
  EXPECT_TRUE(isOnStack("The process has died: 2999", "REASON: While waiting for imager to start"));
  EXPECT_EQ(imager.StopImager(), NoError);
  EXPECT_EQ(start(imager, "normal"), NoError);
}

TEST_F(CTPImagerUser, AnImagerKilledWhileRunningIsReportedOnceAndNothingSpins) {
  TestImager imager;
  ASSERT_EQ(start(imager, "normal"), NoError);
  EXPECT_EQ(imager.awaitMessage(0), "7:194:press room");
  EXPECT_EQ(imager.command(98, ""), NoError);
  for (int i = 0; i < 30000 && imager.deaths == 0; ++i) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(imager.deaths, 1);
  EXPECT_EQ(imager.messageCount(), 21u) << "its last words come before the report of its end";
  const std::clock_t before = std::clock();  // of the processor
  std::this_thread::sleep_for(300ms);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);
  EXPECT_EQ(imager.deaths, 1);
  EXPECT_TRUE(log_.contains(std::string(" ERROR: CTPImagerUser::run(): ") + FAKE_IMAGER));
  EXPECT_EQ(start(imager, "normal"), NoError) << "as long as the dead imager is held";
  EXPECT_TRUE(imager.HasImagerDied());
  EXPECT_EQ(imager.StopImager(), NoError);
  ASSERT_EQ(start(imager, "normal"), NoError);
  EXPECT_FALSE(imager.HasImagerDied());
  EXPECT_EQ(imager.command(97, "alive"), NoError);
}

TEST_F(CTPImagerUser, AnImagerThatNeverReportsIsStoppedAfterAMinute) {
  TestImager imager;
  EXPECT_GE(durationOf([&] { EXPECT_EQ(start(imager, "silent"), QMErrors::CommandTimedOut); }),
            60s);
  EXPECT_TRUE(isOnStack("REASON: While waiting for imager to start"));
  EXPECT_EQ(imager.deaths, 0);
  EXPECT_EQ(start(imager, "normal"), NoError);
}

TEST_F(CTPImagerUser, AStartIsGivenUpWhenTheThreadIsToldToStop) {
  TestImager imager;
  std::thread impatient([&] {
    while (!imager.IsAlive()) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(imager.stop(), NoError);
  });
  EXPECT_EQ(start(imager, "silent"), QMErrors::TheWaitWasForcedToExit);
  impatient.join();
  EXPECT_EQ(start(imager, "normal"), NoError) << "the silent imager is gone";
}

std::vector<std::string> questions;

TEST_F(CTPImagerUser, TheOperatorDecidesAboutAnImagerThatDoesNotStop) {
  questions.clear();
  qm::platform::setPromptHook([](const char* text, const char*, UINT style) -> int {
    EXPECT_EQ(style, UINT{MB_TASKMODAL | MB_YESNO | MB_ICONWARNING});
    questions.push_back(text);
    return questions.size() == 1 ? IDYES : IDNO;
  });
  TestImager imager;
  ASSERT_EQ(start(imager, "deaf"), NoError);
  durationOf([&] { EXPECT_EQ(imager.StopImager(), QMErrors::CommandTimedOut); });
  ASSERT_EQ(questions.size(), 2u);
  EXPECT_EQ(questions[0], std::string("The program ") + FAKE_IMAGER +
                              " did not die in time. It could be it is waiting for user input, do "
                              "you want to continue waiting for the program " +
                              FAKE_IMAGER +
                              " to end?\n \nBy clicking No, an attempt will be made to kill the "
                              "process.");
  EXPECT_TRUE(isOnStack("REASON: timed out waiting for imager to die"));
  EXPECT_EQ(imager.deaths, 0);
  EXPECT_EQ(start(imager, "normal"), NoError);
}

TEST_F(CTPImagerUser, HandsAnExposureOver) {
  TestImager imager;
  ASSERT_EQ(start(imager, "normal"), NoError);
  EXPECT_EQ(imager.awaitMessage(0), "7:194:press room");
  std::ostringstream job;
  std::ostringstream icf;
  ASSERT_EQ(imager.StartExpose(ICFC::ExposeInfoC("/jobs/page 1.tif", 17), job, icf), NoError)
      << stackText();
  EXPECT_EQ(imager.awaitMessage(1), "7:29:-jobid 17 -fl \"/jobs/page 1.tif\"");
  const std::string line = job.str();
  const std::string beginning = "-jobid 17 -fl \"/jobs/page 1.tif\" -pr \"";
  ASSERT_TRUE(line.starts_with(beginning)) << line;
  ASSERT_TRUE(line.ends_with("\"\n")) << line;
  const std::string icfPath = line.substr(beginning.size(), line.size() - beginning.size() - 2);
  EXPECT_NE(icfPath.find("\\Image Control\\job17_"), std::string::npos) << icfPath;
  const std::filesystem::path icfFile = qm::platform::nativePath(icfPath.c_str());
  EXPECT_EQ(qmtest::readFile(icfFile),
            "<ImageControl Version = \"1\" >\r\n"
            " <Job Number = \"17\" File = \"/jobs/page 1.tif\"  />\r\n"
            " <Profile Name = \"normal\"  />\r\n"
            "</ImageControl >\r\n");
  EXPECT_EQ(icf.str(), qmtest::readFile(icfFile));

  // What cannot be described leaves no files. Other tests may use the folder at the same time.
  const auto filesOf = [&](const std::string& job) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(icfFile.parent_path())) {
      count += entry.path().filename().string().starts_with(job);
    }
    return count;
  };
  const int before = filesOf("job17_");
  EXPECT_EQ(imager.StartExpose(ICFC::ExposeInfoC("a\"b.tif", 18), job, icf),
            QMErrors::BadMissingMalformedICFFile);
  EXPECT_TRUE(isOnStack("REASON: From icf.Save()"));
  EXPECT_EQ(filesOf("job18_"), 0);
  // The name of a file that the imager has read may be somebody else's by now.
  std::ostringstream third;
  ASSERT_EQ(imager.StartExpose(ICFC::ExposeInfoC("page.tif", 19), third, icf), NoError);
  EXPECT_EQ(imager.awaitMessage(2), "7:31:-jobid 19 -fl \"page.tif\"");
  const std::string icfName = third.str().substr(third.str().find("-pr \"") + 5);
  const std::filesystem::path others =
      qm::platform::nativePath(icfName.substr(0, icfName.size() - 2).c_str());
  std::this_thread::sleep_for(20ms);  // the times of files are as coarse as the system's ticks
  qmtest::writeFile(others, "of another client");

  EXPECT_EQ(imager.StopImager(), NoError);
  EXPECT_TRUE(std::filesystem::remove(others));
  EXPECT_EQ(filesOf("job17_"), before - 1)
      << "a file that the imager did not read goes with the imager";
}

TEST(ICFC, ProfilesAreANameAndSettings) {
  const struct {
    const char *profile, *element;  // null: refused
  } kCases[] = {
      {"", "<Profile Name = \"\"  />"},
      {nullptr, "<Profile Name = \"\"  />"},
      {" Fine ; A=1 ;; B = x=y ;", "<Profile Name = \"Fine\" A = \"1\" B = \"x=y\"  />"},
      {"x;no setting", nullptr},
      {"x;=1", nullptr},
      {"x;<a>=1", nullptr},
      {"x;a=\"", nullptr},
  };
  for (const auto& c : kCases) {
    QMXmlC root(ICFC::kRootName, 0, nullptr);
    EXPECT_EQ(ICFC(c.profile).ToXML(root, ICFC::ExposeInfoC("p", 1)),
              c.element != nullptr ? NoError : QMErrors::BadMissingMalformedICFFile);
    std::ostringstream text;
    root.ToStream(text, 0);
    EXPECT_TRUE(c.element == nullptr || text.str().find(c.element) != std::string::npos)
        << text.str();
  }
}

}  // namespace
