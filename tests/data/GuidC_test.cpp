#include "qmutils/data/GuidC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <set>
#include <sstream>
#include <string>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/guid.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"

namespace {

using QMErrors::NoError;

constexpr GUID kGuid = {
    0x6b29fc40, 0xca47, 0x1067, {0xb3, 0x1d, 0x00, 0xdd, 0x01, 0x06, 0x62, 0xda}};
const std::string kText = "6b29fc40-ca47-1067-b31d-00dd010662da";

std::string invalid(const std::string& text) {
  return " ERROR: GuidC::FromString(): Invalid Uuid String:" + text + "\n";
}

/// Gives the same byte for ever, or fails with a number.
class FixedEntropy : public qm::platform::EntropySource {
 public:
  FixedEntropy() : former_(qm::platform::replaceEntropySource(this)) {}
  ~FixedEntropy() override { qm::platform::replaceEntropySource(former_); }
  bool fill(void* bytes, std::size_t size) noexcept override {
    std::memset(bytes, byte, size);
    if (fails) qm::platform::setLastError(number);
    return !fails;
  }
  int byte = 0;
  bool fails = false;
  DWORD number = 0;

 private:
  EntropySource* const former_;
};

TEST(GuidC, ReadsItsTextInAnyCaseWithBracesAnywhere) {
  std::string upper = kText;
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  for (const std::string& text :
       {kText, upper, "{" + upper + "}", std::string("}}6b29fc40-{ca47-1067-b31d-00dd010662da{"),
        std::string(100, '{') + kText}) {
    qmtest::LogCapture log;
    GuidC guid;
    EXPECT_EQ(guid.FromString(text.c_str()), NoError) << text;
    EXPECT_EQ(guid, kGuid) << text;
    EXPECT_EQ(guid.IsValid(), 1);
    EXPECT_EQ(log.text(), "");
  }
}

TEST(GuidC, RefusesEveryOtherTextAndKeepsItsValue) {
  GuidC fresh, given(kGuid);
  const auto refuses = [&](const char* text) {
    qmtest::LogCapture log;
    for (GuidC* guid : {&fresh, &given}) {
      EXPECT_EQ(guid->FromString(text), QMErrors::AnInvalidGUIDWasFound) << text;
    }
    EXPECT_EQ(log.text(), invalid(text) + invalid(text));
  };
  for (const std::string& text :
       {std::string(), std::string("{}"), kText.substr(1), kText.substr(0, 35), kText + "0",
        kText + " ", " " + kText, std::string(36, '-'), std::string(36, '0')}) {
    refuses(text.c_str());
  }
  for (std::size_t at = 0; at < kText.size(); ++at) {
    const bool dash = kText[at] == '-';
    for (int c = 1; c < 256; ++c) {  // each character at each place
      if (c == '{' || c == '}' || (dash ? c == '-' : std::isxdigit(c) != 0)) continue;
      std::string text = kText;
      text[at] = static_cast<char>(c);
      GUID out = kGuid;
      EXPECT_EQ(qm::platform::parseGuid(text, &out), 1705u) << text;
    }
  }
  qmtest::LogCapture log;
  EXPECT_EQ(given.FromString(nullptr), QMErrors::AnInvalidGUIDWasFound);
  EXPECT_EQ(log.text(), invalid("null"));
  EXPECT_EQ(given, kGuid);
  EXPECT_EQ(fresh, GUID{});
  EXPECT_EQ(given.IsValid(), 1);
  log.clear();
  EXPECT_EQ(fresh.IsValid(), 0);
  EXPECT_EQ(log.text(), " ERROR: GuidC::IsValid(): this GUID is uninitialised:\n");
}

TEST(GuidC, WritesLowerCaseWhateverTheStreamsFormat) {
  GuidC guid;
  guid.SetGUID(kGuid);
  std::ostringstream os;
  os << std::hex << std::uppercase << std::setw(60) << std::setfill('*');
  EXPECT_EQ(guid.ToString(os, false), NoError);
  EXPECT_EQ(GuidC::ToString(os, kGuid, true), NoError);
  os << guid << kGuid;
  EXPECT_EQ(os.str(), kText + "{" + kText + "}{" + kText + "}{" + kText + "}");

  qmtest::LogCapture log(5);
  qm::logInfo(4, "job ", guid, ".");
  qm::logInfo(5, "job ", guid, ".");
  EXPECT_EQ(log.text(), " INFO: job {" + kText + "}.\n");
}

TEST(GuidC, ReadsFromAStreamUpToTheClosingBrace) {
  const std::string braced = "{" + kText + "}";
  const struct {
    std::string text, rest;
    bool skips = true;
  } kGood[] = {
      {braced + "rest", "rest"},
      {" \t\n}" + braced + "rest", "rest"},
      {"{ 6b29fc40-ca47\n-1067-b31d-00dd010662da }}", "}"},
      {braced + " rest", " rest", false},
      {kText, ""},
      {"{" + kText, ""},
      {kText + '\0' + "left of a longer text", ""},
  };
  for (const auto& [text, rest, skips] : kGood) {
    std::istringstream is(text);
    if (!skips) is >> std::noskipws;
    GuidC guid;
    EXPECT_TRUE(is >> guid) << text;
    EXPECT_EQ(guid, kGuid) << text;
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(is), {}), rest);
  }
  for (const std::string& text :
       {std::string(), std::string(" "), "x" + braced, kText + "}" + braced,
        std::string("{}") + braced, std::string(100'000, '6')}) {
    qmtest::LogCapture log;
    std::istringstream is(text);
    GUID guid = kGuid;
    EXPECT_FALSE(is >> guid) << text;
    EXPECT_FALSE(is.bad());
    EXPECT_EQ(guid, kGuid);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_FALSE(is >> guid);
    EXPECT_EQ(log.lines().size(), 1u) << "a failed stream is not read";
  }
  qmtest::LogCapture log;
  std::istringstream blank(" " + braced), throwing(kText);
  GuidC guid;
  throwing.exceptions(std::ios::failbit);
  EXPECT_TRUE(throwing >> guid) << "the end of the stream is the end of the text";
  EXPECT_THROW(throwing.seekg(0) && throwing.ignore() >> guid, std::ios::failure);
  log.clear();
  EXPECT_FALSE(blank >> std::noskipws >> guid);
  EXPECT_EQ(log.text(), invalid(" " + braced));

  std::istringstream pair(braced + "{00000000-0000-0000-0000-000000000001}"), large(braced);
  GUID first = {}, second = {};
  EXPECT_TRUE(pair >> first >> second);
  EXPECT_EQ(first, kGuid);
  EXPECT_EQ(second.Data4[7], 1);
  {
    const qmtest::FailingAllocation memory(1);
    EXPECT_FALSE(large >> first);
  }
  EXPECT_TRUE(large.bad()) << "without memory the stream is bad";
}

TEST(GuidC, CreatesRandomValuesOfVersion4) {
  std::set<std::string> texts;
  for (int i = 0; i < 1000; ++i) {
    GuidC guid;
    ASSERT_EQ(guid.CreateGUID(), NoError);
    ASSERT_EQ(guid.IsValid(), 1);
    std::ostringstream os;
    os << guid;
    EXPECT_TRUE(texts.insert(os.str()).second) << os.str();
  }
  FixedEntropy entropy;
  for (const auto& [byte, text] : {std::pair(0x00, "{00000000-0000-4000-8000-000000000000}"),
                                   {0xFF, "{ffffffff-ffff-4fff-bfff-ffffffffffff}"}}) {
    entropy.byte = byte;
    GuidC guid;
    EXPECT_EQ(guid.CreateGUID(), NoError);
    std::ostringstream os;
    os << guid;
    EXPECT_EQ(os.str(), text);
  }
}

TEST(GuidC, FailedCreationGivesTheSystemsError) {
  qmtest::LogCapture log;
  FixedEntropy entropy;
  entropy.fails = true;
  GuidC fresh, given(kGuid);
  entropy.number = 5;
  EXPECT_EQ(fresh.CreateGUID(), 0x20000005);
  EXPECT_EQ(log.text(), "GuidC::CreateGUID():  ERROR: Error: 5 (0x5) Access is denied.\n");
  log.clear();
  entropy.number = 0;
  EXPECT_EQ(given.CreateGUID(), NoError) << "nobody knows why";
  EXPECT_EQ(log.text(), "GuidC::CreateGUID():  ERROR: No Error: 0\n");
  EXPECT_EQ(given, kGuid);
  EXPECT_EQ(fresh, GUID{});
  EXPECT_EQ(fresh.IsValid(), 0);
}

}  // namespace
