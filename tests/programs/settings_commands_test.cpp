// The test tool's commands for settings files and tables of numbers, as a user calls them, and the
// samples of both.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "tests/support/Program.h"

namespace {

const std::string kSamples = SAMPLES "/";

/// Runs the tool; `errors` is a part of what it has to say.
void expectRun(const std::string& arguments, int status, const std::string& output,
               const std::string& errors = "") {
  qmtest::Program testtool(TESTTOOL " " + arguments);
  EXPECT_EQ(testtool.wait(), status) << arguments << testtool.errors();
  EXPECT_EQ(testtool.output(), output) << arguments;
  EXPECT_NE(testtool.errors().find(errors), std::string::npos) << arguments << testtool.errors();
}

TEST(SettingsCommands, IniReadsAndSetsPlainAndEncodedFiles) {
  const qmtest::TempFolder folder;
  const std::string plain = folder.file("plain.ini"), encoded = folder.file("encoded.ini");
  expectRun("ini set " + plain + " '' first 1", 0, "");
  expectRun("ini set " + plain + " 'press room' drum ' 1030 '", 0, "");
  expectRun("encode " + plain + " -o " + encoded, 0, "");
  for (const std::string& file : {plain, encoded}) {
    expectRun("ini set " + file + " other key -- --value", 0, "");
    expectRun("ini get " + file + " 'PRESS ROOM' Drum", 0, " 1030 \n");
    expectRun("ini get " + file + " x y --default 'a b'", 0, "a b\n");
    expectRun("ini list " + file, 0, "first=1\n[press room]\ndrum= 1030 \n[other]\nkey=--value\n");
    expectRun("ini list " + file + " OTHER", 0, "key=--value\n");
    expectRun("ini get " + file + " other none", 1, "", "no key 'none' in section 'other'");
    expectRun("ini set " + file + " other 'a=b' 1", 1, "", "could not be read back: no name");
    expectRun("ini set " + file + " other k 'x\x1b'", 1, "", "control characters");
  }
  std::string changed = qmtest::readFile(encoded);
  changed.back() ^= 1;
  qmtest::writeFile(encoded, changed);
  expectRun("ini set " + encoded + " other key x", 1, "", "Invalid object encoding: 33537\n");
  EXPECT_EQ(qmtest::readFile(encoded), changed);
  for (const std::size_t at : {0, 1}) {  // of the marker
    std::string damaged = changed;
    damaged[at] ^= 1;
    qmtest::writeFile(encoded, damaged);
    expectRun("ini set " + encoded + " other key x", 1, "", "a damaged encoded one");
    EXPECT_EQ(qmtest::readFile(encoded), damaged);
  }
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& file : {folder.path(), pipe, std::string("/dev/zero")}) {
    expectRun("ini list " + file, 1, "", "no regular file");
  }
  expectRun("ini list " + folder.file("none"), 1, "", "there is no such file");
  qmtest::writeFile(plain, "[s]\n");
  chmod(plain.c_str(), 0444);
  expectRun("ini set " + plain + " s k v", 1, "", "Access is denied.");
}

TEST(SettingsCommands, IniListsALargeFileInOneGo) {
  const qmtest::TempFolder folder;
  std::string text;
  for (int i = 0; text.size() < 1'000'000; ++i) text += "key" + std::to_string(i) + "=value\n";
  qmtest::writeFile(folder.file("large.ini"), text);
  expectRun("ini list " + folder.file("large.ini"), 0, text);  // a look-up each would take minutes
}

TEST(SettingsCommands, ConfigReadsAndSetsNumbersAndLosesNoneUnasked) {
  const qmtest::TempFolder folder;
  const std::string file = folder.file("machine.cfg"), changed = "A\t -1.5 2\n\nB 3\nA 0.1 x\n";
  qmtest::writeFile(file, "A 1 2.5e10      \nB 3\nA 0.1 x\n");
  expectRun("config get " + file + " A --all", 0, "1\n0.1\n");
  expectRun("config get " + file + " A 2 --all", 1, "1 2.5e+10\n", "2 numbers were expected");
  expectRun("config get " + file + " C", 1, "", "there is no 'C'");
  expectRun("config set " + file + " A -1.5 2", 0, "");
  EXPECT_EQ(qmtest::readFile(file), changed);
  expectRun("config set " + file + " A -1.5 2", 1, "", "so 'B' behind it would be lost");
  EXPECT_EQ(qmtest::readFile(file), changed);
  expectRun("config set " + file + " A -1.5 2 --force", 0, "");
  expectRun("config set " + file + " C 7", 0, "");
  expectRun("config set " + file + " -- --C 7", 0, "");
  EXPECT_EQ(qmtest::readFile(file), "A\t -1.5 2\n\nA 0.1 x\nC\t 7\n--C\t 7\n");
  const struct {
    std::string text, arguments, complaint;
  } kLosses[] = {
      {std::string("A 1\n\0B 2\n", 9), " C 5", "holds a NUL"},
      {"A 1", " B 5", "the last line has no end"},
      {"A 1 2 3       \n", " A 5", "so '2' would be lost"},
      {"A 1 2 3       \n", " A", "so '1' would be lost"},
  };
  for (const auto& [text, arguments, complaint] : kLosses) {
    qmtest::writeFile(file, text);
    expectRun("config set " + file + arguments, 1, "", complaint);
    EXPECT_EQ(qmtest::readFile(file), text);
    expectRun("config set " + file + arguments + " --force", 0, "");
  }
  chmod(file.c_str(), 0444);
  expectRun("config set " + file + " Z 1", 1, "", "Access is denied.");
  expectRun("config get " + folder.file("none") + " A", 1, "", "Failed to Open File: 1001");
}

TEST(SettingsCommands, RefuseWhatTheyDoNotUnderstand) {
  for (const char* wrong :
       {"ini", "ini get x y", "ini set x y z", "ini list x y z", "ini put x", "ini get x y z --x",
        "ini get x y z --default", "ini list x --default y", "config", "config get x ''",
        "config get x y -1", "config get x y 1 2", "config set x y 1,5", "config set x y nan",
        "config set x y 1 --all", "config put x y", "ini list ''", "config get '' y"}) {
    expectRun(wrong, 2, "", "--help");
  }
}

TEST(SettingsSamples, HoldWhatTheirSourcesSay) {
  const std::string encoded = kSamples + "oemconfig.ini", table = kSamples + "machine.cfg";
  expectRun("decode " + encoded, 0, qmtest::readFile(kSamples + "oemconfig.txt"));
  expectRun("ini get " + encoded + " manufacturer manufacturer", 0, "Northlight Plate Systems\n");
  expectRun("ini get " + encoded + " mail recipients", 0, "support@northlight.example.com\n");
  expectRun("ini get " + encoded + " testtool product_icon", 0, "northlight.ico\n");
  expectRun("config get " + table + " FOCUS 10", 0, "0 -4 -7 -9 -10 -10 -9 -7 -4 0\n");
  expectRun("config get " + table + " POWER_MW 3 --all", 0,
            "110 205.5 290\n108.5 203 287.5\n111 206 291.5\n");
}

}  // namespace
