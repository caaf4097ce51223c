#include "qmutils/foundation/QMTextFile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qmutils/foundation/TextFileFormat.h"
#include "qmutils/platform/file.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/TempFolder.h"

namespace {

using qm::platform::FilePtr;
using qmtest::readFile;
using qmtest::writeFile;

class TextFile : public testing::Test {
 protected:
  FilePtr open(const char* mode, int* unicode) {
    return FilePtr(FOpen(path_.c_str(), mode, unicode));
  }

  qmtest::TempFolder folder_;
  std::string path_ = folder_.file("text.txt");
};

TEST_F(TextFile, MarksAreReadAndWritten) {
  const struct {
    std::string content;
    int kind, unicode;
    long position;
  } kCases[] = {{std::string("\xFF\xFE"
                             "a\0",
                             4),
                 1, 1, 2},
                {"\xFE\xFF"
                 "ab",
                 -1, 0, 2},
                {"abcd", 0, 0, 0},
                {"\xFF", 0, 0, 0},
                {"", 0, 0, 0}};
  for (const auto& c : kCases) {
    for (const char* mode : {"r", "rb", "r+", "a"}) {
      writeFile(path_, c.content);
      int unicode = 7;
      const FilePtr file = open(mode, &unicode);
      ASSERT_NE(file, nullptr);
      EXPECT_EQ(unicode, c.unicode) << mode;
      if (*mode == 'a') {
        std::fputs("end", file.get());
        std::fflush(file.get());
        EXPECT_EQ(readFile(path_), c.content + "end");
      } else {
        EXPECT_EQ(std::ftell(file.get()), c.position) << mode;
        EXPECT_EQ(FileIsUnicode(file.get()), c.kind);
        EXPECT_EQ(std::ftell(file.get()), c.position);
      }
    }
  }
  for (int unicode : {0, 1}) {
    open("w", &unicode).reset();
    EXPECT_EQ(readFile(path_), unicode == 1 ? "\xFF\xFE" : "");
  }
  open("w", nullptr).reset();
  EXPECT_EQ(readFile(path_), "");
  EXPECT_NE(open("r", nullptr), nullptr);
  int unicode = 0;
  EXPECT_EQ(FOpen((folder_.path() + "\\none.txt").c_str(), "r", &unicode), nullptr);
  EXPECT_EQ(FileIsUnicode(nullptr), 0);
  path_ = folder_.path() + "\\text.txt";
  EXPECT_NE(open("r", &unicode), nullptr) << "both separators open a file";
}

TEST_F(TextFile, SingleByteLinesLoseTheirEnds) {
  writeFile(path_, "one\ntwo\r\n\nlonger than the buffer\nlast");
  int unicode = 0;
  const FilePtr file = open("r", &unicode);
  char line[8];
  for (const char* expected : {"one", "two", "", "longer ", "than th", "e buffe", "r", "last"}) {
    ASSERT_EQ(FGets(line, sizeof line, file.get(), 0), line);
    EXPECT_STREQ(line, expected);
  }
  EXPECT_EQ(FGets(line, sizeof line, file.get(), 0), nullptr);
  EXPECT_EQ(FGets(line, sizeof line, nullptr, 0), nullptr);
  EXPECT_EQ(FGets(line, 0, file.get(), 0), nullptr);
}

TEST_F(TextFile, UnicodeLinesAreReadByBytes) {
  // "Pé" LF "AB" LF in 16-bit units.
  writeFile(path_, std::string("\xFF\xFE"
                               "P\0\xE9\0\n\0A\0B\0\n\0",
                               14));
  int unicode = 0;
  const FilePtr file = open("r", &unicode);
  char line[64];
  ASSERT_EQ(FGets(line, sizeof line, file.get(), unicode), line);
  EXPECT_STREQ(line, "P\xC3\xA9");
  // The next read starts inside the line feed: each byte pairs with its neighbour. Callers skip
  // one byte first.
  EXPECT_EQ(std::fgetc(file.get()), 0);
  ASSERT_EQ(FGets(line, sizeof line, file.get(), unicode), line);
  EXPECT_STREQ(line, "AB");
  EXPECT_EQ(std::fgetc(file.get()), 0);
  EXPECT_EQ(FGets(line, sizeof line, file.get(), unicode), nullptr);

  // A unit whose low byte is 0x0A ends a read too, and half a unit counts with a zero.
  writeFile(path_, std::string("\xFF\xFE"
                               "A\0\x0A\x01"
                               "B\0",
                               8));
  const FilePtr again = open("r", &unicode);
  ASSERT_EQ(FGets(line, sizeof line, again.get(), 1), line);
  EXPECT_STREQ(line, "A");

  // Never more than `size` bytes, never half a character.
  std::string wide = "\xFF\xFE";
  for (int i = 0; i < 40; ++i) wide += "\x2D\x4E";
  writeFile(path_, wide);
  for (int size = 1; size < 20; ++size) {
    const FilePtr file2 = open("r", &unicode);
    char small[24];
    std::memset(small, 'x', sizeof small);
    ASSERT_EQ(FGets(small, size, file2.get(), 1), small);
    EXPECT_LT(std::strlen(small), static_cast<std::size_t>(size));
    EXPECT_EQ(small[size], 'x');
  }
}

TEST_F(TextFile, PrintingInterpretsSingleByteTextTwice) {
  const std::pair<std::string, std::string> kTexts[] = {{"100%% and 50%%", "100% and 50%"},
                                                        {"%d %s %5.2f", "%d %s %5.2f"},
                                                        {"a%nb%5hnc", "abc"},
                                                        {"end %", "end %"},
                                                        {"%%n", "%n"},
                                                        {"%%%", "%%"},
                                                        {"%-08.3lld", "%-08.3lld"},
                                                        {"", ""}};
  for (const auto& [argument, written] : kTexts) {
    {
      int unicode = 0;
      const FilePtr file = open("w", &unicode);
      EXPECT_EQ(FPrint(file.get(), 0, 64, "%s\n", argument.c_str()),
                static_cast<int>(written.size()) + 1);
    }
    EXPECT_EQ(readFile(path_), written + "\n");
  }
}

TEST_F(TextFile, PrintingIsBoundedAndReportsFailure) {
  int unicode = 0;
  FilePtr file = open("w", &unicode);
  EXPECT_EQ(FPrint(file.get(), 0, 5, "%s", "123456789"), 4);
  EXPECT_EQ(FPrint(file.get(), 1, 5, "%s", "a\xC3\xA9\xE9"), 3) << "a, é, and a byte on its own";
  EXPECT_EQ(FPrint(file.get(), 1, 16, "%s\n", "\xF0\x9F\x98\x80%%"), 5);
  EXPECT_EQ(FPrint(nullptr, 0, 5, "x"), -1);
  EXPECT_EQ(FPrint(file.get(), 0, 0, "x"), -1);
  for (int n = 1; n <= 3; ++n) {
    qmtest::FailingAllocation nth(n);
    EXPECT_EQ(FPrint(file.get(), 1, 16, "%s", "x"), -1);
  }
  file.reset();
  EXPECT_EQ(readFile(path_), std::string("1234"
                                         "a\0\xE9\0\xE9\0"
                                         "\x3D\xD8\x00\xDE%\0%\0\n\0",
                                         20));
  const FilePtr full(FOpen("/dev/full", "w", &unicode));
  std::setvbuf(full.get(), nullptr, _IONBF, 0);
  EXPECT_LT(FPrint(full.get(), 0, 16, "lost"), 0);
  EXPECT_EQ(FPrint(full.get(), 1, 16, "lost"), 0);
}

TEST(ToAscii, RefusesWhatIsNotAscii) {
  char dest[9] = "????????";
  EXPECT_EQ(TchrToAscii(dest, "caf\xE9", 8), QMErrors::ErrorNameIsNotASCII);
  EXPECT_STREQ(dest, "????????");
  EXPECT_EQ(TchrToAscii(dest, "abc", 8), 0);
  EXPECT_EQ(std::memcmp(dest, "abc\0\0\0\0\0", 8), 0) << "filled up";
  EXPECT_EQ(TchrToAscii(dest, "12345", 3), 0);
  EXPECT_EQ(std::memcmp(dest, "123\0", 4), 0);
  EXPECT_EQ(TchrToAscii(dest, "\x7F", 8), 0);
  EXPECT_EQ(TchrToAscii(nullptr, "abc", 8), QMErrors::NullObjectProvided);

  std::memset(dest, '?', 8);
  EXPECT_EQ(WsToAscii(dest, u"ab\u0080c", 8), QMErrors::ErrorNameIsNotASCII);
  EXPECT_STREQ(dest, "ab");
  std::memset(dest, '?', 8);
  EXPECT_EQ(WsToAscii(dest, u"12345", 3), 0);
  EXPECT_EQ(std::memcmp(dest, "123?", 4), 0);
  EXPECT_EQ(WsToAscii(dest, u"12\u4E2D", 1), QMErrors::ErrorNameIsNotASCII);
}

TEST(UiStrStr, FindsWithoutRegardToCase) {
  const char* text = "Hello World";
  EXPECT_EQ(UiStrStr(text, "WORLD"), text + 6);
  EXPECT_EQ(UiStrStr(text, "l"), text + 2);
  EXPECT_EQ(UiStrStr("aab", "AB") != nullptr, true)
      << "a start that fails is given up at its place";
  for (const char* missing : {"worlds", "x", "", "Hello World!"}) {
    EXPECT_EQ(UiStrStr(text, missing), nullptr) << missing;
  }
  EXPECT_EQ(UiStrStr("", "a"), nullptr);
  EXPECT_EQ(UiStrStr(nullptr, "a"), nullptr);
  EXPECT_EQ(UiStrStr("a", nullptr), nullptr);
}

}  // namespace
