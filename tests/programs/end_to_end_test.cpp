// The two programs as a user runs them: real processes, signals, files.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "programs/imager/PageReader.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/imager/ICFC.h"
#include "tests/programs/Pages.h"
#include "tests/support/Program.h"
#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using qmtest::await;
using qmtest::isRunning;
using qmtest::Program;

using Names = std::vector<std::string>;

const std::string kTestTool = TESTTOOL " ";
const std::string kImager = IMAGER " ";

testing::AssertionResult has(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << '"' << part << "\" is not in \"" << text << '"';
}

/// Gives each test pool objects and an output folder of its own, and demands that no object of the
/// pool is left.
class Programs : public testing::Test {
 protected:
  Programs() { setenv("QMUTILS_OBJECT_PREFIX", prefix_.c_str(), 1); }
  ~Programs() override {
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
      EXPECT_FALSE(entry.path().filename().string().starts_with(prefix_)) << entry.path();
    }
  }

  /// Exposes into the output folder, on a small drum unless the options say otherwise.
  std::string expose(const std::string& more) const {
    return kTestTool + "expose --output " + output_ + " --drum-width 20 --drum-height 20 " + more;
  }

  /// What the test tool prints when it is called so and succeeds.
  static std::string outputOf(const std::string& arguments) {
    Program testtool(kTestTool + arguments);
    EXPECT_EQ(testtool.wait(), 0) << testtool.errors();
    return testtool.output();
  }

  std::string makePage(const std::string& name, unsigned width = 60) {
    qmtest::writeTiff(folder_.file(name), qmtest::randomBitmap(width, 40, random_));
    return folder_.file(name);
  }

  /// What was written beside the log.
  Names pictures() const {
    Names names;
    for (const auto& entry : fs::directory_iterator(output_)) {
      if (entry.path().extension() != ".log") names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  /// Waits until a picture in the folder is being written.
  static bool awaitPicture(const std::string& folder, const std::string& name) {
    return await([&] {
      std::error_code notYetThere;
      for (const auto& entry : fs::directory_iterator(folder, notYetThere)) {
        const std::string file = entry.path().filename().string();
        if (file.starts_with(name + ".") && file.ends_with(".tmp")) return true;
      }
      return false;
    });
  }

  /// The imager of a test tool that has begun to expose the page "slow"; 0 when it does not.
  pid_t imagerAtWork(const Program& testtool) const {
    const bool begun = awaitPicture(output_, "slow-1.png");
    EXPECT_TRUE(begun) << testtool.output() << testtool.errors();
    return begun ? testtool.child() : 0;
  }

  const std::string prefix_ = "qmtest-programs-" + std::to_string(getpid()) + "-";
  qmtest::TempFolder folder_;
  const std::string output_ = folder_.file("out");
  std::mt19937 random_{7};
};

TEST_F(Programs, TheSamplePageIsOnThePlate) {
  Program testtool(kTestTool + "expose --drum-width 130 --drum-height 170 --output " + output_ +
                   " " + SAMPLE_PAGE);
  ASSERT_EQ(testtool.wait(), 0) << testtool.output() << testtool.errors();
  EXPECT_TRUE(has(testtool.output(), "] 100 %  8031/8031 lines\n"));
  EXPECT_TRUE(has(testtool.output(), "page.tif  done: " + output_ + "/page-1.png\n"));
  EXPECT_EQ(pictures(), (Names{"page-1-preview.png", "page-1.png"}));
  programs::PageReader page;
  ASSERT_FALSE(page.open(SAMPLE_PAGE));
  const qmtest::Picture plate = qmtest::readPng(output_ + "/page-1.png");
  ASSERT_EQ(plate.width, 6142u) << "130 mm at 1200 dpi";
  ASSERT_EQ(plate.height, 8031u);
  const unsigned left = (plate.width - page.width()) / 2;
  const unsigned top = (plate.height - page.height()) / 2;
  for (unsigned y = 0; y < plate.height; ++y) {
    std::vector<std::uint8_t> line(page.width() / 8 + 1);
    const bool onPage = y - top < page.height();
    ASSERT_FALSE(onPage && page.readLine(line));
    for (unsigned x = 0; x < plate.width; ++x) {
      const unsigned at = x - left;  // wraps around on the left
      const bool burnt = at < page.width() && (line[at / 8] & (0x80u >> (at % 8))) != 0;
      ASSERT_EQ(plate.burntAt(x, y), burnt) << x << ", " << y;
    }
  }
}

TEST_F(Programs, APageThatFailsDoesNotKeepTheOthersBack) {
  makePage("one.tif");
  makePage("-two; the \xC3\xA4 page.tif");
  makePage(std::string(200, 'n') + ".tif");
  makePage("large.tif", 300);
  makePage("damaged.tif");
  fs::resize_file(folder_.file("damaged.tif"), 100);
  const std::string in = folder_.path() + "/";
  Program testtool(expose("'" + folder_.path() + "\\one.tif' " + in + "missing.tif " + in +
                          "damaged.tif " + in + "large.tif -- " + in + "-two* " + in + "nnn*"));
  EXPECT_EQ(testtool.wait(), 1) << testtool.errors();
  for (const char* line :
       {"one.tif  done: ", "missing.tif  Unable to find file: 1014 (", "\ndamaged.tif  ",
        ": 2003 (",
        "large.tif  Image is too big to fit on the plate: 33327 (the page has 300 x 40 pixels, the "
        "drum 79 x 79)\n",
        "-two; the \xC3\xA4 page.tif  done: "}) {
    EXPECT_TRUE(has(testtool.output(), line));
  }
  EXPECT_EQ(pictures().size(), 6u) << "three plates and their previews";
  for (const std::string& name : {std::string("one-1"), std::string("-two_ the \xC3\xA4 page-5"),
                                  std::string(80, 'n') + "-6"}) {
    EXPECT_TRUE(fs::exists(output_ + "/" + name + ".png")) << name;
  }
}

TEST_F(Programs, OptionsBecomeSettings) {
  const std::string log = folder_.file("own.log");
  Program testtool(expose(
      "--speed 5 --resolution 100 --left 1 --top 2.5 --clip-color 1 --clip-top 5 --clip-left 3 "
      "--clip-bottom 6 --clip-right 4 --speed 9999 --log " +
      log + " " + makePage("page.tif")));
  ASSERT_EQ(testtool.wait(), 0) << testtool.output() << testtool.errors();
  EXPECT_TRUE(has(qmtest::readFile(log),
                  "-pr \"Default;OutputFolder=" + output_ + ";DrumWidthMM=20;DrumHeightMM=20;" +
                      "LinesPerSecond=9999;ResolutionDPI=100;PageLeftMM=1;PageTopMM=2.5;" +
                      "ClipColor=1;EnableClipping=1;SlowLeadingLines=5;FastLeadingPixels=3;" +
                      "SlowTrailingLines=6;FastTrailingPixels=4\""));
}

TEST_F(Programs, CtrlCStopsInAnOrderlyWay) {
  const std::string slow = makePage("slow.tif");
  Program testtool(expose("--speed 1 " + slow + " " + slow));
  const pid_t imager = imagerAtWork(testtool);
  testtool.signal(SIGINT);
  EXPECT_EQ(testtool.wait(), 130) << testtool.errors();
  EXPECT_EQ(testtool.output(), "slow.tif  stopped\nslow.tif  not exposed\n");
  EXPECT_FALSE(isRunning(imager));
  EXPECT_TRUE(pictures().empty()) << pictures().front();

  Program betweenPages(expose("$(yes " + slow + " | head -500)"));  // each is done in a moment
  ASSERT_TRUE(betweenPages.awaitText("done: "));
  betweenPages.signal(SIGINT);
  EXPECT_EQ(betweenPages.wait(), 130);
  EXPECT_TRUE(has(betweenPages.output(), "slow.tif  not exposed\n"));

  Program starting(expose("--imager '/bin/sh -c \"exec sleep 600\"' " + slow));
  ASSERT_TRUE(await([&] { return starting.child() != 0; })) << starting.errors();
  const pid_t sleeper = starting.child();
  starting.signal(SIGINT);
  EXPECT_EQ(starting.wait(), 130);
  EXPECT_EQ(starting.errors(), "testtool expose: stopped before the first page\n");
  EXPECT_FALSE(isRunning(sleeper));
}

TEST_F(Programs, AProgramThatDiesIsNoticedByTheOther) {
  const std::string slow = makePage("slow.tif");
  for (const int number : {SIGKILL, SIGTERM}) {
    Program testtool(expose("--speed 1 " + slow + " " + slow));
    ASSERT_EQ(kill(imagerAtWork(testtool), number), 0);
    EXPECT_EQ(testtool.wait(), 1);
    if (number == SIGKILL) {
      EXPECT_EQ(testtool.output(), "slow.tif  Imager has died: 2207\nslow.tif  not exposed\n");
      EXPECT_TRUE(has(testtool.errors(), "The process has died: 2999"));
      fs::remove_all(output_);
    } else {
      EXPECT_TRUE(has(testtool.output(), "slow.tif  Command aborted: 2014 ("));
      EXPECT_TRUE(pictures().empty()) << "asked to terminate, the imager tidies up";
    }
  }
  Program testtool(expose("--speed 1 " + slow));
  const pid_t imager = imagerAtWork(testtool);
  testtool.signal(SIGKILL);
  EXPECT_EQ(testtool.wait(), 128 + SIGKILL);
  EXPECT_TRUE(await([&] { return !isRunning(imager); }));
  EXPECT_TRUE(pictures().empty());

  // Before the imager is up, too.
  const std::string late = folder_.file("late.sh");
  qmtest::writeFile(late, "#!/bin/sh\nsleep 0.3\nexec " IMAGER " \"$@\"\n");
  fs::permissions(late, fs::perms::owner_all);
  Program other(expose("--imager " + late + " " + slow));
  ASSERT_TRUE(await([&] { return other.child() != 0; }));
  const pid_t orphan = other.child();
  other.signal(SIGKILL);
  EXPECT_EQ(other.wait(), 128 + SIGKILL);
  EXPECT_TRUE(await([&] { return !isRunning(orphan); }));
}

TEST_F(Programs, WhatCannotStartIsReported) {
  const std::string page = makePage("page.tif");
  const std::tuple<std::string, int, const char*> cases[] = {
      {expose("--imager /no/imager " + page), 1, "Unable To Create Process: 2039"},
      {expose("--imager /bin/false " + page), 1, "Imager has died: 2207"},
      {expose("--output " + page + "/below " + page), 1, "cannot make "},
      {kTestTool + "error --all >/dev/full", 1, "could not be written"},
      {kTestTool + "log " + folder_.path(), 1, "cannot open "},
      {kTestTool + "log missing", 1, "cannot open missing"},
      {kImager + "-pid 7 -id 0", 2, "usage: "},
      {kImager + "-pid 7 -id 7", 2, "usage: "}};
  for (const auto& [line, status, complaint] : cases) {
    Program program(line);
    EXPECT_EQ(program.wait(), status) << line;
    EXPECT_TRUE(has(program.errors(), complaint));
  }
}

TEST_F(Programs, BadCommandLinesAreRefusedAndHelpIsThere) {
  for (const std::string& line : Names{"",
                                       "nothing",
                                       "error",
                                       "error 12x",
                                       "error 0x-5",
                                       "error 4294967296",
                                       "pool send 0 x",
                                       "pool send 65536 x",
                                       "pool send 7 " + std::string(256, 'x'),
                                       "pool watch",
                                       "log a b",
                                       "log a -n -1",
                                       "log a -n",
                                       "expose ''",
                                       "expose --output '' a.tif",
                                       "expose --output 'a;b' a.tif",
                                       "expose --output 'a ' a.tif",
                                       "expose --speed 1.5 a.tif",
                                       "expose --resolution 9 a.tif",
                                       "expose a.tif --left",
                                       "expose --drum-width nan a.tif",
                                       "expose --new a.tif"}) {
    Program testtool(kTestTool + line);
    EXPECT_EQ(testtool.wait(), 2) << line;
    EXPECT_FALSE(testtool.errors().empty()) << line;
    EXPECT_EQ(testtool.output(), "");
  }
  for (const char* line : {"--help", "expose -h", "log x -h"}) {
    EXPECT_TRUE(outputOf(line).starts_with("usage: testtool ")) << line;
  }
}

TEST_F(Programs, ErrorTellsTheTextsOfCodes) {
  const std::string some = outputOf("error 2013 0x5007 0x20000005 -1");
  EXPECT_TRUE(has(some, "0x000007DD  Command timed out: 2013\n0x00005007  "));
  EXPECT_TRUE(has(some,
                  "\n0x20000005  Error: 5 (0x5) Access is denied.\n"
                  "0xFFFFFFFF  Unrecognised Error Code: -1\n"));
  const std::string all = outputOf("error --all");
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1763);
}

TEST_F(Programs, PoolCommandsTalkToEachOther) {
  Program watch(kTestTool + "pool watch 77");
  ASSERT_TRUE(watch.awaitText("watching 77"));
  outputOf("pool send 77 '3;5;1;2;some text;'");
  EXPECT_TRUE(watch.awaitText("3;5;1;2;some text;\n")) << watch.errors();
  EXPECT_EQ(outputOf("pool show"), "messages: 0\n");
  outputOf("pool send 78 'for <nobody>'");
  outputOf("pool send 79 ''");
  EXPECT_EQ(outputOf("pool show"), "messages: 2\n78: for <nobody>\n79: \n");
  watch.signal(SIGINT);
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_EQ(watch.output(), "3;5;1;2;some text;\n");

  Program closed(kTestTool + "pool watch 76 >&- 2>&-");
  const auto everyone = [] { return outputOf("pool show"); };
  outputOf("pool send 76 x");
  EXPECT_TRUE(await([&] { return everyone() == "messages: 0\n"; })) << "its output went astray";
  closed.signal(SIGINT);
  EXPECT_EQ(closed.wait(), 0);
}

TEST_F(Programs, LogShowsTheLastLines) {
  const auto shown = [&](const std::string& content, const std::string& lines) {
    qmtest::writeFile(folder_.file("app.log"), content);
    return outputOf("log '" + folder_.path() + "\\app.log' --once -n " + lines);
  };
  EXPECT_EQ(shown("", "2"), "");
  EXPECT_EQ(shown("one\ntwo\nthree\n", "2"), "two\nthree\n");
  EXPECT_EQ(shown("one\ntwo\nthree\n", "0"), "");
  EXPECT_EQ(shown("one\ntwo\nthree\n", "9"), "one\ntwo\nthree\n");
  EXPECT_EQ(shown("two\nthree\nno end", "2"), "three\nno end");
}

TEST_F(Programs, LogFollowsAFileThatGrowsIsReplacedOrBegunAnew) {
  const std::string path = folder_.file("app.log");
  const auto replace = [&](const std::string& content) {
    qmtest::writeFile(folder_.file("new"), content);
    fs::rename(folder_.file("new"), path);
  };
  const std::string big = std::string(9000, 'b') + "\n";  // more than is read at once
  qmtest::writeFile(path, "one\ntwo");
  Program log(kTestTool + "log -n 1 " + path);
  ASSERT_TRUE(log.awaitText("two"));
  std::ofstream(path, std::ios::app) << " goes on\n" << big;
  ASSERT_TRUE(log.awaitText(big));
  replace(big + "another that is longer\n");
  ASSERT_TRUE(log.awaitText("that is longer\n"));
  qmtest::writeFile(path, "shorter\n");
  ASSERT_TRUE(log.awaitText("shorter\n"));
  fs::remove(path);
  replace("back again, and longer than before\n");
  ASSERT_TRUE(log.awaitText("longer than before\n"));
  log.signal(SIGINT);
  EXPECT_EQ(log.wait(), 0);
  const std::string mark = "--- the log was begun anew ---\n";
  EXPECT_EQ(log.output(), "two goes on\n" + big + mark + big + "another that is longer\n" + mark +
                              "shorter\n" + mark + "back again, and longer than before\n");
}

/// An imager that the test itself commands, under identifier 77 of the pool.
class ImagerAlone : public Programs {
 protected:
  ImagerAlone() {
    EXPECT_EQ(SvOpenComms(77), QMErrors::NoError);
    imager_.emplace(kImager + "-pid 77 -id 78 -nip");
    EXPECT_EQ(next(), "0;0;78;0;;");
    EXPECT_EQ(next(), "0;194;78;0;;");
  }
  ~ImagerAlone() override {
    imager_.reset();
    std::thread(SvCloseComms).join();  // the pool is locked until the thread that closes it ends
  }

  std::string next() {
    char text[256];
    (void)SvReceiveMessage(text, sizeof text, 20'000);
    return text;
  }
  /// The next message that tells of the end of a job, or of a failure; empty when none comes.
  std::string nextEnd() {
    std::string text = next();
    while (text == "filler" || text.starts_with("1;1;") || text.starts_with("1;2;")) text = next();
    return text;
  }
  void send(const std::string& message) {
    EXPECT_EQ(SvSendMessage(message.c_str(), 2000, 78), QMErrors::NoError);
  }
  /// Commands the exposure of a page with a profile's settings.
  void command(int job, const std::string& page, const std::string& settings) {
    const std::string file = folder_.file("job" + std::to_string(job));
    const std::string profile = "Default;DrumWidthMM=20;DrumHeightMM=20;" + settings;
    EXPECT_EQ(ICFC(profile.c_str()).Save((file + ".icf").c_str(), {"", 0}), QMErrors::NoError);
    qmtest::writeFile(
        file, "-jobid " + std::to_string(job) + " -fl \"" + page + "\" -pr \"" + file + ".icf\"\n");
    send("3;135;77;" + std::to_string(78 + job) + ";" + file + ";");
  }
  /// Fills the pool while job `slow` is on the drum, and waits until the job has ended.
  void fillPoolDuring(int slow, unsigned short destination) {
    const std::string name = "slow-" + std::to_string(slow) + ".png";
    ASSERT_TRUE(awaitPicture(folder_.path(), name));
    while (SvSendMessage("filler", 0, destination) == QMErrors::NoError) continue;
    ASSERT_TRUE(await([&] { return fs::exists(folder_.file(name)); }));
  }

  std::optional<Program> imager_;
};

TEST_F(ImagerAlone, ReportsEachFailureUnderItsJobAndGoesOn) {
  send("3;135;77;81;" + folder_.file("missing") + ";");
  EXPECT_EQ(nextEnd(), "2;1010;78;3;cannot read the job file;missing");
  qmtest::writeFile(folder_.file("bad.icf"), "<Other />");
  qmtest::writeFile(folder_.file("bad"), "-jobid 4 -fl x -pr \"" + folder_.file("bad.icf") + "\"");
  send("3;135;77;82;" + folder_.file("bad") + ";");
  EXPECT_EQ(nextEnd(), "2;2061;78;4;not image control;bad.icf");
  send("3;99;77;83;;");
  EXPECT_EQ(nextEnd(), "2;2067;78;0;unknown message;");
  const std::string page = makePage("slow.tif");
  command(6, page, "OutputFolder=" + page + "/below");
  EXPECT_EQ(nextEnd(), "2;2047;78;6;Error: 3 (0x3) The path cannot be found.;below");
  command(7, page, "OutputFolder=" + folder_.path());
  EXPECT_EQ(nextEnd(), "1;3;78;7;slow-7.png;");
  send("3;5;77;0;;");
  EXPECT_EQ(imager_->wait(), 0);
}

TEST_F(ImagerAlone, TheEndOfAJobIsReportedAlsoWhenThePoolIsFull) {
  const std::string page = makePage("slow.tif");
  const std::string half = "LinesPerSecond=160;OutputFolder=" + folder_.path();  // of a second
  command(1, page, half);
  command(2, folder_.file("missing.tif"), "");
  fillPoolDuring(1, 77);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // a single attempt takes 2000
  EXPECT_EQ(nextEnd(), "1;3;78;1;slow-1.png;");
  EXPECT_EQ(nextEnd(), "2;1014;78;2;no such page;missing.tif");
  command(3, page, half);
  fillPoolDuring(3, 79);
  imager_->signal(SIGTERM);
  EXPECT_EQ(imager_->wait(), 0) << "what nobody takes does not hold the imager";
}

}  // namespace
