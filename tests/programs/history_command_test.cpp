// The test tool's command for histories, as a user calls it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/Program.h"

namespace {

struct Result {
  int status;
  std::string output;
  std::string errors;
};

Result historyCommand(const std::string& arguments) {
  qmtest::Program testtool(TESTTOOL " history " + arguments);
  const int status = testtool.wait();
  return {status, testtool.output(), testtool.errors()};
}

TEST(HistoryCommand, ShowsTheNewestEventsAndTouchesNothing) {
  qmtest::TempFolder folder;
  const std::string file = folder.file("jobs");
  qmtest::writeFile(
      file,
      "0x00000001\nFirst created: (mm/dd/yyyy): 11/07/2006 14:03:07\ndate\ttime\tjob\n"
      "11/07/2006\t14:03:07\tone\r\n11/07/2006\t14:03:08\ttwo\n11/08/2006\tthree");
  const std::string one = "11/07/2006\t14:03:07\tone\n", two = "11/07/2006\t14:03:08\ttwo\n",
                    three = "11/08/2006\tthree\n";
  EXPECT_EQ(historyCommand(file).output, one + two + three);
  EXPECT_EQ(historyCommand("-n 2 " + file).output, two + three);
  EXPECT_EQ(historyCommand(file + " -n 9").output, one + two + three);
  EXPECT_EQ(historyCommand(file + " -n 0").output, "");
  const std::string none = folder.file("none");
  for (const std::string& unreadable : {none, folder.path()}) {
    const Result result = historyCommand(unreadable);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "testtool history: " + unreadable + ": cannot be read\n");
  }
  EXPECT_FALSE(std::filesystem::exists(none));
  const Result failing = historyCommand("/proc/self/mem");
  EXPECT_EQ(failing.status, 1);
  EXPECT_EQ(failing.errors, "testtool history: /proc/self/mem: Failed to read from file: 2056\n");
  EXPECT_EQ(historyCommand(file + " >/dev/full").status, 1);
  for (const char* wrong : {"", "-n", "a b", "a -n -1", "a -n x", "--all a"}) {
    EXPECT_EQ(historyCommand(wrong).status, 2) << wrong;
  }
  EXPECT_TRUE(historyCommand("--help").output.starts_with("usage: testtool history FILE"));
}

}  // namespace
