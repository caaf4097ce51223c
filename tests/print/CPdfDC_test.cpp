#include "qmutils_print/CPdfDC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "qmutils/app/QMPrintTextC.h"
#include "qmutils/data/QMXmlC.h"
#include "qmutils/platform/error.h"
#include "tests/print/Document.h"
#include "tests/support/TempFolder.h"

namespace {

using QMErrors::NoError;
using qmtest::Document;
using qmtest::Word;

constexpr double kPointsPerUnit = 72.0 / 600;

class CPdfDC_ : public ::testing::Test {
 protected:
  static qm::PageSetup setup(const char* font) {
    qm::PageSetup result;
    result.font = font;
    return result;
  }

  /// Draws on a page of its own, and gives the words.
  template <class Draw>
  std::vector<Word> drawn(const char* font, Draw draw) {
    CPdfDC dc(path.c_str(), setup(font));
    EXPECT_GT(dc.StartDoc("x"), 0);
    EXPECT_GT(dc.StartPage(), 0);
    draw(dc);
    EXPECT_GT(dc.EndPage(), 0);
    EXPECT_GT(dc.EndDoc(), 0) << qm::platform::lastError();
    return Document(path).words();
  }

  const qmtest::TempFolder folder;
  const std::string path = folder.file("out.pdf");
};

TEST_F(CPdfDC_, HoldsEveryWordOfALongLogInItsOrder) {
  std::string text;
  std::vector<std::string> expected;
  for (int i = 0; i < 2'500; ++i) {
    text += std::to_string(i);
    expected.push_back(std::to_string(i));
    for (int word = 0; word < 1 + i % 40; ++word) {
      expected.push_back("w" + std::to_string(i * 100 + word));
      text += (word == 0 ? "\t" : " ") + expected.back();
    }
    text += "\r\n";
  }
  qmtest::writeFile(folder.file("in.log"), text);
  CPdfDC dc(path.c_str());
  ASSERT_EQ(QMPrintTextC().PrintText(folder.file("in.log").c_str(), &dc, "Heading"), NoError);

  const Document document(path);
  EXPECT_EQ(document.info("Pages"), std::to_string(dc.GetPageCount()));
  EXPECT_GT(dc.GetPageCount(), 50u);
  EXPECT_EQ(document.info("Title"), folder.file("in.log"));
  EXPECT_TRUE(document.info("Page size").starts_with("595.276 x 841.89 pts (A4)"));
  std::vector<std::string> found;
  std::vector<int> headings(dc.GetPageCount() + 1), footers(dc.GetPageCount() + 1);
  const std::vector<Word> words = document.words();
  for (std::size_t i = 0; i < words.size(); ++i) {
    const Word& word = words[i];
    // The printable area and its 10 mm margins.
    ASSERT_GE(word.left, 17.9);
    ASSERT_LE(word.right, 595.3 - 17.9);
    ASSERT_GE(word.top, 45.5);
    ASSERT_LE(word.bottom, 841.9 - 45.5);
    if (word.text == "Heading") {
      ++headings[word.page];
    } else if (word.text == "Page:") {
      ++footers[word.page];
      ASSERT_EQ(words.at(++i).text, std::to_string(word.page));
    } else {
      found.push_back(word.text);
    }
  }
  EXPECT_EQ(found, expected);
  EXPECT_EQ(std::count(headings.begin() + 1, headings.end(), 1), dc.GetPageCount());
  EXPECT_EQ(std::count(footers.begin() + 1, footers.end(), 1), dc.GetPageCount());
}

TEST_F(CPdfDC_, WrapsWordsAndExpandsTabs) {
  CRect measured(500, 500, 1'110, 600);
  const std::string longWord(100, 'm');
  TEXTMETRIC font{};
  const std::vector<Word> words = drawn("DejaVu Sans Mono 10", [&](CPdfDC& dc) {
    ASSERT_TRUE(dc.GetTextMetrics(&font));
    const std::string text = "a\tb\n1234567\tc\none two three four " + longWord;
    const int height = dc.DrawText(text.c_str(), &measured, 0xD50);
    EXPECT_EQ(height, measured.Height());
    CRect rect(500, 500, 1'110, 600);
    EXPECT_EQ(dc.DrawText(text.c_str(), &rect, 0x950), measured.Height());
  });
  EXPECT_EQ(measured.left, 500);
  EXPECT_LE(measured.right, 1'110);
  EXPECT_EQ(font.tmHeight, 97) << "10 points of this font at 600 dpi";
  EXPECT_EQ(font.tmAveCharWidth, 50);
  ASSERT_GT(words.size(), 10u);
  std::string letters;
  for (const Word& word : words) {
    EXPECT_GE(word.left, 500 * kPointsPerUnit - 0.1);
    EXPECT_LE(word.right, 1'110 * kPointsPerUnit + 0.1);
    if (!word.text.starts_with("m")) continue;
    letters += word.text;
    EXPECT_TRUE(word.text.size() == 12 || letters.size() == 100) << "no room for a hyphen";
  }
  EXPECT_EQ(letters, longWord) << "a word longer than a row is broken, and nothing of it lost";
  EXPECT_NEAR(words[1].left, (500 + 8 * 50) * kPointsPerUnit, 0.2);
  EXPECT_NEAR(words[3].left, words[1].left, 0.01);
  const double rows = (words.back().bottom - words.front().top) / (97 * kPointsPerUnit);
  EXPECT_NEAR(measured.Height(), std::lround(rows) * 97.0, 2);
}

TEST_F(CPdfDC_, PlacesALineAsAsked) {
  const CRect box(1'000, 1'000, 3'000, 2'000);
  const std::string path = "C:\\Jobs\\" + std::string(80, 'x') + "\\last.tif";
  const std::vector<Word> words = drawn("DejaVu Sans 10", [&](CPdfDC& dc) {
    const auto draw = [&](const std::string& text, UINT format) {
      CRect rect = box;
      return dc.DrawText(text.c_str(), &rect, format);
    };
    EXPECT_GT(draw("left", DT_SINGLELINE), 0);
    EXPECT_GT(draw("centre", DT_SINGLELINE | DT_CENTER), 0);
    EXPECT_GT(draw("right", DT_SINGLELINE | DT_RIGHT), 0);
    EXPECT_NEAR(draw("middle", DT_SINGLELINE | DT_VCENTER), 500 + 97 / 2, 2);
    EXPECT_EQ(draw("bottom", DT_SINGLELINE | DT_BOTTOM), 1'000);
    EXPECT_GT(draw(path, 0x4961), 0);
    EXPECT_GT(draw("&File\r\n&&&x", DT_SINGLELINE), 0);
    EXPECT_GT(draw("&File", DT_SINGLELINE | DT_NOPREFIX), 0);
  });
  ASSERT_EQ(words.size(), 10u);
  const double left = 120, right = 360, top = 120, bottom = 240;  // of the box, in points
  EXPECT_NEAR(words[0].left, left, 1);
  EXPECT_NEAR(words[0].top, top, 2);
  EXPECT_NEAR((words[1].left + words[1].right) / 2, (left + right) / 2, 1);
  EXPECT_NEAR(words[2].right, right, 1);
  EXPECT_NEAR((words[3].top + words[3].bottom) / 2, (top + bottom) / 2, 2);
  EXPECT_NEAR(words[4].bottom, bottom, 2);
  EXPECT_TRUE(words[5].text.starts_with("C:\\Jobs\\"));
  EXPECT_TRUE(words[6].text.ends_with("\\last.tif")) << "the dots are in the middle";
  EXPECT_GE(words[5].left, left);
  EXPECT_LE(words[6].right, right + 0.1);
  EXPECT_EQ(words[7].text + words[8].text, "File&amp;x");
  EXPECT_EQ(words[9].text, "&amp;File");
}

TEST_F(CPdfDC_, DrawsNothingOutsideOfARectangleThatClips) {
  const auto inkBeyond = [&](UINT format) {
    drawn("DejaVu Sans Mono 20", [&](CPdfDC& dc) {
      CRect rect(600, 600, 1'200, 700);
      EXPECT_GT(dc.DrawText("MMMMMMMMMMMMMMMMMMMMMMMM", &rect, DT_SINGLELINE | format), 0);
    });
    // One byte a pixel, of a page of 595 x 842 points, behind a header.
    const std::string picture = qmtest::outputOf("pdftoppm -gray -r 72 " + path);
    int ink = 0;
    for (int x = 146; x < 590; ++x) {
      for (int y = 60; y < 110; ++y) {
        ink += picture.at(picture.size() - 596 * 842 + y * 596 + x) != '\xFF';
      }
    }
    return ink;
  };
  EXPECT_EQ(inkBeyond(0), 0);
  EXPECT_GT(inkBeyond(DT_NOCLIP), 100);
}

TEST_F(CPdfDC_, TakesAnyFontPaperAndText) {
  qm::PageSetup wanted = setup("DejaVu Serif Bold Italic 12");
  wanted.paper = *qm::findPaper("5.5x8.5in");
  wanted.landscape = true;
  CPdfDC dc(path.c_str(), wanted);
  EXPECT_EQ(dc.GetFontFamily(), "DejaVu Serif");
  EXPECT_EQ(dc.GetDeviceCaps(PHYSICALWIDTH), 5'100);
  EXPECT_EQ(dc.GetDeviceCaps(HORZRES), 5'100 - 2 * 150);
  EXPECT_EQ(dc.GetDeviceCaps(PHYSICALOFFSETY), 150);
  EXPECT_EQ(dc.GetDeviceCaps(-1), 0);
  const std::string text = "caf\xC3\xA9 \xD0\x94\xD0\xB0 \xE2\x82\xAC latin\xE9 \x93q\x94";
  ASSERT_EQ(QMPrintTextC().PrintText2(text.c_str(), &dc, "Tit\xE9l", "t"), NoError);
  const Document document(path);
  EXPECT_TRUE(document.info("Page size").starts_with("612 x 396 pts"));
  EXPECT_EQ(document.info("Title"), "Tit\xC3\xA9l");
  EXPECT_NE(document.fonts().find("DejaVuSerif-BoldItalic"), std::string::npos);
  const std::vector<Word> words = document.words();
  ASSERT_GE(words.size(), 6u);
  EXPECT_EQ(words[1].text, "caf\xC3\xA9");
  EXPECT_EQ(words[2].text, "\xD0\x94\xD0\xB0");
  EXPECT_EQ(words[3].text, "\xE2\x82\xAC");
  EXPECT_EQ(words[4].text, "latin\xC3\xA9") << "a byte that is no UTF-8 is of Windows-1252";
  EXPECT_EQ(words[5].text, "\xE2\x80\x9Cq\xE2\x80\x9D");

  for (const char* bad : {"Sans 0", "Sans 20000"}) EXPECT_FALSE(dc.SetFont(bad)) << bad;
  EXPECT_FALSE(dc.SetFont(nullptr));
  EXPECT_EQ(dc.GetFontFamily(), "DejaVu Serif");
  EXPECT_TRUE(dc.SetFont("No Such Font 1000"));
  EXPECT_NE(dc.GetFontFamily(), "No Such Font");
  EXPECT_EQ(QMPrintTextC().PrintText2("x", &dc, "", ""), QMErrors::SelectedFontIsTooLarge);
  TEXTMETRIC points{}, pixels{};
  EXPECT_TRUE(dc.SetFont("DejaVu Sans 12") && dc.GetTextMetrics(&points));
  EXPECT_TRUE(dc.SetFont("DejaVu Sans 16px") && dc.GetTextMetrics(&pixels));
  EXPECT_EQ(points.tmHeight, pixels.tmHeight);
}

TEST_F(CPdfDC_, LosesNoCharacterOfALongLine) {
  std::string line;
  while (line.size() < 15'000) line += "word" + std::to_string(line.size()) + "; ";
  std::string solid;
  while (solid.size() < 15'000) solid += std::to_string(solid.size());
  for (const char* font : {"DejaVu Sans Mono 12", "DejaVu Sans 24", "DejaVu Sans Mono 60"}) {
    for (const std::string& text : {line, solid}) {
      CPdfDC dc(path.c_str(), setup(font));
      ASSERT_EQ(QMPrintTextC().PrintText2(text.c_str(), &dc, "", ""), NoError) << font;
      std::string printed, expected;
      const std::vector<Word> words = Document(path).words();
      for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i].text == "Page:" || words[i].text.starts_with("Page:")) {
          i += words[i].text == "Page:";
        } else {
          printed += words[i].text;
        }
      }
      for (const char c : text) expected += c != ' ' ? std::string(1, c) : "";
      EXPECT_TRUE(printed == expected) << font << ": " << printed.size() << " characters";
    }
  }
}

TEST_F(CPdfDC_, GivesEachRowItsHeight) {
  CPdfDC dc(path.c_str(), setup("DejaVu Sans Mono 10"));
  const struct {
    const char* text;
    int rows;
  } texts[] = {{"", 1}, {"a\n\nb", 3}, {"a\n", 2}, {"\x07\x1B\x0C", 1}, {"\xC2\x80\x93", 1}};
  for (const auto& text : texts) {
    CRect rect(0, 0, 1'000, 1'000);
    EXPECT_EQ(dc.DrawText(text.text, &rect, 0xD50), text.rows * 97) << text.text;
  }
  CRect rect(0, 0, 1'000, 1'000);
  EXPECT_LT(dc.DrawText("\xCD\xB8", &rect, 0xD50), 2 * 97) << "a character that no font has";
}

TEST_F(CPdfDC_, RefusesWhatCannotBe) {
  const auto refused = [](int result) {
    return result == 0 && qm::platform::lastError() == ERROR_INVALID_PARAMETER;
  };
  for (const double bad : {-1e9, -1.0, 105.0, 1e300, std::nan("")}) {
    qm::PageSetup unusable;
    unusable.marginMm = bad;
    CPdfDC margin(path.c_str(), unusable);
    EXPECT_EQ(margin.GetDeviceCaps(HORZRES), 0);
    unusable = {};
    unusable.paper.widthMm = bad == 105 ? 0 : bad;
    CPdfDC paper(path.c_str(), unusable);
    for (CPdfDC* dc : {&margin, &paper}) {
      EXPECT_TRUE(refused(dc->StartDoc("")));
      EXPECT_EQ(QMPrintTextC().PrintText2("x", dc, "", ""),
                QMErrors::fromOsError(ERROR_INVALID_PARAMETER));
    }
  }
  CPdfDC dc(path.c_str(), setup("Sans 0"));
  EXPECT_TRUE(refused(dc.StartDoc("")));
  EXPECT_TRUE(dc.SetFont("DejaVu Sans 10"));
  const std::string huge(1 << 20, 'm');
  EXPECT_EQ(QMPrintTextC().PrintText2("x", &dc, "", huge.c_str()), NoError) << "title with dots";
  CRect rect(0, 0, 100, 100);
  EXPECT_TRUE(refused(dc.DrawText(huge.c_str(), &rect, DT_CALCRECT)));
  EXPECT_GT(dc.StartDoc("") + dc.StartPage(), 1);
  constexpr LONG kFar = 0x7FFFFFFF;
  CRect far(kFar, kFar, kFar, kFar), wide(-kFar, -kFar, kFar, kFar), above(0, 500, 1'000, 500);
  for (CRect* place : {&far, &wide, &above}) {
    EXPECT_GT(dc.DrawText("x", place, DT_SINGLELINE | DT_BOTTOM), 0);
    EXPECT_GT(dc.DrawText("x", place, DT_CALCRECT), 0);
  }
}

TEST(FindPaper, KnowsNamesAndSizes) {
  const struct {
    const char* name;
    double widthMm, heightMm;
  } papers[] = {{"A4", 210, 297},           {"a0", 841, 1189},       {"LETTER", 215.9, 279.4},
                {"100x200", 100, 200},      {"100x200mm", 100, 200}, {"10.5X20CM", 105, 200},
                {"8.5x11in", 215.9, 279.4}, {"720x72pt", 254, 25.4}};
  for (const auto& paper : papers) {
    const auto found = qm::findPaper(paper.name);
    ASSERT_TRUE(found.has_value()) << paper.name;
    EXPECT_NEAR(found->widthMm, paper.widthMm, 1e-9) << paper.name;
    EXPECT_NEAR(found->heightMm, paper.heightMm, 1e-9) << paper.name;
  }
  for (const char* bad : {"", "A11", "x", "100", "100x", "x200", "100x200ft", "100x200 mm", "9x200",
                          "100x5001", "nanx100", "1e3x100", "-20x100", "100x200x300"}) {
    EXPECT_FALSE(qm::findPaper(bad).has_value()) << bad;
  }
}

TEST_F(CPdfDC_, DrawsAnElementTree) {
  QMXmlC root("Plate", 0, nullptr);
  root.AddProperty("Name", "A & B");
  root.AddChild("Clip", nullptr);
  const std::vector<Word> words = drawn("DejaVu Sans Mono 10", [&](CPdfDC& dc) {
    CRect rect(600, 600, 4'000, 6'000);
    EXPECT_EQ(root.PrettyXML(&dc, 1, &rect), NoError);
    EXPECT_EQ(rect.top, 600 + 3 * 97);
  });
  std::string text;
  for (const Word& word : words) text += word.text;
  EXPECT_EQ(text, "&lt;PlateName=&quot;A&amp;B&quot;&gt;&lt;Clip/&gt;&lt;/Plate&gt;");
}

TEST_F(CPdfDC_, ReplacesAFileOnlyWithAWholeDocument) {
  qmtest::writeFile(path, "old");
  {
    CPdfDC dc(path.c_str());
    EXPECT_GT(dc.StartDoc(nullptr), 0);
    EXPECT_GT(dc.StartPage(), 0);
    EXPECT_GT(dc.AbortDoc(), 0);
    EXPECT_EQ(qmtest::readFile(path), "old");
    EXPECT_GT(dc.StartDoc(nullptr), 0) << "another document";
    EXPECT_GT(dc.StartPage(), 0);
  }
  EXPECT_EQ(qmtest::readFile(path), "old") << "a document that was not ended";
  EXPECT_EQ(qmtest::outputOf("ls " + folder.path()), "out.pdf\n");

  CPdfDC nowhere(folder.file("none/out.pdf").c_str());
  EXPECT_EQ(QMPrintTextC().PrintText2("x", &nowhere, "", ""),
            QMErrors::fromOsError(ERROR_PATH_NOT_FOUND));
}

TEST_F(CPdfDC_, RefusesCallsAtTheWrongTime) {
  CPdfDC dc(path.c_str());
  const auto refused = [](int result) {
    return result == 0 && qm::platform::lastError() == ERROR_INVALID_HANDLE;
  };
  CRect rect(0, 0, 100, 100);
  EXPECT_TRUE(refused(dc.StartPage()) && refused(dc.EndPage()) && refused(dc.EndDoc()) &&
              refused(dc.AbortDoc()) && refused(dc.DrawText("x", &rect, 0)));
  EXPECT_GT(dc.DrawText("x", &rect, DT_CALCRECT), 0);
  EXPECT_GT(dc.StartDoc(""), 0);
  EXPECT_TRUE(refused(dc.StartDoc("")) && refused(dc.EndPage()) &&
              refused(dc.DrawText("x", &rect, 0)));
  EXPECT_GT(dc.StartPage(), 0);
  EXPECT_TRUE(refused(dc.StartPage()));
  EXPECT_GT(dc.EndDoc(), 0) << "ends the page, too";
  EXPECT_EQ(Document(path).info("Pages"), "1");
}

/// Takes so many bytes.
class FullOutputC : public CPdfDC::OutputC {
 public:
  FullOutputC(std::size_t room, int& discarded) : room_(room), discarded_(discarded) {}
  bool Open(const char*) override { return true; }
  bool Write(const void*, std::size_t size) override {
    if (size <= room_) return room_ -= size, true;
    qm::platform::setLastError(ERROR_DISK_FULL);
    return false;
  }
  int Close() override { return 7; }
  void Discard() override { ++discarded_; }

 private:
  std::size_t room_;
  int& discarded_;
};

class FullDC : public CPdfDC {
 public:
  FullDC(std::size_t room, int& discarded)
      : CPdfDC(std::make_unique<FullOutputC>(room, discarded), {}) {}
};

TEST(CPdfDCOutput, TellsThatTheDiskIsFull) {
  std::string text;
  for (int i = 0; i < 3'000; ++i) text += "line " + std::to_string(i) + "\n";
  for (const std::size_t room : {0, 10, 20'000}) {
    int discarded = 0;
    FullDC dc(room, discarded);
    EXPECT_EQ(QMPrintTextC().PrintText2(text.c_str(), &dc, "", ""),
              QMErrors::fromOsError(ERROR_DISK_FULL));
    EXPECT_EQ(discarded, 1);
    EXPECT_LT(dc.GetPageCount(), 51u);
  }
  int discarded = 0;
  FullDC dc(1 << 30, discarded);
  EXPECT_GT(dc.StartDoc("") + dc.StartPage(), 1);
  EXPECT_EQ(dc.EndDoc(), 7);
  EXPECT_EQ(discarded, 0);
}

}  // namespace
