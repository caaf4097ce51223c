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
using namespace std::string_literals;

class TextFile : public testing::Test {
 protected:
  FilePtr open(const char* mode, int unicode = 0) {
    unicode_ = unicode;
    return FilePtr(FOpen(path_.c_str(), mode, &unicode_));
  }

  /// A line as it is read into a buffer of `size` bytes; "<none>" at the end.
  static std::string gets(const FilePtr& file, int unicode, int size) {
    std::string line(64, 'x');
    if (FGets(line.data(), size, file.get(), unicode) != line.data()) return "<none>";
    EXPECT_EQ(line.find_first_not_of('x', static_cast<std::size_t>(size)), line.npos);
    return line.c_str();
  }

  qmtest::TempFolder folder_;
  std::string path_ = folder_.file("text.txt");
  int unicode_ = 0;
};

TEST_F(TextFile, MarksAreReadAndWritten) {
  const struct {
    std::string content;
    int kind, unicode;
    long position;
  } kCases[] = {{"\xFF\xFE\x61\0"s, 1, 1, 2},
                {"\xFE\xFF\x61\x62", -1, 0, 2},
                {"abcd", 0, 0, 0},
                {"\xFF", 0, 0, 0},
                {"", 0, 0, 0}};
  for (const auto& c : kCases) {
    for (const char* mode : {"r", "rb", "r+", "a"}) {
      writeFile(path_, c.content);
      const FilePtr file = open(mode, 7);
      ASSERT_NE(file, nullptr);
      EXPECT_EQ(unicode_, c.unicode) << mode;
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
    open("w", unicode).reset();
    EXPECT_EQ(readFile(path_), unicode == 1 ? "\xFF\xFE" : "");
  }
  FilePtr(FOpen(path_.c_str(), "w", nullptr)).reset();
  EXPECT_EQ(readFile(path_), "");
  EXPECT_NE(FilePtr(FOpen(path_.c_str(), "r", nullptr)), nullptr);
  EXPECT_EQ(FileIsUnicode(nullptr), 0);
  path_ = folder_.path() + "\\text.txt";
  EXPECT_NE(open("r"), nullptr) << "both separators open a file";
  path_ += "none";
  EXPECT_EQ(open("r"), nullptr);
}

TEST_F(TextFile, SingleByteLinesLoseTheirEnds) {
  writeFile(path_, "one\ntwo\r\n\nlonger than the buffer\nlast");
  const FilePtr file = open("r");
  for (const char* expected :
       {"one", "two", "", "longer ", "than th", "e buffe", "r", "last", "<none>"}) {
    EXPECT_EQ(gets(file, 0, 8), expected);
  }
  char line[8];
  EXPECT_EQ(FGets(line, sizeof line, nullptr, 0), nullptr);
  EXPECT_EQ(FGets(line, 0, file.get(), 0), nullptr);
}

TEST_F(TextFile, UnicodeLinesAreReadByBytes) {
  writeFile(path_, "\xFF\xFEP\0\xE9\0\n\0A\0B\0\n\0"s);
  const FilePtr file = open("r");
  // Each read but the first starts inside the line feed before: each byte pairs with its neighbour.
  // Callers skip one byte first.
  for (const char* expected : {"P\xC3\xA9", "AB"}) {
    EXPECT_EQ(gets(file, unicode_, 64), expected);
    EXPECT_EQ(std::fgetc(file.get()), 0);
  }
  EXPECT_EQ(gets(file, unicode_, 64), "<none>");

  // A unit whose low byte is 0x0A ends a read too, and half a unit counts with a zero.
  writeFile(path_, "\xFF\xFE\x41\0\x0A\x01\x42\0"s);
  EXPECT_EQ(gets(open("r"), 1, 64), "A");

  // Never more than `size` bytes, never half a character.
  std::string wide = "\xFF\xFE";
  for (int i = 0; i < 40; ++i) wide += "\x2D\x4E";
  writeFile(path_, wide);
  for (int size = 1; size < 20; ++size) {
    EXPECT_LT(gets(open("r"), 1, size).size(), static_cast<std::size_t>(size));
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
      const FilePtr file = open("w");
      EXPECT_EQ(FPrint(file.get(), 0, 64, "%s\n", argument.c_str()),
                static_cast<int>(written.size()) + 1);
    }
    EXPECT_EQ(readFile(path_), written + "\n");
  }
}

TEST_F(TextFile, PrintingIsBoundedAndReportsFailure) {
  FilePtr file = open("w");
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
  EXPECT_EQ(readFile(path_), "1234\x61\0\xE9\0\xE9\0\x3D\xD8\x00\xDE%\0%\0\n\0"s);
  const FilePtr full(FOpen("/dev/full", "w", nullptr));
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
  EXPECT_NE(UiStrStr("aab", "AB"), nullptr) << "a start that fails is given up at its place";
  for (const char* missing : {"worlds", "x", "", "Hello World!"}) {
    EXPECT_EQ(UiStrStr(text, missing), nullptr) << missing;
  }
  EXPECT_EQ(UiStrStr("", "a"), nullptr);
  EXPECT_EQ(UiStrStr(nullptr, "a"), nullptr);
  EXPECT_EQ(UiStrStr("a", nullptr), nullptr);
}

}  // namespace
