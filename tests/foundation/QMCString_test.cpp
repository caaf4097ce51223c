#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "qmutils/windowing/CString.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"

namespace {

TEST(QMCString, HoldsAndJoinsTexts) {
  CString s("plate");
  s += '-';
  s += "A2";
  EXPECT_EQ(s, "plate-A2");
  EXPECT_EQ("C:" + s + '.' + "xml", "C:plate-A2.xml");
  EXPECT_EQ('<' + (s + s), "<plate-A2plate-A2");
  QMCString copy(s);
  copy = 'x';
  EXPECT_EQ(copy, "x");
  EXPECT_EQ(s, "plate-A2");
  copy = s;
  EXPECT_TRUE(copy == s && copy == "plate-A2" && copy != "plate");
  s.Empty();
  EXPECT_TRUE(s.IsEmpty());
  EXPECT_STREQ(s, "");
  EXPECT_EQ(copy.GetLength(), 8);
  EXPECT_STREQ(QMCString(nullptr), "");
  s += nullptr;
  EXPECT_EQ(s.GetLength(), 0);
}

TEST(QMCString, FindsFromAPosition) {
  const QMCString s("abcabc");
  EXPECT_EQ(s.Find('c'), 2);
  EXPECT_EQ(s.Find('c', 3), 5);
  EXPECT_EQ(s.Find('c', 6), -1);
  EXPECT_EQ(s.Find('x'), -1);
  EXPECT_EQ(s.Find("ca"), 2);
  EXPECT_EQ(s.Find("bc", 2), 4);
  EXPECT_EQ(s.Find("bc", -5), 1);
  EXPECT_EQ(s.Find("abcd"), -1);
  EXPECT_EQ(s.Find(""), 0);
  EXPECT_EQ(s.Find("", 3), 0);
  EXPECT_EQ(s.Find("a", 100), -1);
  EXPECT_EQ(s[1], 'b');
  EXPECT_EQ(s.GetAt(-1), '\0');
  EXPECT_EQ(s.GetAt(6), '\0');
}

TEST(QMCString, PartsStayInsideTheText) {
  const QMCString s("abcdef");
  for (int n : {INT_MIN, -1, 0}) {
    EXPECT_TRUE(s.Left(n).IsEmpty() && s.Right(n).IsEmpty() && s.Mid(2, n).IsEmpty()) << n;
  }
  EXPECT_EQ(s.Left(2), "ab");
  EXPECT_EQ(s.Right(2), "ef");
  EXPECT_EQ(s.Mid(2), "cdef");
  EXPECT_EQ(s.Mid(2, 3), "cde");
  EXPECT_EQ(s.Mid(-1, 2), "ab");
  for (int n : {6, 7, INT_MAX}) {
    EXPECT_EQ(s.Left(n), "abcdef");
    EXPECT_EQ(s.Right(n), "abcdef");
    EXPECT_EQ(s.Mid(1, n), "bcdef");
    EXPECT_TRUE(s.Mid(n).IsEmpty());
  }
}

TEST(QMCString, Compares) {
  EXPECT_EQ(QMCString("ab").Compare("abc"), -1);
  EXPECT_EQ(QMCString("abc").Compare("abc"), 0);
  EXPECT_EQ(QMCString("abd").Compare("abc"), 1);
  EXPECT_EQ(QMCString("\xE9").Compare("z"), 1) << "bytes are unsigned";
  EXPECT_EQ(QMCString("").Compare(nullptr), 0);
  EXPECT_EQ(QMCString("PLATE").CompareNoCase("plate"), 0);
  EXPECT_LT(QMCString("Plate_").CompareNoCase("platea"), 0) << "'_' stands before 'a', not 'A'";
  EXPECT_GT(QMCString("b").CompareNoCase("A"), 0);
  EXPECT_LT(QMCString("ab").CompareNoCase("ABC"), 0);
}

TEST(QMCString, FormatsTextOfAnyLength) {
  QMCString s("plate");
  s.Format("%s-%05d %.2f", static_cast<const char*>(s), 42, 1.5);
  EXPECT_EQ(s, "plate-00042 1.50");
  const std::string longText(100'000, 'x');
  s.Format("%s|%s", longText.c_str(), longText.c_str());
  EXPECT_EQ(s.view(), longText + "|" + longText);
}

TEST(QMCString, RunningOutOfMemoryKeepsTheTextAndIsLogged) {
  const std::string longText(100, 'x');
  qmtest::LogCapture log;
  QMCString s("kept");
  const auto failing = [&](auto operation) {
    log.clear();
    qmtest::FailingAllocation next(1);
    operation();
    EXPECT_TRUE(next.hasFailed());
  };
  failing([&] { s += longText.c_str(); });
  EXPECT_EQ(s, "kept");
  EXPECT_EQ(log.text(), " ERROR: QMCString: Memory allocation failed: 2001\n");
  failing([&] { s.Format("%s", longText.c_str()); });
  EXPECT_EQ(s, "kept");
  failing([&] { EXPECT_TRUE(QMCString(longText.c_str()).IsEmpty()); });
}

}  // namespace
