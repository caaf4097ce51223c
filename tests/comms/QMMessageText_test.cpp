#include "qmutils/comms/QMMessageText.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

using QMErrors::QMErrorT;
using QMErrors::QMMessagePacketT;

namespace {

struct Extracted {
  int result = -77, type = -77, code = -77;
  unsigned short id = 7777;
  int val = -77;
  std::string string, qualifier;

  bool operator==(const Extracted&) const = default;
  friend std::ostream& operator<<(std::ostream& os, const Extracted& e) {
    return os << e.result << ": " << e.type << ';' << e.code << ';' << e.id << ';' << e.val << ';'
              << e.string << ';' << e.qualifier;
  }
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

TEST(QMMessageText, ABufferMustHaveAByteToSpare) {
  const std::string text = "-2147483648;20;65535;-1;a;b;qualifier";
  for (unsigned short size = 0; size <= text.size() + 2; ++size) {
    std::vector<char> buffer(size + 1, '#');
    const QMErrorT result =
        QMCreateMessage(INT_MIN, 20, 65535, -1, "a;b", "qualifier", buffer.data(), size);
    // The four numbers with their separators take 24 bytes.
    const int expected = size <= 24 ? 124 : size <= text.size() ? 2113 : 0;
    EXPECT_EQ(result, expected) << "size " << size;
    EXPECT_EQ(buffer[size], '#') << "size " << size;
    EXPECT_TRUE(size == 0 || text.starts_with(buffer.data())) << "size " << size;
    EXPECT_TRUE(result != 0 || buffer.data() == text) << "size " << size;
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
    Extracted values;
  } kCases[] = {
      {"1;2;3;4;;", {0, 1, 2, 3, 4, "", ""}},
      {"1;2;3;4;a;b;c", {0, 1, 2, 3, 4, "a", "b;c"}},
      {"1;2;3;4;a;", {0, 1, 2, 3, 4, "a", ""}},
      {" +1;\t-2; 3;4;a b; c", {0, 1, -2, 3, 4, "a b", " c"}},
      {"4294967295;2147483648;70000;-2147483648;s;q", {0, -1, INT_MIN, 4464, INT_MIN, "s", "q"}},
      // A missing number lets the next one take its place, even one from the texts.
      {"1;;3;4;55;q", {0, 1, 3, 4, 55, "55", "q"}},
      {"1;x;3;4;s;q", {0, 1, 0, 0, 0, "s", "q"}},
      {"1;-;3;4;s;q", {0, 1, 0, 0, 0, "s", "q"}},
      {"", {0, 0, 0, 0, 0, "", ""}},
      {nullptr, {0, 0, 0, 0, 0, "", ""}},
      // Fewer separators: the texts begin where the code of the last character points.
      {"12", {0, 12, 0, 0, 0, "", ""}},
      {"1;2;3;4;string", {0, 1, 2, 3, 4, "string", ""}},
      {"1;2;3;4;hello\n", {0, 1, 2, 3, 4, "h", "llo\n"}},
      {"000000001\t", {0, 1, 0, 0, 0, "\t", "\t"}},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(extract(c.text), c.values) << (c.text == nullptr ? "null" : c.text);
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
    EXPECT_EQ(extract(text.c_str() + lead.size()), (Extracted{0, 3, 12, 7, -1, "go", "a.job"}));
  }
  // The size of the string buffer limits the whole text.
  const Extracted cut = extract(wide(u"3;12;7;-1;go;a.job").c_str(), 15);
  EXPECT_EQ(cut.result, 0);
  EXPECT_EQ(cut.qualifier, "a.");
  EXPECT_EQ(extract(wide(u"1;2;3;4;\u00E9;").c_str()).result, 2035);
  EXPECT_EQ(extract(wide(std::u16string(1024, u'1')).c_str()).result, 124);
  EXPECT_EQ(extract("\376\3771;2;3;4;;").result, 2116);

  // One from another process needs no wide end behind what is not ASCII: a text of the pool ends
  // with one byte.
  const std::string unended = "\xFF\xFE" + std::string(253, 'x');
  const std::vector<char> exact(unended.c_str(), unended.c_str() + 256);
  EXPECT_EQ(extract(exact.data()).result, 2035);
}

TEST(QMMessageText, WhatIsCreatedReadsBack) {
  std::mt19937 random(9);
  const auto number = [&] { return static_cast<int>(random() >> (random() % 32)); };
  const auto text = [&](const std::string& letters) {
    std::string made(random() % 60, ' ');
    for (char& c : made) c = letters[random() % letters.size()];
    return made;
  };
  for (int i = 0; i < 10'000; ++i) {
    const Extracted sent{0,
                         number(),
                         -number(),
                         static_cast<unsigned short>(number()),
                         number(),
                         text("abc 123\\:."),
                         text("abc;/\xE9")};
    char created[256];
    ASSERT_EQ(QMCreateMessage(sent.type, sent.code, sent.id, sent.val, sent.string.c_str(),
                              sent.qualifier.c_str(), created, sizeof created),
              0);
    ASSERT_EQ(extract(created), sent);
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
