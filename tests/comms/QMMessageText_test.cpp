#include "qmutils/comms/QMMessageText.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

using QMErrors::QMErrorT;
using QMErrors::QMMessagePacketT;

namespace {

struct Extracted {
  QMErrorT result;
  int type = -77, code = -77, val = -77;
  unsigned short id = 7777;
  std::string string, qualifier;
};

Extracted extract(const char* text, unsigned short stringSize = 512,
                  unsigned short qualifierSize = 512) {
  Extracted out;
  char string[2048] = "untouched";
  char qualifier[2048] = "untouched";
  out.result = QMExtractMessage(text, &out.type, &out.code, &out.id, &out.val, string, stringSize,
                                qualifier, qualifierSize);
  out.string = string;
  out.qualifier = qualifier;
  return out;
}

std::string create(int type, int code, unsigned short id, int val, const char* string,
                   const char* qualifier) {
  char buffer[256];
  EXPECT_EQ(QMCreateMessage(type, code, id, val, string, qualifier, buffer, sizeof buffer), 0);
  return buffer;
}

TEST(QMMessageText, CreatesTheCompactForm) {
  EXPECT_EQ(create(3, 12, 7, -1, "go", "a.job"), "3;12;7;-1;go;a.job");
  EXPECT_EQ(create(1, 2, 3, 4, nullptr, nullptr), "1;2;3;4;;");
  EXPECT_EQ(create(INT_MIN, INT_MAX, 65535, 0, "a;b", ""), "-2147483648;2147483647;65535;0;a;b;");
}

TEST(QMMessageText, ABufferMustHaveAByteToSpare) {
  const std::string text = "10;20;30;40;string;qualifier";
  for (unsigned short size = 0; size <= text.size() + 2; ++size) {
    std::vector<char> buffer(size + 1, '#');
    const QMErrorT result =
        QMCreateMessage(10, 20, 30, 40, "string", "qualifier", buffer.data(), size);
    // The four numbers with their separators take 12 bytes.
    const int expected = size <= 12 ? 124 : size <= text.size() ? 2113 : 0;
    EXPECT_EQ(result, expected) << "size " << size;
    EXPECT_EQ(buffer[size], '#') << "size " << size;
    EXPECT_TRUE(size == 0 || text.starts_with(buffer.data())) << "size " << size;
  }
  EXPECT_EQ(QMCreateMessage(1, 2, 3, 4, "", "", nullptr, 100), 124);
  char cleared[64];
  std::memset(cleared, '#', sizeof cleared);
  ASSERT_EQ(QMCreateMessage(1, 2, 3, 4, "", "", cleared, sizeof cleared), 0);
  EXPECT_EQ(std::string(cleared + 10, sizeof cleared - 10), std::string(54, '\0'));
}

TEST(QMMessageText, ReadsTexts) {
  const struct {
    const char* text;
    int type, code;
    unsigned short id;
    int val;
    const char *string, *qualifier;
  } kCases[] = {
      {"3;12;7;-1;go;a.job", 3, 12, 7, -1, "go", "a.job"},
      {"1;2;3;4;;", 1, 2, 3, 4, "", ""},
      {"1;2;3;4;a;b;c", 1, 2, 3, 4, "a", "b;c"},
      {"1;2;3;4;a;", 1, 2, 3, 4, "a", ""},
      {" +1;\t-2; 3;4;a b; c", 1, -2, 3, 4, "a b", " c"},
      {"4294967295;2147483648;70000;-2147483648;s;q", -1, INT_MIN, 4464, INT_MIN, "s", "q"},
      // A missing number lets the next one take its place, even one from the texts.
      {"1;;3;4;55;q", 1, 3, 4, 55, "55", "q"},
      {"1;x;3;4;s;q", 1, 0, 0, 0, "s", "q"},
      {"1;-;3;4;s;q", 1, 0, 0, 0, "s", "q"},
      {"", 0, 0, 0, 0, "", ""},
      {nullptr, 0, 0, 0, 0, "", ""},
      // Fewer separators: the texts begin where the code of the last character points.
      {"12", 12, 0, 0, 0, "", ""},
      {"1;2;3;4;string", 1, 2, 3, 4, "string", ""},
      {"1;2;3;4;hello\n", 1, 2, 3, 4, "h", "llo\n"},
      {"000000001\t", 1, 0, 0, 0, "\t", "\t"},
  };
  for (const auto& c : kCases) {
    const Extracted got = extract(c.text);
    const std::string shown = c.text == nullptr ? "null" : c.text;
    EXPECT_EQ(got.result, 0) << shown;
    EXPECT_EQ(got.type, c.type) << shown;
    EXPECT_EQ(got.code, c.code) << shown;
    EXPECT_EQ(got.id, c.id) << shown;
    EXPECT_EQ(got.val, c.val) << shown;
    EXPECT_EQ(got.string, c.string) << shown;
    EXPECT_EQ(got.qualifier, c.qualifier) << shown;
  }
}

TEST(QMMessageText, ReadingRespectsTheBuffers) {
  // The string is tried first; numbers are stored even so.
  Extracted got = extract("1;2;3;4;abc;defg", 3, 4);
  EXPECT_EQ(got.result, 124);
  EXPECT_EQ(got.val, 4);
  EXPECT_EQ(got.string, "untouched");
  got = extract("1;2;3;4;abc;defg", 4, 4);
  EXPECT_EQ(got.result, 124);
  EXPECT_EQ(got.string, "abc");
  EXPECT_EQ(got.qualifier, "untouched");
  EXPECT_EQ(extract("1;2;3;4;abc;defg", 4, 5).result, 0);
  EXPECT_EQ(extract("1;2;3;4;;", 0, 1).result, 124);

  const std::string longest = "1;2;3;4;s;" + std::string(1013, 'q');
  EXPECT_EQ(extract(longest.c_str(), 512, 2000).result, 0);
  EXPECT_EQ(extract((longest + "q").c_str(), 512, 2000).result, 124);
  EXPECT_EQ(
      QMExtractMessage("1;2;3;4;;", nullptr, nullptr, nullptr, nullptr, nullptr, 9, nullptr, 9),
      124);
}

std::string wide(const std::u16string& text) {
  std::string bytes = "\xFF\xFE";
  for (char16_t unit : text) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes + std::string(2, '\0');
}

TEST(QMMessageText, ReadsWideTextsBehindAMark) {
  // At an even and at an odd address.
  for (const std::string& lead : {std::string(), std::string("#")}) {
    const std::string text = lead + wide(u"3;12;7;-1;go;a.job");
    const Extracted got = extract(text.c_str() + lead.size());
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.val, -1);
    EXPECT_EQ(got.string, "go");
    EXPECT_EQ(got.qualifier, "a.job");
  }
  // The size of the string buffer limits the whole text.
  const Extracted cut = extract(wide(u"3;12;7;-1;go;a.job").c_str(), 15);
  EXPECT_EQ(cut.result, 0);
  EXPECT_EQ(cut.qualifier, "a.");
  EXPECT_EQ(extract(wide(u"1;2;3;4;\u00E9;").c_str()).result, 2035);
  EXPECT_EQ(extract(wide(std::u16string(1024, u'1')).c_str()).result, 124);
  EXPECT_EQ(extract("\xFE\xFF"
                    "1;2;3;4;;")
                .result,
            2116);
}

TEST(QMMessageText, AWideTextNeedsNoWideEndBehindWhatIsNotAscii) {
  // As another process may send it: a text of the pool ends with one byte.
  std::vector<char> text(256, 'x');
  text[0] = '\xFF';
  text[1] = '\xFE';
  text[255] = '\0';
  const std::unique_ptr<char[]> exact(new char[text.size()]);
  std::memcpy(exact.get(), text.data(), text.size());
  EXPECT_EQ(extract(exact.get()).result, 2035);
}

TEST(QMMessageText, WhatIsCreatedReadsBack) {
  std::mt19937 random(9);
  for (int i = 0; i < 10'000; ++i) {
    const auto number = [&] { return static_cast<int>(random() >> (random() % 32)); };
    const auto text = [&](const char* letters) {
      std::string made(random() % 60, ' ');
      for (char& c : made) c = letters[random() % std::strlen(letters)];
      return made;
    };
    const int type = number(), code = -number(), val = number();
    const auto id = static_cast<unsigned short>(number());
    const std::string string = text("abc 123\\:."), qualifier = text("abc;/\xE9");
    const Extracted got =
        extract(create(type, code, id, val, string.c_str(), qualifier.c_str()).c_str());
    ASSERT_EQ(got.result, 0);
    ASSERT_TRUE(got.type == type && got.code == code && got.id == id && got.val == val);
    ASSERT_EQ(got.string, string);
    ASSERT_EQ(got.qualifier, qualifier);
  }
}

TEST(QMMessageText, RecordsWorkLikeTheirFields) {
  char string[8] = "go", qualifier[8] = "a.job";
  QMMessagePacketT packet{3, 12, 7, -1, string, sizeof string, qualifier, sizeof qualifier};
  char text[256];
  ASSERT_EQ(QMCreateMessageFromPacket(packet, text, sizeof text), 0);
  EXPECT_STREQ(text, "3;12;7;-1;go;a.job");
  ASSERT_EQ(QMExtractMessagePacket("4;5;6;7;stop;b", packet), 0);
  EXPECT_EQ(packet.nID, 6);
  EXPECT_STREQ(string, "stop");
  EXPECT_STREQ(qualifier, "b");
  EXPECT_EQ(QMExtractMessagePacket("4;5;6;7;12345678;b", packet), 124);

  qmtest::LogCapture log(5);
  {
    QMLogStreamC line(nullptr, nullptr, nullptr, nullptr);
    line << packet << std::endl;
    std::string longText(300, 'x');
    line << QMMessagePacketT{1, 2, 3, 4, longText.data(), 301, nullptr, 0} << std::endl;
    line.SetMessageLevel(5);
    line << packet << std::endl;
  }
  EXPECT_EQ(log.text(), "4;5;6;7;stop;b\nCould not create message from packet\n");
}

TEST(QMMessageText, MagicIsTheVersionMark) {
  std::uint32_t record[2] = {1, 1};
  EXPECT_EQ(QMGetMagic(nullptr, record), 0);
  EXPECT_EQ(record[0], 0x21122004u);
  EXPECT_EQ(record[1], 0u);
  EXPECT_EQ(QMGetMagic(nullptr, nullptr), 2100);
}

}  // namespace
