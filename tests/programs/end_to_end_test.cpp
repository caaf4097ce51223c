// The two programs as a user runs them: real processes, signals, files.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <filesystem>
#include <fstream>

#include "programs/imager/PageReader.h"
#include "qmutils/foundation/QMErrors.h"
#include "tests/programs/Pages.h"
#include "tests/programs/Program.h"
#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using qmtest::await;
using qmtest::Bitmap;
using qmtest::isRunning;
using qmtest::Program;

using Arguments = std::vector<std::string>;

std::size_t burnt(const Bitmap& bitmap) {
  std::size_t count = 0;
  for (const auto& line : bitmap.lines) {
    for (const std::uint8_t byte : line) count += static_cast<std::size_t>(std::popcount(byte));
  }
  return count;
}

Bitmap readPage(const std::string& path) {
  programs::PageReader reader;
  EXPECT_FALSE(reader.open(path));
  Bitmap page{reader.width(), reader.height(), {}};
  for (unsigned y = 0; y < page.height; ++y) {
    EXPECT_FALSE(reader.readLine(page.lines.emplace_back()));
  }
  return page;
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

  /// "expose" into the output folder, on a small drum unless the options say otherwise.
  Arguments expose(const Arguments& more) const {
    Arguments arguments{"expose", "--output", output_, "--drum-width", "20", "--drum-height", "20"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  std::string makePage(const std::string& name, const qmtest::TiffForm& form = {}) {
    const std::string path = folder_.file(name);
    qmtest::writeTiff(path, qmtest::randomBitmap(60, 40, random_), form);
    return path;
  }

  /// What was written beside the log.
  std::vector<std::string> pictures() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(output_)) {
      if (entry.path().extension() != ".log") names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  bool awaitExposure() const {
    return await([&] { return fs::exists(output_ + "/slow-1.png.tmp"); });
  }

  const std::string prefix_ = "qmtest-programs-" + std::to_string(getpid()) + "-";
  qmtest::TempFolder folder_;
  const std::string output_ = folder_.file("out");
  std::mt19937 random_{7};
};

TEST_F(Programs, TheSamplePageIsOnThePlate) {
  Program testtool(TESTTOOL, {"expose", "--output", output_, SAMPLE_PAGE});
  ASSERT_EQ(testtool.wait(), 0) << testtool.output() << testtool.errors();
  EXPECT_NE(testtool.output().find("page.tif  done: " + output_ + "/page-1.png\n"),
            std::string::npos)
      << testtool.output();
  EXPECT_EQ(pictures(), (std::vector<std::string>{"page-1-preview.png", "page-1.png"}));
  const Bitmap page = readPage(SAMPLE_PAGE);
  const Bitmap plate = qmtest::readPng(output_ + "/page-1.png");
  ASSERT_EQ(plate.width, 10866u) << "230 mm at 1200 dpi";
  ASSERT_EQ(plate.height, 15118u);
  EXPECT_GT(burnt(page), 100'000u);
  EXPECT_EQ(burnt(plate), burnt(page));
  const unsigned left = (plate.width - page.width) / 2;
  const unsigned top = (plate.height - page.height) / 2;
  for (unsigned y = 0; y < page.height; ++y) {
    for (unsigned x = 0; x < page.width; ++x) {
      ASSERT_EQ(plate.at(left + x, top + y), page.at(x, y)) << x << ", " << y;
    }
  }
}

TEST_F(Programs, APageThatFailsDoesNotKeepTheOthersBack) {
  makePage("one.tif");
  const std::string odd = makePage("-two; the \xC3\xA4 page.tif");
  const std::string longName = makePage(std::string(200, 'n') + ".tif");
  const std::string large = folder_.file("large.tif");
  qmtest::writeTiff(large, qmtest::randomBitmap(300, 10, random_));
  const std::string damaged = makePage("damaged.tif");
  fs::resize_file(damaged, fs::file_size(damaged) / 2);
  qmtest::writeDeepTiff(folder_.file("grey.tif"), 8, 1);
  Program testtool(TESTTOOL,
                   expose({folder_.path() + "\\one.tif", folder_.file("missing.tif"), damaged,
                           folder_.file("grey.tif"), large, "--", odd, longName}));
  EXPECT_EQ(testtool.wait(), 1) << testtool.errors();
  const std::string output = testtool.output();
  for (const char* line :
       {"one.tif  done: ", "missing.tif  Unable to find file: 1014 (", "\ndamaged.tif  ",
        ": 2003 (", "\ngrey.tif  ", ": 2069 (",
        "large.tif  Image is too big to fit on the plate: 33327 (the page has 300 x 10 pixels, the "
        "drum 79 x 79)\n",
        "-two; the \xC3\xA4 page.tif  done: "}) {
    EXPECT_NE(output.find(line), std::string::npos) << line << " is not in\n" << output;
  }
  EXPECT_EQ(pictures().size(), 6u) << "three plates and their previews";
  EXPECT_TRUE(fs::exists(output_ + "/one-1.png"));
  EXPECT_TRUE(fs::exists(output_ + "/-two_ the \xC3\xA4 page-6.png"));
  EXPECT_TRUE(fs::exists(output_ + "/" + std::string(80, 'n') + "-7.png"));
}

TEST_F(Programs, SettingsReachTheDrum) {
  const std::string page = makePage("page.tif");
  Program testtool(TESTTOOL, expose({"--resolution", "100", "--left", "0", "--top", "0",
                                     "--clip-top", "5", "--clip-left", "3", "--clip-color", "1",
                                     "--log", folder_.file("own.log"), page}));
  ASSERT_EQ(testtool.wait(), 0) << testtool.output() << testtool.errors();
  const Bitmap drawn = readPage(page);
  const Bitmap plate = qmtest::readPng(output_ + "/page-1.png");
  ASSERT_EQ(plate.width, 79u);
  ASSERT_EQ(plate.height, 79u);
  for (unsigned y = 0; y < plate.height; ++y) {
    for (unsigned x = 0; x < plate.width; ++x) {
      const bool clipped = y < 5 || x < 3;
      EXPECT_EQ(plate.at(x, y), clipped || (x < 60 && y < 40 && drawn.at(x, y))) << x << ", " << y;
    }
  }
  EXPECT_NE(qmtest::readFile(folder_.file("own.log")).find("StartImager()"), std::string::npos);
}

TEST_F(Programs, CtrlCStopsAnExposureInAnOrderlyWay) {
  const std::string slow = makePage("slow.tif");
  for (const char* linesPerSecond : {"1", "40"}) {
    Program testtool(TESTTOOL, expose({"--speed", linesPerSecond, slow, slow}));
    ASSERT_TRUE(awaitExposure()) << testtool.output() << testtool.errors();
    const pid_t imager = testtool.child();
    ASSERT_NE(imager, 0);
    const auto before = std::chrono::steady_clock::now();
    testtool.signal(SIGINT);
    EXPECT_EQ(testtool.wait(), 130) << testtool.output() << testtool.errors();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(15));
    EXPECT_EQ(testtool.output(), "slow.tif  stopped\nslow.tif  not exposed\n");
    EXPECT_FALSE(isRunning(imager));
    EXPECT_TRUE(pictures().empty()) << pictures().front();
  }
}

TEST_F(Programs, CtrlCEndsTheWaitForAnImagerThatDoesNotComeUp) {
  const std::string silent = folder_.file("silent");
  std::ofstream(silent) << "#!/bin/sh\nexec sleep 600\n";
  fs::permissions(silent, fs::perms::owner_all);
  Program testtool(TESTTOOL, expose({"--imager", silent, makePage("page.tif")}));
  ASSERT_TRUE(await([&] { return testtool.child() != 0; })) << testtool.errors();
  const pid_t imager = testtool.child();
  testtool.signal(SIGINT);
  EXPECT_EQ(testtool.wait(), 130);
  EXPECT_EQ(testtool.errors(), "testtool expose: stopped before the first page\n");
  EXPECT_FALSE(isRunning(imager));
}

TEST_F(Programs, AnImagerThatDiesIsReported) {
  const std::string slow = makePage("slow.tif");
  for (const int number : {SIGKILL, SIGTERM}) {
    Program testtool(TESTTOOL, expose({"--speed", "1", slow, slow}));
    ASSERT_TRUE(awaitExposure()) << testtool.output() << testtool.errors();
    const pid_t imager = testtool.child();
    ASSERT_NE(imager, 0);
    ASSERT_EQ(kill(imager, number), 0);
    EXPECT_EQ(testtool.wait(), 1);
    if (number == SIGKILL) {
      EXPECT_EQ(testtool.output(), "slow.tif  Imager has died: 2207\nslow.tif  not exposed\n");
      EXPECT_NE(testtool.errors().find("The process has died: 2999"), std::string::npos)
          << testtool.errors();
      fs::remove_all(output_);
    } else {
      EXPECT_TRUE(pictures().empty()) << "asked to terminate, the imager tidies up";
    }
  }
}

TEST_F(Programs, AnImagerWithoutItsControlProgramEnds) {
  const std::string slow = makePage("slow.tif");
  Program testtool(TESTTOOL, expose({"--speed", "1", slow}));
  ASSERT_TRUE(awaitExposure()) << testtool.output() << testtool.errors();
  const pid_t imager = testtool.child();
  ASSERT_NE(imager, 0);
  testtool.signal(SIGKILL);
  EXPECT_EQ(testtool.wait(), 128 + SIGKILL);
  EXPECT_TRUE(await([&] { return !isRunning(imager); }));
  EXPECT_TRUE(pictures().empty());
}

TEST_F(Programs, WhatCannotStartIsReported) {
  const std::string page = makePage("page.tif");
  Program noImager(TESTTOOL, expose({"--imager", folder_.file("no imager"), page}));
  EXPECT_EQ(noImager.wait(), 1);
  EXPECT_NE(noImager.errors().find("Error Unable To Create Process: 2039"), std::string::npos);
  Program notOne(TESTTOOL, expose({"--imager", "/bin/false", page}));
  EXPECT_EQ(notOne.wait(), 1);
  EXPECT_NE(notOne.errors().find("Imager has died: 2207"), std::string::npos) << notOne.errors();
  Program noFolder(TESTTOOL, {"expose", "--output", page + "/below/a/file", page});
  EXPECT_EQ(noFolder.wait(), 1);
  EXPECT_NE(noFolder.errors().find("cannot make " + page + "/below/a/file"), std::string::npos);
  Program byHand(IMAGER, {"-pid", "7", "-id", "0"});
  EXPECT_EQ(byHand.wait(), 2);
}

TEST_F(Programs, BadCommandLinesAreRefusedAndHelpIsThere) {
  const Arguments bad[] = {
      {},
      {"nothing"},
      {"error"},
      {"error", "12x"},
      {"error", "0x-5"},
      {"error", "4294967296"},
      {"pool"},
      {"pool", "send", "0", "x"},
      {"pool", "send", "65536", "x"},
      {"pool", "send", "7", std::string(256, 'x')},
      {"pool", "watch"},
      {"log"},
      {"log", "a", "b"},
      {"log", "a", "-n", "-1"},
      {"log", "a", "-n"},
      {"expose"},
      {"expose", ""},
      {"expose", "--output", "", "a.tif"},
      {"expose", "--output", "a;b", "a.tif"},
      {"expose", "--speed", "fast", "a.tif"},
      {"expose", "--speed", "1.5", "a.tif"},
      {"expose", "--resolution", "9", "a.tif"},
      {"expose", "--drum-width", "nan", "a.tif"},
      {"expose", "--new", "a.tif"},
      {"expose", "a.tif", "--left"},
  };
  for (const Arguments& arguments : bad) {
    Program testtool(TESTTOOL, arguments);
    EXPECT_EQ(testtool.wait(), 2) << testing::PrintToString(arguments);
    EXPECT_FALSE(testtool.errors().empty()) << testing::PrintToString(arguments);
    EXPECT_EQ(testtool.output(), "");
  }
  const Arguments help[] = {{"--help"},
                            {"expose", "--help"},
                            {"error", "-h"},
                            {"pool", "--help"},
                            {"log", "x", "--help"}};
  for (const Arguments& arguments : help) {
    Program testtool(TESTTOOL, arguments);
    EXPECT_EQ(testtool.wait(), 0);
    EXPECT_TRUE(testtool.output().starts_with("usage: testtool ")) << testtool.output();
  }
  Program imager(IMAGER, {"--help"});
  EXPECT_EQ(imager.wait(), 0);
  EXPECT_TRUE(imager.output().starts_with("usage: imager "));
}

struct Row {
  int code;
  const char* message;
};

constexpr Row kCatalogue[] = {
#define QM_ERROR_ROW(code, identifier, message) {code, message},
#include "qmutils/foundation/QMErrorCatalogue.inc"
#undef QM_ERROR_ROW
};

TEST_F(Programs, ErrorTellsTheTextsOfCodes) {
  Program some(TESTTOOL, {"error", "2013", "0x5007", "0x20000005", "-1"});
  EXPECT_EQ(some.wait(), 0);
  EXPECT_EQ(some.output(),
            "0x000007DD  Command timed out: 2013\n"
            "0x00005007  " +
                std::string(QMErrToStr(static_cast<QMErrors::QMErrorT>(0x5007))) +
                "\n0x20000005  Error: 5 (0x5) Access is denied.\n"
                "0xFFFFFFFF  Unrecognised Error Code: -1\n");
  Program all(TESTTOOL, {"error", "--all"});
  EXPECT_EQ(all.wait(), 0);
  EXPECT_EQ(std::size(kCatalogue), 1763u);
  std::string expected;
  for (const Row& row : kCatalogue) {
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X  ", static_cast<unsigned>(row.code));
    expected += number + std::string(row.message) + ": " + std::to_string(row.code) + "\n";
  }
  EXPECT_TRUE(all.output() == expected) << all.output().substr(0, 500);
  Program full(TESTTOOL, {"error", "--all"}, "/dev/full");
  EXPECT_EQ(full.wait(), 1);
  EXPECT_NE(full.errors().find("could not be written"), std::string::npos);
}

TEST_F(Programs, PoolCommandsTalkToEachOther) {
  Program watch(TESTTOOL, {"pool", "watch", "77"});
  ASSERT_TRUE(watch.awaitErrors("watching 77"));
  Program send(TESTTOOL, {"pool", "send", "77", "3;5;1;2;some text;"});
  EXPECT_EQ(send.wait(), 0) << send.errors();
  EXPECT_TRUE(watch.awaitOutput("3;5;1;2;some text;\n")) << watch.errors();
  Program empty(TESTTOOL, {"pool", "show"});
  EXPECT_EQ(empty.wait(), 0) << empty.errors();
  EXPECT_NE(empty.output().find("nMessages:     0"), std::string::npos) << empty.output();
  EXPECT_EQ(empty.output().find("DestID"), std::string::npos) << empty.output();
  Program wait(TESTTOOL, {"pool", "send", "78", "for nobody"});
  EXPECT_EQ(wait.wait(), 0) << wait.errors();
  Program show(TESTTOOL, {"pool", "show"});
  EXPECT_EQ(show.wait(), 0) << show.errors();
  EXPECT_NE(show.output().find("DestID=78,"), std::string::npos) << show.output();
  EXPECT_NE(show.output().find("for nobody"), std::string::npos) << show.output();
  watch.signal(SIGINT);
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_EQ(watch.output(), "3;5;1;2;some text;\n");
}

void append(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::app | std::ios::binary) << text;
}

TEST_F(Programs, LogShowsTheLastLines) {
  const std::string path = folder_.file("app.log");
  const auto shown = [&](const char* lines) {
    Program log(TESTTOOL, {"log", folder_.path() + "\\app.log", "--once", "-n", lines});
    EXPECT_EQ(log.wait(), 0) << log.errors();
    return log.output();
  };
  qmtest::writeFile(path, "");
  EXPECT_EQ(shown("2"), "");
  qmtest::writeFile(path, "one\ntwo\nthree\n");
  EXPECT_EQ(shown("2"), "two\nthree\n");
  EXPECT_EQ(shown("0"), "");
  EXPECT_EQ(shown("9"), "one\ntwo\nthree\n");
  append(path, "no end");
  EXPECT_EQ(shown("2"), "three\nno end");
  for (const std::string& name : {folder_.file("missing"), folder_.path()}) {
    Program log(TESTTOOL, {"log", name});
    EXPECT_EQ(log.wait(), 1);
    EXPECT_NE(log.errors().find("cannot open " + name), std::string::npos);
  }
}

TEST_F(Programs, LogFollowsAFileThatGrowsIsReplacedOrBegunAnew) {
  const std::string path = folder_.file("app.log");
  qmtest::writeFile(path, "one\ntwo");
  Program log(TESTTOOL, {"log", path, "-n", "1"});
  ASSERT_TRUE(log.awaitOutput("two"));
  append(path, " goes on\nthree\n");
  ASSERT_TRUE(log.awaitOutput("three\n"));
  qmtest::writeFile(folder_.file("new"), "a new file that is longer than the old one\n");
  fs::rename(folder_.file("new"), path);
  ASSERT_TRUE(log.awaitOutput("than the old one\n"));
  qmtest::writeFile(path, "shorter\n");
  ASSERT_TRUE(log.awaitOutput("shorter\n"));
  fs::remove(path);
  qmtest::writeFile(folder_.file("new"), "back again, and longer than before\n");
  fs::rename(folder_.file("new"), path);
  ASSERT_TRUE(log.awaitOutput("longer than before\n"));
  log.signal(SIGINT);
  EXPECT_EQ(log.wait(), 0);
  const std::string mark = "--- the log was begun anew ---\n";
  EXPECT_EQ(log.output(), "two goes on\nthree\n" + mark +
                              "a new file that is longer than the old one\n" + mark + "shorter\n" +
                              mark + "back again, and longer than before\n");
}

}  // namespace
