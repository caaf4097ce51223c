#include "qmutils/config/QMReadCfgC.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <locale>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

using QMErrors::NoError;
using QMErrors::QMErrorT;

constexpr QMErrorT kNotThere = QMErrors::EndOfFileError;
constexpr QMErrorT kUnopened = QMErrors::FailedToOpenFile;
constexpr QMErrorT kUnread = QMErrors::FailedToReadFromFile;

class ReadCfg : public testing::Test {
 protected:
  QMReadCfgC opened(const std::string& text) const {
    qmtest::writeFile(path_, text);
    QMReadCfgC file;
    EXPECT_EQ(file.OpenFileName(path_.c_str()), NoError);
    return file;
  }
  std::string saved(QMReadCfgC& file) const {
    EXPECT_EQ(file.CloseFile(1), NoError);
    return qmtest::readFile(path_);
  }

  const qmtest::TempFolder folder_;
  const std::string path_ = folder_.file("test.cfg");
  qmtest::LogCapture log_;
};

QMErrorT write(QMReadCfgC& file, const char* token, const std::vector<double>& values,
               int bContinue = 0) {
  return file.WriteToken(token, values.data(), static_cast<unsigned>(values.size()), bContinue);
}

TEST_F(ReadCfg, ReadsTheNumbersBehindATokenWhereverItIs) {
  const std::locale former = std::locale::global(std::locale("de_DE.UTF-8"));
  QMReadCfgC file = opened("XGAIN 1.5 -2e3\nGAIN\t\r\n 3,5\nPOS 1 2 x\nEND 7\nGAIN 8");
  const struct {
    const char* token;
    unsigned count;
    int bContinue;
    QMErrorT code;
    std::vector<double> values;  // -1 for what is not touched
  } kReads[] = {
      {"GAIN", 2, 0, NoError, {1.5, -2000}}, {"GAIN", 1, 1, NoError, {3, -1}},
      {",", 1, 1, NoError, {5, -1}},         {"GAIN", 1, 1, NoError, {8, -1}},
      {"GAIN", 1, 1, kNotThere, {-1, -1}},   {"gain", 1, 0, kNotThere, {-1, -1}},
      {"POS", 0, 0, NoError, {-1, -1}},      {"", 2, 1, NoError, {1, 2}},
      {" x", 0, 1, NoError, {-1, -1}},       {"POS", 1, 1, kNotThere, {-1, -1}},
  };
  for (const auto& [token, count, bContinue, code, expected] : kReads) {
    std::vector<double> values{-1, -1};
    EXPECT_EQ(file.ReadToken(token, values.data(), count, bContinue), code) << token;
    EXPECT_EQ(values, expected) << token << bContinue;
  }
  EXPECT_EQ(log_.text(), "");
  double values[3] = {-1, -1, -1};
  EXPECT_EQ(file.ReadToken("POS", values, 3, 0), kUnread);
  EXPECT_EQ(values[1], 2) << "numbers before the bad one are there";
  EXPECT_EQ(log_.text(),
            " ERROR: QMReadCfgC::ReadToken(): failed while reading object: 2 of 3, 0\n");
  EXPECT_EQ(file.ReadToken(" 1", values, 1, 1), NoError) << "it stands behind the token";
  EXPECT_EQ(file.ReadToken("8", values, 1, 0), kUnread) << "the text has ended";
  EXPECT_EQ(values[0], 0) << "as for any that cannot be read";
  // The place outlives the file.
  qmtest::writeFile(path_, "8 9");
  EXPECT_EQ(file.OpenFileName(path_.c_str()), NoError);
  EXPECT_EQ(file.ReadToken("8", values, 1, 1), kNotThere);
  EXPECT_EQ(file.ReadToken("8", values, 1, 0), NoError);
  std::locale::global(former);
}

TEST_F(ReadCfg, WritesALineAndGoesOnByTheOldText) {
  struct Write {
    const char* token;
    std::vector<double> values;
    int bContinue = 0;
  };
  const struct {
    std::string before;
    std::vector<Write> writes;
    std::string after;
  } kCases[] = {
      // Two characters shorter: the old line end is found.
      {"X 5\nA 1.50\nB 2\n", {{"A", {9}}}, "X 5\nA\t 9\n\nB 2\n"},
      {"A 1.5000\r\nB 2\r\n", {{"A", {9}}}, "A\t 9\n\r\nB 2\r\n"},
      // One shorter, as long, or longer: the next line end behind.
      {"A 1.5\nB 2\nC 3\n", {{"A", {9}}}, "A\t 9\n\nC 3\n"},
      {"A  9\nB 2\nC 3\n", {{"A", {9}}}, "A\t 9\n\nC 3\n"},
      {"A 1\nB 2\nC 3\nD 4\n", {{"A", {1.25, 2.25}}}, "A\t 1.25 2.25\n\n"},
      {"A 1\nB 2", {{"A", {9}}}, "A\t 9\n"},
      // A new token goes to the end; the recorded length stays, which cuts the next write.
      {"A 1\n", {{"B", {1234567, 0.1}}}, "A 1\nB\t 1.23457e+06 0.1\n"},
      {"A 1", {{"B", {}}}, "A 1B\t\n"},
      {"", {{"B", {2}}}, "B\t 2\n"},
      {"A 1.5000", {{"A", {9}}, {"B", {1}}, {"A", {}}}, "A\t\n\nB\t 1"},
      {"AAAAAA 1 2 3", {{"AAAAAA", {}}, {"A", {}}}, "A\t\n\n"},
      {"A 1\n", {{"B", {2}}, {"A", {7}}}, "A\t 7\n"},
      // Each further one behind the last.
      {"P 1.50\nP 1.60\nP 1.70\n", {{"P", {1}}, {"P", {2}, 1}}, "P\t 1\n\nP\t 2\n\nP 1.70\n"},
      {"P 1\n", {{"P", {1}}, {"P", {2}, 1}, {"P", {3}, 1}}, "P\t 1\nP\t 2\nP\t 3\n"},
      // A NUL ends the text where a line is added, and where it is saved.
      {std::string("A 1\n\0B 2\n", 9), {{"C", {3}}}, "A 1\nC\t 3\n"},
      {std::string("A 1\n\0B 200\nC\n", 13), {{"B", {3}}}, "A 1\n"},
  };
  for (const auto& [before, writes, after] : kCases) {
    QMReadCfgC file = opened(before);
    for (const Write& line : writes) {
      EXPECT_EQ(write(file, line.token, line.values, line.bContinue), NoError);
    }
    EXPECT_EQ(saved(file), after) << before;
  }
  QMReadCfgC file = opened("A 1\n");
  EXPECT_EQ(write(file, "B", {2.5}), NoError);
  double value = 0;
  EXPECT_EQ(file.ReadToken("B", &value, 1, 0), NoError);
  EXPECT_EQ(value, 2.5) << "what was written is read";
  EXPECT_EQ(file.CloseFile(0), NoError);
  EXPECT_EQ(qmtest::readFile(path_), "A 1\n") << "and forgotten";
  EXPECT_EQ(write(file, "B", {2.5}), NoError) << "nothing is open";
  EXPECT_EQ(file.ReadToken("B", &value, 1, 0), NoError);
}

TEST_F(ReadCfg, CopiesShareTheirTextUntilOneChanges) {
  std::optional<QMReadCfgC> first(opened("A 1.50\nA 2\n"));
  double value = 0;
  EXPECT_EQ(first->ReadToken("A", &value, 1, 0), NoError);
  QMReadCfgC second(*first), third;
  third = second;
  EXPECT_EQ(write(second, "A", {9}), NoError);
  first.reset();
  EXPECT_EQ(third.ReadToken("A", &value, 1, 1), NoError);
  EXPECT_EQ(value, 2);
  EXPECT_EQ(saved(second), "A\t 9\n\nA 2\n");
  EXPECT_EQ(saved(third), "A 1.50\nA 2\n");
}

TEST_F(ReadCfg, FailuresAreNamedAndLeaveWhatIsThere) {
  const std::string none = folder_.file("none/file"), label = "QMReadCfgC::";
  double value = 0;
  QMReadCfgC file;
  EXPECT_EQ(file.ReadToken("A", &value, 1, 0), kUnopened);
  EXPECT_EQ(file.CloseFile(1), NoError);
  file = opened("A 1\n");
  EXPECT_EQ(file.OpenFileName(none.c_str()), kUnopened);
  EXPECT_EQ(file.OpenFileName("/proc/self/mem"), kUnread);
  EXPECT_EQ(log_.text(),
            " ERROR: " + label + "ReadToken(): File has not been opened!!\n INFO: " + label +
                "CloseFile(): NULL == m_pFileName - nothing to close!!!: \n ERROR: " + label +
                "OpenFileName(): failed to open file: " + none + "\n ERROR: " + label +
                "OpenFileName(): failed reading from file: /proc/self/mem\n");
  const std::string pipe = folder_.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& endless : {std::string("/dev/zero"), pipe}) {
    EXPECT_EQ(file.OpenFileName(endless.c_str()), kUnopened) << endless;
  }
  EXPECT_EQ(file.ReadToken("A", &value, 1, 0), NoError) << "the first file is still open";

  log_.clear();
  EXPECT_EQ(write(file, "B", std::vector<double>(1000, 1.5)), NoError);
  QMReadCfgC copy(file);
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  const auto formerHandler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{1024, former.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const QMErrorT result = file.CloseFile(1);
  setrlimit(RLIMIT_FSIZE, &former);
  std::signal(SIGXFSZ, formerHandler);
  EXPECT_EQ(result, QMErrors::FailedToWriteToFile);
  EXPECT_EQ(file.ReadToken("A", &value, 1, 0), kUnopened) << "closed all the same";
  std::filesystem::permissions(path_, std::filesystem::perms::owner_read);
  EXPECT_EQ(copy.CloseFile(1), kUnopened);
  EXPECT_TRUE(log_.contains(label + "CloseFile(): failed writing to file: " + path_ + "\n"));
  EXPECT_TRUE(log_.contains(label + "CloseFile(): failed to open file: " + path_ + "\n"));
  EXPECT_EQ(qmtest::readFile(path_), "A 1\n");
}

TEST_F(ReadCfg, TakesMemoryForTheTextOnceAndSaysWhenThereIsNone) {
  QMReadCfgC file = opened(std::string(3'000'000, '#') + "\nA 1.50\n");
  double value = 0;
  const qmtest::MemoryPeak peak;
  EXPECT_EQ(file.ReadToken("A", &value, 1, 0), NoError);
  EXPECT_LT(peak.bytes(), 10'000u) << "a look-up copies no text";
  const double nine = 9;
  bool failed = true;
  for (int n = 1; failed; ++n) {
    QMErrorT codes[2];
    {
      const qmtest::FailingAllocation nth(n);
      codes[0] = file.OpenFileName(path_.c_str());
      codes[1] = file.WriteToken("A", &nine, 1, 0);
      failed = nth.hasFailed();
    }
    EXPECT_EQ(failed, codes[0] == QMErrors::MemoryAllocationFailed ||
                          codes[1] == QMErrors::MemoryAllocationFailed)
        << n;
    EXPECT_EQ(file.ReadToken("A", &value, 1, 0), NoError);
    EXPECT_EQ(value, codes[1] == NoError ? 9 : 1.5) << n;
  }
}

}  // namespace
