#include "qmutils/platform/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {
namespace {

TEST(Error, EachNumberThatTheLibraryCanMeetHasASentence) {
  for (DWORD number :
       {0u,    2u,    3u,    4u,     5u,     6u,     8u,     18u,    31u,    32u,
        50u,   80u,   87u,   112u,   123u,   126u,   127u,   145u,   161u,   183u,
        193u,  206u,  234u,  258u,   259u,   267u,   288u,   298u,   995u,   997u,
        1018u, 1400u, 1705u, 10004u, 10013u, 10022u, 11001u, 11002u, 11003u, 11004u}) {
    EXPECT_FALSE(errorSentence(number).empty()) << number;
  }
  for (DWORD number = 10035; number <= 10065; ++number) {
    EXPECT_FALSE(errorSentence(number).empty()) << number;
  }
  for (DWORD number = 0; number <= 12'000; ++number) {
    const std::string_view text = errorSentence(number);
    if (text.empty()) continue;
    EXPECT_EQ(text.back(), '.') << number;
    EXPECT_EQ(text.find_first_of("\r\n%"), text.npos) << number;
  }
  for (DWORD number : {40u, 9999u, 65535u, 0xFFFFFFFFu}) {
    EXPECT_TRUE(errorSentence(number).empty()) << number;
  }
}

TEST(Error, EveryErrnoBecomesAKnownNumber) {
  EXPECT_EQ(lastErrorFromErrno(0), ERROR_SUCCESS);
  EXPECT_EQ(lastErrorFromErrno(ENOENT), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(lastErrorFromErrno(ENOTDIR), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(lastErrorFromErrno(EACCES), ERROR_ACCESS_DENIED);
  EXPECT_EQ(lastErrorFromErrno(ENOSPC), ERROR_DISK_FULL);
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
  char text[64];
  copyCRuntimeErrorText(ENOENT, text, sizeof text);
  EXPECT_STREQ(text, std::strerror(ENOENT));
  copyCRuntimeErrorText(99999, text, sizeof text);
  EXPECT_STRNE(text, "");
  char small[4];
  copyCRuntimeErrorText(ENOENT, small, sizeof small);
  EXPECT_EQ(std::string(small), std::string(std::strerror(ENOENT)).substr(0, 3));
}

}  // namespace
}  // namespace qm::platform
