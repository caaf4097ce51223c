#include "qmutils/config/QMIniFileC.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "qmutils/data/QMGUIDEncryptC.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using QMErrors::NoError;
using QMErrors::QMErrorT;
using Sections = std::vector<QMIniFileC::SectionS>;

std::string textOf(const Sections& sections) {
  std::string text;
  for (const auto& [name, values] : sections) {
    text.append("[").append(name.view()).append("]\n");
    for (const auto& [key, value] : values) {
      text.append(key.view()).append("=").append(value.view()).append("\n");
    }
  }
  return text;
}

/// Runs `work` under a limit of the process.
template <class Work>
void limited(__rlimit_resource resource, rlim_t value, Work work) {
  rlimit former{};
  getrlimit(resource, &former);
  const rlimit small{value, former.rlim_max};
  setrlimit(resource, &small);
  work();
  setrlimit(resource, &former);
}

/// Each test runs with a plain file and with an encoded one.
class IniFile : public testing::TestWithParam<int> {
 protected:
  void store(const std::string& text) const {
    std::stringstream source(text), encoded;
    if (bEncoded_ != 0) QMGUIDEncryptC::Encode(source, encoded, QMGUIDEncryptC::PUBLIC_KEY);
    qmtest::writeFile(path_, bEncoded_ != 0 ? encoded.str() : text);
  }
  std::string stored() const {
    if (bEncoded_ == 0) return qmtest::readFile(path_);
    std::stringstream decoded;
    EXPECT_EQ(QMGUIDEncryptC::Decode(path_.c_str(), decoded, QMGUIDEncryptC::PUBLIC_KEY), NoError);
    return decoded.str();
  }
  /// What one look-up appends.
  std::string read(const char* section, const char* key, const char* defaultText = nullptr,
                   QMErrorT expected = NoError) const {
    const CString given(defaultText);
    CString value("before ");
    EXPECT_EQ(QMIniFileC(path_.c_str(), bEncoded_)
                  .Read(section, key, defaultText != nullptr ? &given : nullptr, value),
              expected);
    EXPECT_TRUE(value.view().starts_with("before "));
    return static_cast<const char*>(value.Mid(7));
  }

  const int bEncoded_ = GetParam();
  const qmtest::TempFolder folder_;
  const std::string path_ = folder_.file("test.ini");
  qmtest::LogCapture log_;
};
INSTANTIATE_TEST_SUITE_P(, IniFile, testing::Values(0, 1));

TEST_P(IniFile, AppendsWholeValuesAndDefaultsAndWritesNothing) {
  std::string text = "[s]\n";
  for (std::size_t size = 0; size < 100; ++size) {
    text += "k" + std::to_string(size) + "=" + std::string(size, 'x') + "\n";
  }
  store(text + "cut=a" + '\0' + "b\n");
  const std::string file = qmtest::readFile(path_);
  for (std::size_t size = 0; size < 100; ++size) {
    EXPECT_EQ(read("S", ("K" + std::to_string(size)).c_str(), "d"), std::string(size, 'x'));
  }
  EXPECT_EQ(read("s", "cut"), "a");
  EXPECT_EQ(read("s", "none"), "");
  EXPECT_EQ(read("s", "none", " a  "), " a") << "spaces at a default's end are cut";
  EXPECT_EQ(qmtest::readFile(path_), file);
  { const QMIniFileC unused(folder_.file("none").c_str(), bEncoded_); }
  EXPECT_FALSE(fs::exists(folder_.file("none")));
  EXPECT_EQ(log_.text(), "");
}

TEST_P(IniFile, WritesArriveTogetherInAnEncodedFile) {
  store("; c\n[s]\nk=1000\n");
  const std::string before = qmtest::readFile(path_);
  {
    QMIniFileC file(path_.c_str(), bEncoded_);
    EXPECT_EQ(file.Write("s", "k", "2"), NoError);
    EXPECT_EQ(qmtest::readFile(path_) == before, bEncoded_ != 0);
    EXPECT_EQ(file.Write("t", "k", nullptr), NoError);
    CString value;
    EXPECT_EQ(file.Read("s", "k", nullptr, value), NoError);
    EXPECT_EQ(value.view(), "2");
    EXPECT_EQ(file.Save(), NoError);
    EXPECT_EQ(stored(), "; c\n[s]\nk=2\n[t]\nk=\n");
    EXPECT_EQ(file.Write("t", "l", "3"), NoError) << "it can be used again";
    EXPECT_EQ(file.Write("t", "a=b", "3"), QMErrors::FailedToWriteToFile);
    Sections sections;
    EXPECT_EQ(file.List(nullptr, sections), NoError);
    EXPECT_EQ(textOf(sections), "[s]\nk=2\n[t]\nk=\nl=3\n");
    EXPECT_EQ(file.List("T", sections), NoError);
    EXPECT_EQ(textOf(sections), "[t]\nk=\nl=3\n");
    EXPECT_EQ(file.List("none", sections), NoError);
    EXPECT_EQ(textOf(sections), "");
  }
  EXPECT_EQ(stored(), "; c\n[s]\nk=2\n[t]\nk=\nl=3\n");
  EXPECT_TRUE(log_.text().starts_with(" ERROR: QMIniFileC::_Write(): Failed to write to: " +
                                      (bEncoded_ != 0 ? "/proc/" : path_ + "\n")));
}

TEST_P(IniFile, AFileThatCannotBeWrittenStaysAsItWas) {
  store("[s]\nk=1\n");
  const std::string before = qmtest::readFile(path_), large(10000, 'x');
  const auto formerHandler = std::signal(SIGXFSZ, SIG_IGN);
  auto file = std::make_unique<QMIniFileC>(path_.c_str(), bEncoded_);
  if (bEncoded_ != 0) {
    EXPECT_EQ(file->Write("s", "k", large.c_str()), NoError);
    limited(RLIMIT_FSIZE, 4096, [&] {
      EXPECT_EQ(file->Save(), QMErrors::FailedToWriteToFile);
      EXPECT_EQ(QMErrors::lastOsError(), QMErrors::fromOsError(223)) << "too large";
      file.reset();
    });
    EXPECT_TRUE(log_.contains(" ERROR: QMIniFileC::Flush(): failed encoding: " + path_ + "\n"));
  } else {
    limited(RLIMIT_FSIZE, 4096, [&] {
      EXPECT_EQ(file->Write("s", "k", large.c_str()), QMErrors::FailedToWriteToFile);
    });
  }
  std::signal(SIGXFSZ, formerHandler);
  EXPECT_EQ(qmtest::readFile(path_), before);
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
  fs::permissions(path_, fs::perms::owner_read);
  file = std::make_unique<QMIniFileC>(path_.c_str(), bEncoded_);
  EXPECT_EQ(file->Write("s", "k", "2"), bEncoded_ != 0 ? NoError : QMErrors::FailedToWriteToFile);
  EXPECT_EQ(file->Save(), bEncoded_ != 0 ? QMErrors::FailedToOpenFile : NoError);
  EXPECT_EQ(qmtest::readFile(path_), before);
  EXPECT_EQ(QMErrors::lastOsError(), QMErrors::fromOsError(ERROR_ACCESS_DENIED));
  fs::permissions(path_, fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(file->Write("s", "l", "3"), NoError);
  EXPECT_EQ(file->Save(), NoError) << "what could not be saved is not lost";
  EXPECT_EQ(stored(), bEncoded_ != 0 ? "[s]\nk=2\nl=3\n" : "[s]\nk=1\nl=3\n");
}

TEST_P(IniFile, AMissingOrBrokenFileGivesTheDefault) {
  const bool encoded = bEncoded_ != 0;
  EXPECT_EQ(read("s", "k", "d ", encoded ? QMErrors::FailedToOpenFile : NoError),
            encoded ? "d " : "d");
  EXPECT_EQ(log_.text().empty(), !encoded);
  QMIniFileC file(path_.c_str(), bEncoded_);
  EXPECT_EQ(file.Write("s", "k", "v"), encoded ? QMErrors::FailedToOpenFile : NoError);
  EXPECT_EQ(fs::exists(path_), !encoded);
  log_.clear();
  if (encoded) {
    qmtest::writeFile(path_, "[s]\nk=v\n");
    EXPECT_EQ(read("s", "k", "d", QMErrors::FailedToReadFromFile), "d");
    store("[s]\nk=v\n");
    qmtest::writeFile(path_, qmtest::readFile(path_) + "x");
    EXPECT_EQ(read("s", "k", "d", QMErrors::InvalidObjectEncoding), "d");
    CString value;
    QMErrorT result = NoError;
    limited(RLIMIT_NOFILE, 0, [&] { result = file.Read("s", "k", nullptr, value); });
    EXPECT_EQ(result, QMErrors::ResourceAllocationFailed);
    EXPECT_TRUE(log_.text().ends_with(
        "QMIniFileC::Initialise(): failed to create temporary file for extraction.\n"));
  } else {
    fs::remove(path_);
    fs::create_directory(path_);
    EXPECT_EQ(read("s", "k", "d"), "d");
    EXPECT_TRUE(log_.text().starts_with(" WARNING: QMIniFileC::_Read(): ")) << log_.text();
  }
}

TEST_P(IniFile, WithoutMemoryThereIsACodeAndTheOldFile) {
  const std::string value(100, 'v'), before = "[s]\nk=" + value + "\n";
  bool failed = true;
  store(before);
  EXPECT_EQ(read("s", "k"), value);  // what the thread needs for its life is there
  for (int n = 1; failed; ++n) {
    store(before);
    CString seen;
    Sections sections;
    QMErrorT codes[4];
    {
      const qmtest::FailingAllocation nth(n);
      QMIniFileC file(path_.c_str(), bEncoded_);
      codes[0] = file.Read("s", "k", nullptr, seen);
      codes[1] = file.Write("s", "k", "2");
      codes[2] = file.Save();
      codes[3] = file.List(nullptr, sections);
      failed = nth.hasFailed();
    }
    const char* const after = codes[1] == NoError ? "[s]\nk=2\n" : before.c_str();
    EXPECT_EQ(seen.view(), codes[0] == NoError ? value : "") << n;
    EXPECT_EQ(stored(), after) << n << ": the destructor has saved what Save() could not";
    EXPECT_EQ(textOf(sections), codes[3] == NoError ? after : "") << n;
    EXPECT_EQ(failed, std::ranges::count(codes, NoError) < 4) << n;
  }
}

}  // namespace
