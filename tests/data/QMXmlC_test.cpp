#include "qmutils/data/QMXmlC.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

using QMErrors::NoError;

std::string written(const QMXmlC& node, unsigned indent = 0) {
  std::ostringstream os;
  EXPECT_EQ(node.ToStream(os, indent), NoError);
  return os.str();
}

QMErrors::QMErrorT readFrom(const std::string& text, QMXmlC& node) {
  std::istringstream is(text);
  return node.FromStream(is);
}

QMXmlC* child(QMXmlC& node, const char* name) {
  QMXmlC* added = nullptr;
  EXPECT_EQ(node.AddChild(name, &added), NoError);
  return added;
}

TEST(QMXmlC, WritesItsLayout) {
  QMXmlC group("Group", 0, nullptr);
  QMXmlC* item = child(group, "Item");
  item->AddProperty("A", "1");
  item->AddProperty("B", "2");
  child(group, "Text")->SetText("some <raw> text");
  EXPECT_EQ(written(group),
            "<Group>\r\n"
            " <Item A = \"1\" B = \"2\"  />\r\n"
            " <Text>some <raw> text</Text >\r\n"
            "</Group >\r\n");
  EXPECT_EQ(written(*item, 3), "   <Item A = \"1\" B = \"2\"  />\r\n");

  group.SetText("both");
  group.AddProperty("P", "v");
  group.ForceNewlineInOutput();
  EXPECT_EQ(written(group, 1).substr(0, 33), " <Group\r\nP = \"v\"\r\n>\r\nboth  <Item ");

  std::ostringstream os;
  os << std::hex << std::setw(20) << std::setfill('*') << group << 255;
  EXPECT_TRUE(os.str().starts_with("<Group")) << "the stream's format does not touch the tree";
  EXPECT_TRUE(os.str().ends_with("ff")) << "and is as it was";
}

class Listener : public QMXmlC::ErrorListenerC {
 public:
  void OnError(const char* text) override { reports += std::string(text) + "\n"; }
  std::string reports;
};

TEST(QMXmlC, ANodeWithoutANameIsNotWritten) {
  qmtest::LogCapture log;
  std::ostringstream os;
  EXPECT_EQ(QMXmlC(nullptr, 0, nullptr).ToStream(os, 0), QMErrors::NullObjectProvided);
  EXPECT_EQ(QMXmlC("", 0, nullptr).ToStream(os, 0), QMErrors::NullObjectProvided);
  for (const char* unreadable : {"!--x", "/x", "x/", "a b", "a>b", "a\nb"}) {
    EXPECT_EQ(QMXmlC(unreadable, 0, nullptr).ToStream(os, 0), QMErrors::ErrorBadlyFormedXML);
  }
  for (const char* unreadable : {"a>b", "a<b", "a=b", "a\"b", "/>", "<!--x", " a", "a\n"}) {
    QMXmlC node("node", 0, nullptr);
    node.AddProperty(unreadable, "1");
    EXPECT_EQ(node.ToStream(os, 0), QMErrors::ErrorBadlyFormedXML) << unreadable;
    std::ostringstream failing;
    EXPECT_FALSE(failing << node);
  }
  EXPECT_EQ(os.str(), "");
  EXPECT_TRUE(log.contains(" ERROR: QMXmlC::ToStream(): m_pObjectName is NULL: object invalid\n"));
  EXPECT_TRUE(log.contains(" ERROR: QMXmlC::ToStream(): m_pObjectName is empty: object invalid\n"));
  QMXmlC named("x", 0, nullptr);
  EXPECT_EQ(named.AddChild(nullptr, nullptr), QMErrors::NullObjectProvided);
  EXPECT_TRUE(log.contains("NULL == pChildName"));
}

TEST(QMXmlC, ReadsWhatItIsGiven) {
  const std::pair<const char*, const char*> kCases[] = {
      // and as it is written again
      {"<a/>", "<a />\r\n"},
      {"  <!-- c --><!----> <a></a>", "<a />\r\n"},
      {"< a x=\"1\"/>", "<a x = \"1\"  />\r\n"},
      {"<a x = \" 1 \"\ty\n=\r\"<&>\" >t</a>", "<a x = \"1\" y = \"<&>\" >t</a >\r\n"},
      {"<a>  one <!-- x --> two <b/> three </a >", "<a>\r\nonetwothree <b />\r\n</a >\r\n"},
      {"<a><b><c/></b><d/></a>", "<a>\r\n <b>\r\n  <c />\r\n </b >\r\n <d />\r\n</a >\r\n"},
      {"<a><b></b\n></a anything>", "<a>\r\n <b />\r\n</a >\r\n"},
      {"<a>-></a>", "<a>-></a >\r\n"},
  };
  for (const auto& [text, expected] : kCases) {
    qmtest::LogCapture log;
    QMXmlC root("former", 0, nullptr), again(nullptr, 0, nullptr);
    EXPECT_EQ(readFrom(text, root), NoError) << text << log.text();
    EXPECT_EQ(written(root), expected) << text;
    EXPECT_EQ(readFrom(written(root), again), NoError);
    EXPECT_EQ(written(again), written(root));
  }
  QMXmlC strict("x", 1, nullptr);  // takes white space behind the bracket for an empty name
  EXPECT_EQ(readFrom("< p=\"1\"/>", strict), NoError);
  std::ostringstream name;
  strict.GetObjectName(name);
  EXPECT_EQ(name.str(), "");
  EXPECT_STREQ(strict.GetProperty("p"), "1");
}

TEST(QMXmlC, ReportsErrorsOnceWithLineAndOffset) {
  const std::string badly = "ERROR:Error: badly formed XML: 9204, at ";
  const struct {
    const char* text;
    int line, offset;  // no line: the end of the text is the error
  } kCases[] = {
      {"", 1, 0},
      {"text", 1, 0},
      {"<a>\n <b>\n </c>\n</a>", 3, 5},
      {"<a x=1/>", 1, 6},
      {"<a x/>", 1, 6},
      {"<a x=\"1", 1, 7},
      {"<a>text", 1, 7},
      {"<a", 1, 2},
      {"<>", 1, 1},
      {"</a/>", 1, 3},
      {"<a/ >t</a/>", 1, 3},
      {"< !--x--/>", 1, 8},
      {"<a><!-- c --><b>x</b><!-- d --><b></ b></a>", 1, 39},
      {"<!-- no end", 0, 0},
      {"<a><!-- no end --", 0, 0},
  };
  for (const auto& [text, line, offset] : kCases) {
    Listener listener;
    QMXmlC root(nullptr, 0, &listener);
    EXPECT_EQ(readFrom(text, root),
              line != 0 ? QMErrors::ErrorBadlyFormedXML : QMErrors::EndOfFileError)
        << text;
    const std::string place =
        "line:" + std::to_string(line) + ", offset:" + std::to_string(offset) + "\n";
    EXPECT_TRUE(listener.reports.starts_with(line != 0 ? badly + place : "ERROR:End of file"))
        << text << " gave " << listener.reports;
    EXPECT_EQ(std::count(listener.reports.begin(), listener.reports.end(), '\n'), 1) << text;
  }

  std::istringstream is("<a>\n</a>\n  <b>\n</c>");
  Listener listener;
  QMXmlC first(nullptr, 0, &listener), second(nullptr, 0, &listener);
  EXPECT_TRUE(is >> first);
  EXPECT_FALSE(is >> second);
  EXPECT_EQ(listener.reports, badly + "line:4, offset:4\n") << "counted from the stream's start";
  listener.reports.clear();
  std::istream nothing(nullptr);
  EXPECT_EQ(second.FromStream(nothing), QMErrors::ErrorBadlyFormedXML);
  EXPECT_EQ(listener.reports, badly + "line:1, offset:0\n");

  qmtest::LogCapture log;
  QMXmlC unheard(nullptr, 0, nullptr);
  EXPECT_EQ(readFrom("<a><b>", unheard), QMErrors::ErrorBadlyFormedXML);
  EXPECT_EQ(log.text(), badly + "line:1, offset:6\n");
  EXPECT_EQ(written(unheard), "<a>\r\n <b />\r\n</a >\r\n") << "what was read stays";
  log.clear();
  EXPECT_EQ(readFrom("text", unheard), QMErrors::ErrorBadlyFormedXML);
  EXPECT_TRUE(log.contains(" ERROR: QMXmlC::FromStream(): not an XML object!!\n"));
}

TEST(QMXmlC, FindsByNameAndPath) {
  QMXmlC root(nullptr, 0, nullptr);
  ASSERT_EQ(readFrom("<r><a><x n=\"1\"/></a><b><x n=\"2\"/><y/></b><x n=\"3\"/></r>", root),
            NoError);
  EXPECT_EQ(root.Find("r", 0, nullptr), &root);
  EXPECT_EQ(root.Find("a", 0, nullptr), nullptr);
  EXPECT_EQ(root.Find(nullptr, 1, nullptr), nullptr);
  QMXmlC* const first = root.Find("x", 1, nullptr);
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->GetProperty("n"), "1");
  EXPECT_STREQ(root.Find("x", 1, first)->GetProperty("n"), "2");
  EXPECT_STREQ(root.Find("b.x", 1, nullptr)->GetProperty("n"), "2");
  EXPECT_STREQ(root.Find("r.a.x", 1, nullptr)->GetProperty("n"), "1");
  EXPECT_EQ(root.Find("a.y", 1, nullptr), nullptr);
  EXPECT_EQ(root.Find("b.", 1, nullptr), nullptr);
  QMXmlC* const y = root.Find("b.y", 1, nullptr);
  EXPECT_EQ(y->FindAbove("r"), &root);
  EXPECT_EQ(y->FindAbove("y"), nullptr);
  EXPECT_EQ(y->GetParent(), root.Find("b", 1, nullptr));
  EXPECT_EQ(child(root, "late")->GetParent(), nullptr) << "only the reader sets parents";

  std::ostringstream value;
  EXPECT_EQ(first->GetProperty("n", value), NoError);
  EXPECT_EQ(value.str(), std::string("1\0", 2));
  EXPECT_EQ(first->GetProperty("N", value), QMErrors::EndOfFileError);
  EXPECT_EQ(value.str().size(), 2u);
}

TEST(QMXmlC, ANodeWithoutMemoryIsEmptyNotHalf) {
  qmtest::LogCapture log;
  const std::string name(50, 'n');
  QMXmlC tree(name.c_str(), 0, nullptr);
  ASSERT_EQ(tree.AddChild(name.c_str(), nullptr), NoError);
  tree.AddProperty(name.c_str(), name.c_str());
  int failures = 0;
  for (int n = 1;; ++n) {
    std::optional<qmtest::FailingAllocation> nth(n);
    const QMXmlC named(name.c_str(), 0, nullptr);
    const QMXmlC copy(tree);
    const bool failed = nth->hasFailed();
    nth.reset();
    if (!failed) break;
    ++failures;
    std::ostringstream os;
    const QMErrors::QMErrorT code = copy.ToStream(os, 0);
    EXPECT_EQ(code, n > 1 ? QMErrors::NullObjectProvided : NoError) << n;
    EXPECT_EQ(copy.GetFirstChild() == nullptr, n > 1) << n;
  }
  EXPECT_GT(failures, 5);
}

TEST(QMXmlC, LinksAndUnlinksNodes) {
  qmtest::LogCapture log;
  auto* root = new QMXmlC("root", 0, nullptr);
  auto* a = new QMXmlC("a", 0, nullptr);
  auto* b = new QMXmlC("b", 0, nullptr);
  EXPECT_EQ(root->AddChild(*a), NoError);
  EXPECT_EQ(a->AddChild(*b), NoError);
  for (QMXmlC* refused : {a, b, root}) {
    EXPECT_EQ(b->AddChild(*refused), QMErrors::FailedToAddChild);
  }
  EXPECT_EQ(root->RemoveChild(b, 1), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(log.text(),
            " ERROR: QMXmlC::FromStream(): Attempt to remove a non-existent child: Attempted "
            "removal from :root\n");
  EXPECT_EQ(a->RemoveChild(b, 0), NoError);
  EXPECT_EQ(root->AddChild(*b), NoError);
  EXPECT_EQ(written(*root), "<root>\r\n <a />\r\n <b />\r\n</root >\r\n");
  delete a;  // leaves the tree
  EXPECT_EQ(root->GetFirstChild(), b);
  EXPECT_EQ(root->RemoveChild(b, 1), NoError);
  EXPECT_EQ(root->RemoveChild(b, 1), QMErrors::BadCommandLineArguments) << "it is gone";
  EXPECT_EQ(root->GetFirstChild(), nullptr);
  EXPECT_EQ(root->RemoveChild(nullptr, 1), NoError);

  QMXmlC read(nullptr, 0, nullptr);
  ASSERT_EQ(readFrom("<r><a/><b><c/></b></r>", read), NoError);
  EXPECT_EQ(read.Find("b", 1, nullptr)->RemoveChild(nullptr, 1), NoError);
  EXPECT_EQ(written(read), "<r>\r\n <a />\r\n</r >\r\n");
  const QMXmlC copy(read);
  EXPECT_EQ(written(copy), written(read));
}

TEST(QMXmlC, DepthCostsNoStack) {
  constexpr int kDepth = 200000;
  std::string text;
  for (int i = 0; i < kDepth; ++i) text += "<a>";
  for (int i = 0; i < kDepth; ++i) text += "</a>";
  QMXmlC root(nullptr, 0, nullptr);
  ASSERT_EQ(readFrom(text, root), NoError);
  EXPECT_EQ(root.Find("b", 1, nullptr), nullptr);
  const QMXmlC copy(root);
  QMXmlC wide("w", 0, nullptr);
  for (int i = 0; i < kDepth; ++i) wide.AddProperty("p", "v");
}

TEST(QMXmlC, SavesInOneStep) {
  qmtest::LogCapture log;
  qmtest::TempFolder folder;
  const std::string file = folder.file("tree.xml");
  QMXmlC tree("Tree", 0, nullptr), large("Large", 0, nullptr), loaded(nullptr, 0, nullptr);
  tree.AddProperty("a", "1");
  EXPECT_EQ(tree.Save(file.c_str()), NoError);
  EXPECT_EQ(qmtest::readFile(file), "<Tree a = \"1\"  />\r\n");
  EXPECT_EQ(loaded.Load(file.c_str()), NoError);
  EXPECT_STREQ(loaded.GetProperty("a"), "1");
  EXPECT_EQ(log.text(), "");

  // A tree that cannot be written, also because the disk is full, leaves the old file and no trace.
  child(tree, "");
  EXPECT_EQ(tree.Save(file.c_str()), QMErrors::NullObjectProvided);
  EXPECT_TRUE(log.contains(" ERROR: QMXmlC::Save(): failed for file:" + file + "\n"));
  EXPECT_FALSE(std::filesystem::exists(file + ".tmp"));
  large.SetText(std::string(100000, 'x').c_str());
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  const auto formerHandler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{4096, former.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const QMErrors::QMErrorT result = large.Save(file.c_str());
  setrlimit(RLIMIT_FSIZE, &former);
  std::signal(SIGXFSZ, formerHandler);
  EXPECT_EQ(result, QMErrors::FailedToWriteXMLObject);
  EXPECT_EQ(qmtest::readFile(file), "<Tree a = \"1\"  />\r\n");
  EXPECT_FALSE(std::filesystem::exists(file + ".tmp"));

  EXPECT_EQ(tree.Save(nullptr), QMErrors::FailedToOpenFile);
  EXPECT_TRUE(log.contains(" ERROR: QMXmlC::Save(): failed to open:null\n"));
  EXPECT_EQ(tree.Save(folder.file("none/x.xml").c_str()), QMErrors::FailedToOpenFile);
  EXPECT_EQ(loaded.Load(folder.file("none.xml").c_str()), QMErrors::FailedToOpenFile);
  EXPECT_EQ(loaded.Load(folder.path().c_str()), QMErrors::FailedToOpenFile);
  EXPECT_TRUE(log.contains(" ERROR: QMXmlC::Load(): failed for file:" + folder.file("none.xml")));
}

}  // namespace
