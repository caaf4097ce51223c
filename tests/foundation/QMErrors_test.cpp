#include "qmutils/foundation/QMErrors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ios>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/platform/error.h"
#include "qmutils/platform/prompt.h"

using namespace QMErrors;

namespace {

struct Row {
  int code;
  const char* identifier;
  std::string_view message;
};

constexpr Row kRows[] = {
#define QM_ERROR_ROW(code, identifier, message) {code, #identifier, message},
#include "qmutils/foundation/QMErrorCatalogue.inc"
#undef QM_ERROR_ROW
};

QMErrorT code(std::uint32_t value) { return static_cast<QMErrorT>(value); }

std::string text(std::uint32_t value) { return QMErrToStr(code(value)); }

long countBetween(int first, int last) {
  return std::ranges::count_if(kRows,
                               [=](const Row& r) { return r.code >= first && r.code <= last; });
}

std::ptrdiff_t place(int wanted) {
  return std::ranges::find(kRows, wanted, &Row::code) - std::begin(kRows);
}

TEST(ErrorCatalogue, HasAllRowsOnceAndNoPlaceholders) {
  EXPECT_EQ(std::size(kRows), 1763u);
  std::set<int> codes;
  std::set<std::string> identifiers;
  for (const Row& row : kRows) {
    EXPECT_TRUE(codes.insert(row.code).second) << row.code << " stands twice";
    EXPECT_TRUE(identifiers.insert(row.identifier).second) << row.identifier << " stands twice";
    const bool mayBeEmpty = row.code >= 4000 && row.code <= 4004;
    EXPECT_EQ(row.message.empty(), mayBeEmpty) << row.code;
    EXPECT_EQ(row.message.find_first_of("\r\n"), std::string::npos) << row.code;
    EXPECT_TRUE(row.code >= 0 && row.code <= 0x1FFF4) << row.code;
  }
}

TEST(ErrorCatalogue, FamiliesHaveTheirCounts) {
  const struct {
    int first, last;
    long rows;
  } kFamilies[] = {
      {0, 20, 10},           {30, 45, 16},         {50, 96, 47},         {100, 113, 13},
      {115, 170, 56},        {200, 208, 9},        {800, 877, 63},       {900, 967, 64},
      {1000, 1018, 19},      {1500, 1521, 19},     {2001, 2123, 117},    {2200, 2212, 13},
      {2998, 9500, 59},      {0x4100, 0x4111, 18}, {0x4240, 0x4245, 6},  {0x4FFF, 0x5036, 47},
      {0x5100, 0x5FFF, 438}, {0x8000, 0x8050, 60}, {0x80FF, 0x80FF, 1},  {0x8200, 0x8382, 77},
      {0x8500, 0x8607, 17},  {0x9000, 0x9AFF, 37}, {0xA000, 0xADFF, 38}, {0xC000, 0xCB21, 33},
      {0xFFFF, 0xFFFF, 1}};
  for (const auto& family : kFamilies) {
    EXPECT_EQ(countBetween(family.first, family.last), family.rows)
        << "from " << family.first << " to " << family.last;
  }
  EXPECT_EQ(countBetween(300, 733) + countBetween(0x10000, 0x1FFF4), 485);
}

// Tools print the table in its order, and code lists of earlier versions are compared with it.
TEST(ErrorCatalogue, KeepsItsOrder) {
  const std::pair<int, int> kBefore[] = {
      {8, 7},       {7, 20},        {1013, 1500},     {1521, 1014},
      {1018, 2001}, {2048, 2060},   {2081, 2049},     {2059, 2100},
      {2999, 2998}, {2998, 3000},   {0x5033, 0x5020}, {0x5026, 0x5034},
      {2212, 2999}, {9500, 0x4100}, {0x4111, 0x4240}, {0x80FF, 0x8200}};
  for (const auto& [earlier, later] : kBefore) {
    EXPECT_LT(place(earlier), place(later)) << earlier << " before " << later;
  }
  EXPECT_EQ(std::end(kRows)[-1].code, 0xFFFF);
  EXPECT_EQ(kRows[0].code, 0);
}

TEST(QMErrToStr, GivesTheMessageAndTheCode) {
  const std::pair<std::uint32_t, const char*> kTexts[] = {
      {0, "No Error: 0"},
      {124, "Buffer too small: 124"},
      {1001, "Failed to Open File: 1001"},
      {1014, "Unable to find file: 1014"},
      {2001, "Memory allocation failed: 2001"},
      {2013, "Command timed out: 2013"},
      {2035, "Error Name is not ASCII: 2035"},
      {2048, "Failed to create QMErrorHandle: 2048"},
      {2100, "Null object provided: 2100"},
      {4002, ": 4002"},
      {9204, "Error: badly formed XML: 9204"},
      {0x5007, "Error: e_CriticalSection_TimeOut: 20487"},
      {0x80FF, " Error: e_DummyLastError: 33023"},
      {0x9A0E,
       "The requested spinner operation did not complete in time. Error: "
       "e_QMExposer_Spinner_TimedOut: 39438"},
      {0xFFFF, "Last Error Code: 65535"},
      {123456, "Unrecognised Error Code: 123456"},
      {0xFFFFFFFF, "Unrecognised Error Code: -1"},
      {0x40000000, "Unrecognised Error Code: 1073741824"},
      {0xA0000005, "Unrecognised Error Code: -1610612731"},
  };
  for (const auto& [value, expected] : kTexts) EXPECT_EQ(text(value), expected);
  for (const Row& row : kRows) {
    ASSERT_EQ(text(static_cast<std::uint32_t>(row.code)),
              std::string(row.message) + ": " + std::to_string(row.code));
  }
}

TEST(QMErrToStr, GivesTheSystemsTextForSystemErrors) {
  EXPECT_EQ(text(0x20000005), "Error: 5 (0x5) Access is denied.");
  EXPECT_EQ(text(0x20000000 | 11004).find("Error: 11004 (0x2AFC) "), 0u);
  EXPECT_EQ(text(0x2000FFFF), "Format message failed.  Error: 65535");
  EXPECT_EQ(text(0x60000000 | ENOENT), std::strerror(ENOENT));
  qm::platform::setLastError(1400);
  EXPECT_EQ(text(0x20000005).find("1400"), std::string::npos) << "took the thread's last error";
  EXPECT_EQ(std::string(QMGetLastErrorMsg(nullptr)).find("Error: 1400 (0x578) "), 0u);
  EXPECT_EQ(lastOsError(), code(0x20000000 | 1400));
  qm::platform::setLastError(0);
  EXPECT_EQ(lastOsError(), NoError);
}

TEST(QMErrToStr, TextsOfTwoThreadsDoNotMeet) {
  const char* mine = QMErrToStr(code(2013));
  std::thread([] { EXPECT_EQ(text(1001), "Failed to Open File: 1001"); }).join();
  EXPECT_STREQ(mine, "Command timed out: 2013");
}

TEST(DetermineErrorClass, OnlyTheTwoLoadingConditionsAreTheOperators) {
  for (int value : {0, 822, 825, 2013, -1}) {
    EXPECT_EQ(DetermineErrorClass(code(static_cast<std::uint32_t>(value))), 4002) << value;
  }
  EXPECT_EQ(DetermineErrorClass(code(823)), 4004);
  EXPECT_EQ(DetermineErrorClass(code(824)), 4004);
}

TEST(QMFillError, KeepsTheEndOfTheBaseName) {
  const std::string forty = "abcdefghijklmnopqrstuvwxyz0123456789.cpp";
  const std::pair<std::string, std::string> kFiles[] = {
      {"C:\\engine\\src\\a.cpp", "a.cpp"},
      {"src/a.cpp", "src/a.cpp"},
      {"C:\\" + forty, forty.substr(8)},
      {"C:\\" + forty.substr(8), forty.substr(8)},
      {"C:\\src\\", ""},
  };
  for (const auto& [path, expected] : kFiles) {
    QMERROR_ST record;
    std::memset(&record, 'x', sizeof record);
    EXPECT_EQ(QMFillError(&record, code(2013), 7, path.c_str(), 120), 2013);
    EXPECT_EQ(std::string(record.file), expected);
    EXPECT_EQ(record.firstError, 2013);
    EXPECT_EQ(record.error, 2013);
    EXPECT_EQ(record.extra, 7u);
    EXPECT_EQ(record.line, 120);
  }
  EXPECT_EQ(QMFillError(nullptr, code(2013), 7, nullptr, 1), 2013);
}

TEST(QMERROR_ST, PrintsWhatIsNew) {
  QMERROR_ST record{};
  QMFillError(&record, code(2013), 0, "C:\\a.cpp", 120);
  std::ostringstream os;
  os << std::hex << record;
  EXPECT_EQ(os.str(), "ErrInfo [ Command timed out: 2013, L=120, F=<a.cpp> ] ");
  record.error = code(2001);
  record.extra = 4000000000u;
  std::memset(record.file, 'f', sizeof record.file);  // as bytes from elsewhere, unterminated
  os.str("");
  os << record;
  EXPECT_EQ(os.str(),
            "ErrInfo [ Command timed out: 2013, Memory allocation failed: 2001, 4000000000, "
            "L=120, F=<" +
                std::string(33, 'f') + "> ] ");
}

struct Box {
  std::string text, caption;
  UINT style;
};
Box shownBox;

TEST(QMOSError, ShowsTheTextAndTheLastError) {
  const auto former =
      qm::platform::setPromptHook([](const char* shown, const char* caption, UINT style) {
        shownBox = {shown, caption, style};
        return IDOK;
      });
  qm::platform::setLastError(ERROR_ACCESS_DENIED);
  EXPECT_EQ(QMOSError("Opening the port"), IDOK);
  EXPECT_EQ(shownBox.text, "Opening the port Error: 5 (0x5) Access is denied.");
  EXPECT_EQ(shownBox.caption, "Program Error");
  EXPECT_EQ(shownBox.style, 0x52010u);
  QMOSError(std::string(5000, 'x').c_str());
  EXPECT_EQ(shownBox.text, std::string(1023, 'x'));
  qm::platform::setPromptHook(former);
}

}  // namespace
