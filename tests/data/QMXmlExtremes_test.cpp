// XML trees where things are large, cut in awkward places, or interrupted.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <istream>
#include <optional>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/data/XmlWindow.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PiecewiseBuffer.h"
#include "tests/support/TempFolder.h"

namespace {

using QMErrors::NoError;

const std::string kDocument =
    "<!-- a - b -- c ---><Group  a = \"1\"\r\n b\t= \" two \" >text <!----> more\n"
    "<It/em x=\"/>\"/>< Deep><!-->--><b><c d=\"\"></c></b>< /Deep >\n</Group\n>";

std::string written(const QMXmlC& node) {
  std::ostringstream os;
  EXPECT_EQ(node.ToStream(os, 0), NoError);
  return os.str();
}

class Listener : public QMXmlC::ErrorListenerC {
 public:
  void OnError(const char* text) override { report = text; }
  std::string report;
};

/// All that a caller sees of reading an element from a stream, in one text.
std::string outcomeOf(std::streambuf* buffer) {
  Listener listener;
  QMXmlC node("none", 0, &listener);
  std::istream is(buffer);
  std::ostringstream outcome;
  outcome << node.FromStream(is) << '\n' << listener.report << '\n' << is.eof() << '\n';
  (void)node.ToStream(outcome, 0);
  is.clear();
  outcome << "rest: " << std::string(std::istreambuf_iterator<char>(is), {});
  return outcome.str();
}

TEST(QMXmlExtremes, HowTheStreamIsBufferedMakesNoDifference) {
  qmtest::LogCapture log;
  for (std::size_t cut = 0; cut <= kDocument.size(); ++cut) {
    for (const std::string behind : {"", "<next/>"}) {
      const std::string text = kDocument.substr(0, cut) + behind;
      std::stringbuf whole(text);
      const std::string expected = outcomeOf(&whole);
      for (std::size_t piece : {0, 1, 2, 3, 5, 64}) {
        qmtest::PiecewiseBuffer buffer(text, piece);
        ASSERT_EQ(outcomeOf(&buffer), expected) << text << " by " << piece;
      }
      if (cut == kDocument.size()) {
        EXPECT_TRUE(expected.starts_with("0\n\n0\n")) << expected;
        EXPECT_TRUE(expected.ends_with("rest: " + behind))
            << "the stream is left behind the element";
      }
    }
  }
}

TEST(QMXmlExtremes, EveryTokenMayCrossTheWindowsOfAFile) {
  qmtest::TempFolder folder;
  const std::string file = folder.file("tree.xml");
  QMXmlC expected(nullptr, 0, nullptr);
  std::istringstream whole(kDocument);
  ASSERT_EQ(expected.FromStream(whole), NoError);
  for (std::size_t shift = 0; shift <= kDocument.size(); ++shift) {
    // A line feed in front shows that lines are counted over windows too.
    const std::string padding = "\n" + std::string(qm::XmlWindow::kSize - 1 - shift, ' ');
    qmtest::writeFile(file, padding + kDocument);
    QMXmlC node(nullptr, 0, nullptr);
    ASSERT_EQ(node.Load(file.c_str()), NoError) << shift;
    EXPECT_EQ(written(node), written(expected)) << shift;
  }
  qmtest::LogCapture log;
  Listener listener;
  QMXmlC broken(nullptr, 0, &listener);
  qmtest::writeFile(file, "<a>\n" + std::string(50000, '\n') + std::string(50000, ' ') + "<>");
  EXPECT_EQ(broken.Load(file.c_str()), QMErrors::ErrorBadlyFormedXML);
  EXPECT_TRUE(listener.report.ends_with(", at line:50002, offset:50001")) << listener.report;
}

#ifdef __SANITIZE_THREAD__
constexpr int kLess = 10;  // much memory is slow where each byte has several of shadow
#else
constexpr int kLess = 1;
#endif

TEST(QMXmlExtremes, MemoryIsInProportionToTheDocument) {
  constexpr int kDepth = 1'000'000 / kLess;
  std::string nested;
  for (int i = 0; i < kDepth; ++i) nested += "<a>";
  for (int i = 0; i < kDepth; ++i) nested += "</a>";
  std::istringstream is(std::move(nested));
  qmtest::MemoryPeak peak;
  {
    QMXmlC root(nullptr, 0, nullptr);
    ASSERT_EQ(root.FromStream(is), NoError);
  }
  EXPECT_LT(peak.bytes(), 200u * kDepth);

  // A string that grows holds its former and its new place at a time. The files have holes, as long
  // as they say but hardly anything on the disk.
  qmtest::TempFolder folder;
  constexpr std::size_t kLarge = 100'000'000 / kLess;
  const std::string text = folder.file("text.xml"), property = folder.file("property.xml");
  qmtest::writeFile(text, "<a>");
  std::filesystem::resize_file(text, kLarge + 3);
  std::ofstream(text, std::ios::app) << "</a>";
  QMXmlC large(nullptr, 0, nullptr);
  qmtest::MemoryPeak textPeak;
  ASSERT_EQ(large.Load(text.c_str()), NoError);
  EXPECT_EQ(large.GetText().size(), kLarge);
  EXPECT_LT(textPeak.bytes(), 3 * kLarge);

  qmtest::LogCapture log;
  Listener listener;
  QMXmlC endless(nullptr, 0, &listener);
  qmtest::writeFile(property, "<a p=\"");
  std::filesystem::resize_file(property, kLarge);
  qmtest::MemoryPeak propertyPeak;
  EXPECT_EQ(endless.Load(property.c_str()), QMErrors::ErrorBadlyFormedXML);
  EXPECT_TRUE(listener.report.ends_with("line:1, offset:" + std::to_string(kLarge)))
      << listener.report;
  EXPECT_EQ(endless.GetProperty("p"), nullptr);
  EXPECT_LT(propertyPeak.bytes(), 3 * kLarge);
}

TEST(QMXmlExtremes, ReadingWithoutMemoryGivesACode) {
  qmtest::LogCapture log;
  const std::string name(50, 'n');
  const std::string text = "<a " + name + "=\"" + name + "\"><b>" + name + "</b></a>";
  int failures = 0;
  for (int n = 1;; ++n) {
    Listener listener;
    QMXmlC node(nullptr, 0, &listener);
    std::istringstream is(text);
    std::optional<qmtest::FailingAllocation> nth(n);
    const QMErrors::QMErrorT code = node.FromStream(is);
    const bool failed = nth->hasFailed();
    nth.reset();
    EXPECT_EQ(code, failed ? QMErrors::MemoryAllocationFailed : NoError) << n;
    if (!failed) break;
    ++failures;
  }
  EXPECT_GE(failures, 6) << "window, property and its texts, child, its text";
}

/// Takes so many characters and no more.
class FullBuffer : public std::streambuf {
 public:
  explicit FullBuffer(std::streamsize room) : room_(room) {}

 protected:
  std::streamsize xsputn(const char*, std::streamsize count) override {
    const std::streamsize taken = std::min(count, room_);
    room_ -= taken;
    return taken;
  }
  int_type overflow(int_type c) override {
    return room_-- > 0 ? traits_type::not_eof(c) : traits_type::eof();
  }

 private:
  std::streamsize room_;
};

class ThrowingBuffer : public std::stringbuf {
 public:
  using std::stringbuf::stringbuf;
  int_type underflow() override {
    const int_type c = std::stringbuf::underflow();
    if (c == traits_type::eof()) throw 1;
    return c;
  }
};

TEST(QMXmlExtremes, TheStreamsStateTellsHowItEndedWhateverItThrows) {
  qmtest::LogCapture log;
  for (const std::string text : {"", "<a", "<a x", "<a x=\"", "<a>text", "</a", "<!-- no end"}) {
    for (const auto exceptions : {std::ios::goodbit, std::ios::eofbit, std::ios::failbit}) {
      std::istringstream is(text);
      is.exceptions(exceptions);
      QMXmlC node(nullptr, 0, nullptr);
      EXPECT_EQ(node.FromStream(is),
                text.starts_with("<!") ? QMErrors::EndOfFileError : QMErrors::ErrorBadlyFormedXML)
          << text << " " << exceptions;
      EXPECT_EQ(is.rdstate(), std::ios::eofbit) << text;
    }
    ThrowingBuffer broken(text);
    std::istream is(&broken);
    QMXmlC node(nullptr, 0, nullptr);
    EXPECT_EQ(node.FromStream(is), QMErrors::ErrorBadlyFormedXML) << text;
    EXPECT_TRUE(is.bad()) << text;
  }
  QMXmlC node("node", 0, nullptr);
  node.AddProperty("name", "value");
  FullBuffer full(0);
  std::ostream os(&full);
  os.exceptions(std::ios::badbit | std::ios::failbit);
  EXPECT_EQ(node.GetProperty("name", os), QMErrors::FailedToWriteXMLObject);
  node.GetObjectName(os);
}

TEST(QMXmlExtremes, AStreamThatTakesNoMoreIsNoticedWhereverThatIs) {
  QMXmlC tree("Tree", 0, nullptr);
  for (int i = 0; i < 3000; ++i) {
    QMXmlC* item = nullptr;
    ASSERT_EQ(tree.AddChild("Item", &item), NoError);
    item->AddProperty("Name", "value");
  }
  const auto size = static_cast<std::streamsize>(written(tree).size());
  for (std::streamsize room : {std::streamsize{0}, size / 2, size - 1, size}) {
    for (const auto exceptions : {std::ios::goodbit, std::ios::badbit}) {
      FullBuffer buffer(room);
      std::ostream os(&buffer);
      os.exceptions(exceptions);
      EXPECT_EQ(tree.ToStream(os, 0), room < size ? QMErrors::FailedToWriteXMLObject : NoError);
    }
  }
  // A node in the middle that cannot be written leaves all that stands before it.
  qmtest::LogCapture log;
  const std::string before = written(tree);
  ASSERT_EQ(tree.AddChild("", nullptr), NoError);
  std::ostringstream os;
  EXPECT_EQ(tree.ToStream(os, 0), QMErrors::NullObjectProvided);
  EXPECT_EQ(os.str() + "</Tree >\r\n", before);
}

TEST(QMXmlExtremes, AKilledSaveLeavesAWholeFile) {
  constexpr int kKills = 30;
  qmtest::TempFolder folder;
  const std::string file = folder.file("tree.xml");
  QMXmlC first("First", 0, nullptr), second("Second", 0, nullptr);
  first.SetText(std::string(300'000, '1').c_str());
  second.SetText(std::string(200'000, '2').c_str());
  const std::string versions[] = {written(first), written(second)};
  for (int kill = 0; kill < kKills; ++kill) {
    int saved[2];
    ASSERT_EQ(pipe(saved), 0);
    const pid_t saver = fork();
    ASSERT_GE(saver, 0);
    if (saver == 0) {
      for (const QMXmlC* tree = &first;; tree = tree == &first ? &second : &first) {
        if (tree->Save(file.c_str()) != NoError) _exit(1);
        if (tree == &second && write(saved[1], "s", 1) != 1) _exit(1);
      }
    }
    close(saved[1]);
    char both = 0;
    EXPECT_EQ(read(saved[0], &both, 1), 1) << "both versions were saved";
    usleep(static_cast<useconds_t>(kill * 150));
    ::kill(saver, SIGKILL);
    int status = 0;
    waitpid(saver, &status, 0);
    close(saved[0]);
    EXPECT_TRUE(WIFSIGNALED(status)) << "it saved until it was killed";
    const std::string content = qmtest::readFile(file);
    EXPECT_TRUE(content == versions[0] || content == versions[1]) << content.size();
  }
  EXPECT_EQ(first.Save(file.c_str()), NoError) << "whatever the killed ones left";
  EXPECT_EQ(qmtest::readFile(file), versions[0]);
  EXPECT_FALSE(std::filesystem::exists(file + ".tmp"));
}

}  // namespace
