#include "qmutils/platform/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <thread>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {
namespace {

TEST(Error, EachNumberThatTheLibraryCanMeetHasASentence) {
  const std::set<DWORD> met = {0,    2,    3,    4,     5,     6,     8,     18,    31,    32,
                               50,   80,   87,   112,   123,   126,   127,   145,   161,   183,
                               193,  206,  234,  258,   259,   267,   288,   298,   995,   997,
                               1018, 1400, 1705, 10004, 10013, 10022, 11001, 11002, 11003, 11004};
  for (DWORD number = 0; number <= 12'000; ++number) {
    const std::string_view text = errorSentence(number);
    const bool isMet = met.contains(number) || (number >= 10035 && number <= 10065);
    EXPECT_FALSE(isMet && text.empty()) << number;
    EXPECT_TRUE(text.empty() || text.back() == '.') << number;
    EXPECT_EQ(text.find_first_of("\r\n%"), text.npos) << number;
  }
  for (DWORD number : {40u, 9999u, 65535u, 0xFFFFFFFFu}) {
    EXPECT_TRUE(errorSentence(number).empty()) << number;
  }
}

TEST(Error, EveryErrnoBecomesAKnownNumber) {
  EXPECT_EQ(lastErrorFromErrno(0), ERROR_SUCCESS);
  for (int value = 1; value < 200; ++value) {
    const DWORD number = lastErrorFromErrno(value);
    EXPECT_NE(number, ERROR_SUCCESS) << value;
    EXPECT_FALSE(errorSentence(number).empty()) << value << " became " << number;
  }
}

TEST(Error, LastErrorBelongsToTheThread) {
  setLastError(5);
  std::thread([] {
    EXPECT_EQ(lastError(), 0u);
    setLastError(6);
  }).join();
  EXPECT_EQ(lastError(), 5u);
}

TEST(Error, RuntimeTextsAreCut) {
  char text[4];
  copyCRuntimeErrorText(ENOENT, text, sizeof text);
  EXPECT_EQ(std::string(text), std::string(std::strerror(ENOENT)).substr(0, 3));
  copyCRuntimeErrorText(99999, text, sizeof text);
  EXPECT_STRNE(text, "");
}

}  // namespace
}  // namespace qm::platform
