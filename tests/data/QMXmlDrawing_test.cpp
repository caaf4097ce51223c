#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>

#include "qmutils/data/QMXmlC.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingDC.h"

namespace {

using QMErrors::NoError;

QMXmlC* child(QMXmlC& node, const char* name) {
  QMXmlC* added = nullptr;
  EXPECT_EQ(node.AddChild(name, &added), NoError);
  return added;
}

/// What was drawn, with a line feed behind each line.
std::string textOf(const qmtest::RecordingDC& dc) {
  std::string text;
  for (const auto& drawn : dc.drawn) {
    EXPECT_EQ(drawn.lines.size(), 1u);
    text += drawn.lines.front() + "\n";
  }
  return text;
}

TEST(QMXmlDrawing, DrawsTheWrittenLinesBelowEachOther) {
  qmtest::RecordingDC dc;
  QMXmlC group("Group", 0, nullptr);
  child(group, "Item")->AddProperty("A", "1");
  child(group, "Text")->SetText("one\ttab\nx & y\n\nlast");
  CRect rect(5, 100, 300, 1000);
  EXPECT_EQ(group.PrettyXML(&dc, 2, &rect), NoError);
  EXPECT_EQ(textOf(dc),
            "  <Group>\n"
            "   <Item A = \"1\"  />\n"
            "   <Text>one    tab\n"
            "x & y\n"
            "last</Text >\n"
            "  </Group >\n");
  const LONG tops[] = {100, 120, 140, 160, 200, 220};  // the empty line has its place
  for (std::size_t i = 0; i < dc.drawn.size(); ++i) {
    const CRect& place = dc.drawn[i].rect;
    EXPECT_EQ(place.top, tops[i]);
    EXPECT_EQ(place.left, 5);
    EXPECT_EQ(place.Width(), 295);
    EXPECT_EQ(place.Height(), 20);
    EXPECT_EQ(dc.drawn[i].format, 0x860u) << "single line, tabs, & as it stands, clipped";
  }
  EXPECT_EQ(rect.top, 240) << "where the caller goes on";
}

TEST(QMXmlDrawing, ProducesNothingBelowTheRectangle) {
  // A node without a name stands where a writer that goes too far would find it.
  for (const bool nested : {false, true}) {
    qmtest::RecordingDC dc;
    QMXmlC root("r", 0, nullptr);
    QMXmlC* last = &root;
    for (int i = 0; i < 4; ++i) last = child(nested ? *last : root, "line");
    child(nested ? *last : root, "");
    CRect rect(0, 0, 200, 90);
    EXPECT_EQ(root.PrettyXML(&dc, 0, &rect), NoError);
    ASSERT_EQ(dc.drawn.size(), 5u);
    EXPECT_EQ(dc.drawn.back().rect.bottom, 90) << "clipped";
    EXPECT_EQ(rect.top, 100);
    const CRect full = rect;
    EXPECT_EQ(root.PrettyXML(&dc, 0, &rect), NoError);
    EXPECT_EQ(dc.drawn.size(), 5u);
    EXPECT_EQ(rect.top, full.top);
  }
  qmtest::RecordingDC dc;
  dc.cellHeight = 1;
  QMXmlC properties("p", 0, nullptr);
  for (int i = 0; i < 1000; ++i) properties.AddProperty("name", "value");
  properties.ForceNewlineInOutput();
  properties.SetText(std::string(1'000'000, 'x').c_str());
  CRect rect(0, 0, 100, 1004);
  EXPECT_EQ(properties.PrettyXML(&dc, 4'000'000u, &rect), NoError);
  ASSERT_EQ(dc.drawn.size(), 1002u);
  EXPECT_EQ(dc.drawn[0].text, std::string(400, ' ')) << "what cannot be seen is cut";
  EXPECT_EQ(dc.drawn[1].text, "name = \"value\"");
  EXPECT_EQ(dc.drawn[1001].text.size(), 400u);
}

TEST(QMXmlDrawing, EndsAtTheEdgesOfAllCoordinates) {
  constexpr LONG kMax = std::numeric_limits<LONG>::max(), kMin = std::numeric_limits<LONG>::min();
  QMXmlC root("r", 0, nullptr);
  for (int i = 0; i < 3; ++i) child(root, "a");
  for (const int height : {20, static_cast<int>(kMax)}) {
    for (const CRect& whole :
         {CRect(kMin, kMin, kMax, kMax), CRect(0, kMax - 5, 100, kMax), CRect(9, 9, 1, 1)}) {
      qmtest::RecordingDC dc;
      dc.cellHeight = height;
      CRect rect = whole;
      EXPECT_EQ(root.PrettyXML(&dc, 0, &rect), NoError);
      EXPECT_GE(rect.top, whole.top);
    }
  }
}

TEST(QMXmlDrawing, TellsWhatFailed) {
  qmtest::LogCapture log;
  qmtest::RecordingDC dc;
  QMXmlC root("r", 0, nullptr);
  child(root, "a");
  CRect rect(0, 0, 200, 500);
  EXPECT_EQ(root.PrettyXML(nullptr, 0, &rect), QMErrors::NullObjectProvided);
  EXPECT_EQ(root.PrettyXML(&dc, 0, nullptr), QMErrors::NullObjectProvided);
  for (int failing : {1, 2, 4}) {  // the metrics, the first line, the last
    log.clear();
    dc.drawn.clear();
    rect.top = 0;
    dc.failAt(failing, ERROR_INVALID_HANDLE);
    EXPECT_EQ(root.PrettyXML(&dc, 0, &rect), 0x20000006);
    EXPECT_EQ(static_cast<int>(dc.drawn.size()), failing < 2 ? 0 : failing - 2);
    EXPECT_EQ(rect.top, static_cast<LONG>(dc.drawn.size()) * 20);
    EXPECT_EQ(log.text(), " ERROR: QMXmlC::PrettyXML(): Error: 6 (0x6) The handle is invalid.\n");
  }
  dc.failAt(1, 0);
  EXPECT_EQ(root.PrettyXML(&dc, 0, &rect), 0x20000000 | ERROR_GEN_FAILURE) << "never a success";

  dc.drawn.clear();
  log.clear();
  rect.top = 0;
  root.SetText("text");
  root.RemoveChild(root.GetFirstChild(), 1);
  child(root, "");
  EXPECT_EQ(root.PrettyXML(&dc, 0, &rect), QMErrors::NullObjectProvided);
  EXPECT_EQ(textOf(dc), "<r>\ntext\n") << "what stands before it is drawn";
  EXPECT_EQ(log.text(), " ERROR: QMXmlC::ToStream(): m_pObjectName is empty: object invalid\n");
}

}  // namespace
