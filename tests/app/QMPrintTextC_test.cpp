#include "qmutils/app/QMPrintTextC.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "qmutils/platform/waitable.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingDC.h"
#include "tests/support/TempFolder.h"

namespace {

using QMErrors::NoError;
using qmtest::RecordingDC;

constexpr UINT kTitle = 0x4961;
constexpr UINT kLine = 0x950;

// With the device's 100 units an inch the margin is 39 units, so the page is 49 to 971, of which 46
// lines of 20 units are used: 49 the header, 69 to 949 the text, 949 to 969 the footer.
constexpr LONG kTop = 69;
constexpr LONG kBottom = 949;
constexpr int kLinesPerPage = 44;

/// The lines of the text as they were drawn, wrapped ones in pieces.
std::vector<std::string> textLines(const RecordingDC& dc) {
  std::vector<std::string> lines;
  for (const auto& drawn : dc.drawn) {
    if (drawn.format != kLine) continue;
    lines.insert(lines.end(), drawn.lines.begin(), drawn.lines.end());
  }
  return lines;
}

std::vector<RecordingDC::Drawn> titles(const RecordingDC& dc) {
  std::vector<RecordingDC::Drawn> found;
  for (const auto& drawn : dc.drawn) {
    if (drawn.format == kTitle) found.push_back(drawn);
  }
  return found;
}

std::string numbered(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += "line " + std::to_string(i) + "\n";
  return text;
}

TEST(QMPrintTextC, PrintsPagesWithHeaderAndFooter) {
  RecordingDC dc;
  ASSERT_EQ(QMPrintTextC().PrintText2(numbered(100).c_str(), &dc, "queue name", "The title"),
            NoError);
  EXPECT_EQ(dc.jobCalls,
            (std::vector<std::string>{"StartDoc queue name", "StartPage", "EndPage", "StartPage",
                                      "EndPage", "StartPage", "EndPage", "EndDoc"}));
  int line = 0;
  for (const auto& drawn : dc.drawn) {
    if (drawn.format == kTitle) continue;
    EXPECT_EQ(drawn.format, kLine);
    EXPECT_EQ(drawn.text, "line " + std::to_string(line));
    EXPECT_EQ(drawn.page, line / kLinesPerPage + 1);
    EXPECT_EQ(drawn.rect.top, kTop + line % kLinesPerPage * 20);
    EXPECT_EQ(drawn.rect.left, 10);
    EXPECT_EQ(drawn.rect.right, 810) << "the sides have no margin";
    ++line;
  }
  EXPECT_EQ(line, 100);
  const auto found = titles(dc);
  ASSERT_EQ(found.size(), 6u);
  for (int i = 0; i < 6; ++i) {
    const bool isHeader = i % 2 == 0;
    EXPECT_EQ(found[i].page, i / 2 + 1);
    EXPECT_EQ(found[i].text, isHeader ? "The title" : "Page: " + std::to_string(i / 2 + 1));
    EXPECT_EQ(found[i].rect.top, isHeader ? 49 : kBottom);
    EXPECT_EQ(found[i].rect.bottom, isHeader ? kTop : 969);
  }
}

TEST(QMPrintTextC, PrintsNoEmptySheetBehindAFullOne) {
  for (const char* end : {"", "\n", "\r\n"}) {
    RecordingDC dc;
    const std::string text = numbered(kLinesPerPage - 1) + "last" + end;
    EXPECT_EQ(QMPrintTextC().PrintText2(text.c_str(), &dc, "", ""), NoError);
    EXPECT_EQ(dc.jobCalls.size(), 4u) << "one page";
  }
  RecordingDC dc;
  EXPECT_EQ(QMPrintTextC().PrintText2("", &dc, nullptr, "Empty"), NoError);
  EXPECT_EQ(dc.jobCalls.front(), "StartDoc Empty");
  EXPECT_EQ(titles(dc).size(), 2u) << "header and footer";
}

TEST(QMPrintTextC, TellsLinesByEachKindOfEnd) {
  RecordingDC dc;
  ASSERT_EQ(QMPrintTextC().PrintText2("a\rb\nc\r\nd\r\n\r\n\n\re\t&", &dc, "", ""), NoError);
  EXPECT_EQ(textLines(dc), (std::vector<std::string>{"a", "b", "c", "d", "e       &"}));
  const LONG rows[] = {0, 1, 2, 3, 7};  // empty lines have their place
  ASSERT_EQ(dc.drawn.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(dc.drawn[i].rect.top, kTop + 20 * rows[i]);
}

TEST(QMPrintTextC, MovesALineThatDoesNotFitToTheNextPage) {
  RecordingDC dc;
  const std::string words = "0123456 ";  // ten of them fill a row of 80
  std::string three;
  for (int i = 0; i < 25; ++i) three += words;
  const std::string text = numbered(kLinesPerPage - 2) + three + "\nafter\n";
  ASSERT_EQ(QMPrintTextC().PrintText2(text.c_str(), &dc, "", ""), NoError);
  const auto& last = dc.drawn;
  const std::size_t size = last.size();  // ..., footer 1, the line, "after", footer 2: no header
  EXPECT_EQ(last[size - 3].page, 2);
  EXPECT_EQ(last[size - 3].lines.size(), 3u);
  EXPECT_EQ(last[size - 3].rect.top, kTop);
  EXPECT_EQ(last[size - 2].rect.top, kTop + 3 * 20);
}

TEST(QMPrintTextC, ContinuesALineThatIsHigherThanAPage) {
  // Cut between words where there are any, and never inside of a character.
  std::string words, letters;
  for (int i = 0; i < 2000; ++i) words += std::to_string(1'000'000 + i) + " ";
  for (int i = 0; i < 79 * 500; ++i) letters += i % 79 == 78 ? " " : "\xE2\x82\xAC";
  for (const std::string& line : {words, letters}) {
    RecordingDC dc;
    ASSERT_EQ(QMPrintTextC().PrintText2(("before\n" + line + "\nafter").c_str(), &dc, "", ""),
              NoError);
    std::string printed;
    for (const auto& drawn : dc.drawn) {
      if (drawn.format != kLine) continue;
      printed += drawn.text;
      EXPECT_LE(drawn.rect.top + 20 * static_cast<LONG>(drawn.lines.size()), kBottom);
      EXPECT_NE(drawn.text[0] & 0xC0, 0x80);
      EXPECT_TRUE(drawn.text.size() < 10 || drawn.text.back() == ' ');
    }
    EXPECT_EQ(printed, "before" + line + "after");
    EXPECT_EQ(dc.drawn[0].page, 1);
  }
}

TEST(QMPrintTextC, EndsWhateverTheFontIs) {
  RecordingDC dc;
  dc.cellHeight = 923;  // the page has 922
  qmtest::LogCapture log;
  EXPECT_EQ(QMPrintTextC().PrintText2("x", &dc, "", ""), QMErrors::SelectedFontIsTooLarge);
  EXPECT_TRUE(dc.jobCalls.empty());
  EXPECT_TRUE(log.contains(" ERROR: QMPrintTextC::PrintText(): the font is too big"));

  // Header and footer fill the page, or are in each other's way: a line a page.
  for (const int height : {922, 461, 300, 0}) {
    RecordingDC large;
    large.cellHeight = height;
    const bool hasHeight = height > 0;
    EXPECT_EQ(QMPrintTextC().PrintText2("a\n\nb", &large, "", ""),
              hasHeight ? NoError : QMErrors::fromOsError(ERROR_GEN_FAILURE));
    if (hasHeight) {
      EXPECT_EQ(textLines(large), (std::vector<std::string>{"a", "b"}));
    }
  }
}

/// Does something at each DrawText that draws.
class ActingDC : public RecordingDC {
 public:
  std::function<void()> act;
  int DrawText(const char* text, CRect* rect, UINT format) override {
    if ((format & DT_CALCRECT) == 0) act();
    return RecordingDC::DrawText(text, rect, format);
  }
};

TEST(QMPrintTextC, StopsBeforeTheNextLineWhenAborted) {
  QMPrintTextC printer;
  for (const std::size_t lines : {3, kLinesPerPage}) {
    ActingDC dc;
    dc.act = [&] {
      if (textLines(dc).size() + 1 == lines) qm::platform::setEvent(printer.m_hAbortEvent);
    };
    EXPECT_EQ(printer.PrintText2(numbered(100).c_str(), &dc, "", "t"), NoError);
    EXPECT_EQ(textLines(dc).size(), lines);
    EXPECT_EQ(dc.jobCalls,
              (std::vector<std::string>{"StartDoc ", "StartPage", "EndPage", "EndDoc"}))
        << "no sheet is begun that would stay empty";
    EXPECT_EQ(dc.drawn.back().text, "Page: 1");
  }
  // Also inside of a line that goes over many pages; and the event is reset for the next print.
  ActingDC dc;
  dc.act = [&] { qm::platform::setEvent(printer.m_hAbortEvent); };
  std::string longLine;
  while (longLine.size() < 100'000) longLine += "word ";
  EXPECT_EQ(printer.PrintText2(longLine.c_str(), &dc, "", ""), NoError);
  EXPECT_EQ(dc.jobCalls.size(), 4u);
}

TEST(QMPrintTextC, GivesTheDevicesFailureAndDiscardsTheDocument) {
  const std::string text = numbered(kLinesPerPage + 1);
  RecordingDC whole;
  ASSERT_EQ(QMPrintTextC().PrintText2(text.c_str(), &whole, "", "title"), NoError);
  ASSERT_GT(whole.calls, 2 * kLinesPerPage);
  for (int call = 1; call <= whole.calls; ++call) {
    for (const DWORD error : {ERROR_ACCESS_DENIED, DWORD{0}}) {
      RecordingDC dc;
      dc.failAt(call, error);
      qmtest::LogCapture log;
      ASSERT_EQ(QMPrintTextC().PrintText2(text.c_str(), &dc, "", "title"),
                QMErrors::fromOsError(error != 0 ? error : ERROR_GEN_FAILURE));
      ASSERT_EQ(log.lines().size(), 1u);
      ASSERT_TRUE(log.lines()[0].text.starts_with(" ERROR: QMPrintTextC::PrintText(): failed to "));
      const bool started = !dc.jobCalls.empty();
      ASSERT_TRUE(!started || dc.jobCalls.back() == "AbortDoc");
    }
  }
  QMPrintTextC printer;
  qm::platform::closeHandle(printer.m_hAbortEvent);
  qmtest::LogCapture log;
  EXPECT_EQ(printer.PrintText2("x", &whole, "", ""), QMErrors::fromOsError(ERROR_INVALID_HANDLE));
  EXPECT_TRUE(log.contains("QMPrintTextC::PrintText(): failed to reset m_hAbortEvent: "));
  printer.m_hAbortEvent = nullptr;
  EXPECT_EQ(QMPrintTextC().PrintText2(nullptr, &whole, "", ""), QMErrors::NullObjectProvided);
  EXPECT_EQ(QMPrintTextC().PrintText2("x", nullptr, "", ""), QMErrors::NullObjectProvided);
}

TEST(QMPrintTextC, ReadsEachKindOfTextFile) {
  using namespace std::string_literals;
  const qmtest::TempFolder folder;
  const std::string name = folder.file("a.log");
  const struct {
    std::string bytes;
    std::vector<std::string> lines;
  } files[] = {
      {"one\r\ntwo", {"one", "two"}},
      {"\xEF\xBB\xBFone", {"one"}},
      {"\xFF\xFEo\0\xAC\x20\r\0\n\0x\0"s, {"o\xE2\x82\xAC", "x"}},
      {"\xFE\xFF\0o\x20\xAC\0"s, {"o\xE2\x82\xAC\xEF\xBF\xBD"}},  // torn in a character
      {"a\0b"s, {"a b"}},
  };
  for (const auto& file : files) {
    qmtest::writeFile(name, file.bytes);
    RecordingDC dc;
    EXPECT_EQ(QMPrintTextC().PrintText(name.c_str(), &dc, "t"), NoError);
    EXPECT_EQ(textLines(dc), file.lines);
    EXPECT_EQ(dc.jobCalls.front(), "StartDoc " + name);
  }
  RecordingDC dc;
  const std::string missing = folder.file("missing");
  for (const char* bad :
       {missing.c_str(), folder.path().c_str(), "/dev/zero", static_cast<const char*>(nullptr)}) {
    qmtest::LogCapture log;
    EXPECT_EQ(QMPrintTextC().PrintText(bad, &dc, "t"), QMErrors::FailedToOpenFile);
    EXPECT_EQ(log.text(), " ERROR: QMPrintTextC::PrintText(): failed to open: "s +
                              (bad != nullptr ? bad : "") + "\n");
  }
  EXPECT_TRUE(dc.jobCalls.empty());
}

}  // namespace
