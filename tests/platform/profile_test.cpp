#include "qmutils/platform/profile.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/profile_cache.h"
#include "qmutils/platform/unicode_text.h"
#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using qm::platform::lastError;
using qm::platform::readProfile;
using qm::platform::writeProfile;
using Sections = std::vector<qm::platform::ProfileSection>;

/// One of the ways in which the same text may be stored.
struct Form {
  std::string lineEnd;
  enum { Bytes, Utf8, LittleEndian, BigEndian } encoding;

  std::string fileOf(const std::string& text) const {
    std::string bytes = encoding == Bytes ? "" : "\xEF\xBB\xBF";
    for (const char c : text) bytes += c == '\n' ? lineEnd : std::string(1, c);
    if (encoding == Bytes || encoding == Utf8) return bytes;
    std::u16string units(bytes.size(), u'\0');
    units.resize(qm::platform::utf16FromUtf8(bytes, units.data(), units.size()));
    bytes.clear();
    for (const char16_t unit : units) {
      const char high = static_cast<char>(unit >> 8), low = static_cast<char>(unit);
      bytes += encoding == BigEndian ? high : low;
      bytes += encoding == BigEndian ? low : high;
    }
    return bytes;
  }
};

class Profile : public testing::Test {
 protected:
  template <class Check>
  void inEveryForm(Check check) const {
    for (const char* lineEnd : {"\n", "\r\n", "\r"}) {
      for (auto encoding : {Form::Bytes, Form::Utf8, Form::LittleEndian, Form::BigEndian}) {
        const Form form{lineEnd, encoding};
        SCOPED_TRACE(testing::PrintToString(form.fileOf("\n")));
        check(form);
      }
    }
  }
  std::string read(const char* section, const char* key) const {
    std::string value;
    EXPECT_TRUE(readProfile(file_.c_str(), section, key, "none", &value));
    return value;
  }
  bool write(const char* section, const char* key, const char* value) const {
    return writeProfile(file_.c_str(), section, key, value);
  }

  const qmtest::TempFolder folder_;
  const std::string file_ = folder_.file("test.ini");
};

TEST_F(Profile, IsReadByTheSameRulesInEveryForm) {
  const std::string text =
      "before=1\n \t[ Drum ] and more\nwidth = 1030 \t\nWIDTH=2\n; height=3\nno value\nempty=\n"
      "=nameless\na=b=c ; d\nquoted=\" in ' quotes\t\"\nsingle = 'x'\nuneven=\"x'\nalone=\"\n"
      "twice=\"\"x\"\"\nM\xC3\xA4rz=\xC3\xA4\xF0\x9F\x98\x80\n[open=1\n\n[a]b]\nx=y\n"
      "[drum]\nlate=1\n[]\nlate=1\n[last]\nend=of file";
  const std::string expected =
      "[]\nbefore=1\n[Drum]\nwidth=1030\nempty=\n=nameless\na=b=c ; d\nquoted= in ' quotes\t\n"
      "single=x\nuneven=\"x'\nalone=\"\ntwice=\"x\"\nM\xC3\xA4rz=\xC3\xA4\xF0\x9F\x98\x80\n[open="
      "1\n"
      "[a]b]\nx=y\n[last]\nend=of file\n";
  inEveryForm([&](const Form& form) {
    qmtest::writeFile(file_, form.fileOf(text));
    std::string listed;
    Sections sections, one;
    EXPECT_TRUE(qm::platform::listProfile(file_.c_str(), nullptr, &sections));
    for (const auto& [section, values] : sections) {
      listed += "[" + section + "]\n";
      EXPECT_TRUE(qm::platform::listProfile(file_.c_str(), section.c_str(), &one));
      EXPECT_TRUE(one.size() == 1 && one[0].values == values) << section;
      for (const auto& [key, value] : values) {
        listed += key + "=" + value + "\n";
        EXPECT_EQ(read(section.c_str(), key.c_str()), value);
      }
    }
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(read(" dRUM\t", " Width "), "1030");
    for (const char* key : {"no value", "height", "; height", "late", "m\xC3\x84rz", "x"}) {
      EXPECT_EQ(read("Drum", key), "none") << key;
    }
  });
  EXPECT_EQ(read(nullptr, "end"), "none");
  EXPECT_EQ(read("last", nullptr), "none");
  qmtest::writeFile(file_, "; nothing\n[]\nx=1\n[x]\n[]\nx=2\n");
  EXPECT_EQ(read("", "x"), "1") << "a section of that name, as there is nothing before it";
}

TEST_F(Profile, WhatIsMissingGivesTheDefaultAndWhatCannotBeReadFails) {
  std::string value = "before";
  for (const char* path : {file_.c_str(), "no folder/file", "", (const char*)nullptr}) {
    EXPECT_TRUE(readProfile(path, "s", "k", " a \t  ", &value));
    EXPECT_EQ(value, " a \t");
    EXPECT_TRUE(readProfile(path, "s", "k", nullptr, &value));
    EXPECT_EQ(value, "");
  }
  EXPECT_FALSE(readProfile(folder_.path().c_str(), "s", "k", "a ", &value));
  EXPECT_EQ(lastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_EQ(value, "a");
}

TEST_F(Profile, AWriteChangesOneValueAndNothingElse) {
  const char* const kRefused = nullptr;  // what would not read back
  const struct {
    const char *before, *section, *key, *value, *after;
  } kWrites[] = {
      {"\n", "s", "k", "v", "\n[s]\nk=v\n"},
      {"; c\n[s] ; d\n Key =  old \t\nkey=2\n[t]\n", "S", "kEY", "new",
       "; c\n[s] ; d\n Key =  new \t\nkey=2\n[t]\n"},
      {"[\xF0\x9F\x98\x80]\nk=\xC3\xA4\n[s]\nk=", "s", "k", "\xC3\xA4 \xF0\x9F\x98\x80",
       "[\xF0\x9F\x98\x80]\nk=\xC3\xA4\n[s]\nk=\xC3\xA4 \xF0\x9F\x98\x80"},
      {"[s]\na=1\n\n; of t\n[t]\nb=2\n", " s ", " k ", "v", "[s]\na=1\nk=v\n\n; of t\n[t]\nb=2\n"},
      {"[s]\n\n[t]\n[s]\nk=1\n", "s", "k", "v", "[s]\nk=v\n\n[t]\n[s]\nk=1\n"},
      {"[s]\na=1", "s", "k", "v", "[s]\na=1\nk=v\n"},
      {"[s]\na=1", "t", "k", "v", "[s]\na=1\n[t]\nk=v\n"},
      {"; c\n[s]\nk=1\n", "", "k", "v", "k=v\n; c\n[s]\nk=1\n"},
      {"a=1\n\n[s]\n[]\n", "", "k", "v", "a=1\nk=v\n\n[s]\n[]\n"},
      {"[s]\n[]\na=1\n", "", "k", "v", "[s]\n[]\na=1\nk=v\n"},
      {"[s]\nk=\"1\"\n", "s", "k", " v", "[s]\nk=\" v\"\n"},
      {"[s]\nk='1'\n", "s", "k", "'v'", "[s]\nk=\"'v'\"\n"},
      {"[s]\nk=1\n", "s", "k", "", "[s]\nk=\n"},
      {"[s]\nk=1\n", "s", "k", "a ] = ; [ \"", "[s]\nk=a ] = ; [ \"\n"},
      {"[s]\nk=1\n", "s", "k", "a\nb", kRefused},
      {"[s]\nk=1\n", "s", "k", "a\r", kRefused},
      {"[s]\nk=1\n", "s", "k\nl", "v", kRefused},
      {"[s]\nk=1\n", "s", "a=b", "v", kRefused},
      {"[s]\nk=1\n", "s", ";k", "v", kRefused},
      {"[s]\nk=1\n", "s", "[k", "v]", kRefused},
      {"[s]\nk=1\n", "s\n[t", "k", "v", kRefused},
      {"[s]\nk=1\n", "s", nullptr, "v", kRefused},
  };
  inEveryForm([&](const Form& form) {
    for (const auto& [before, section, key, value, after] : kWrites) {
      qmtest::writeFile(file_, form.fileOf(before));
      EXPECT_EQ(write(section, key, value), after != kRefused) << before << value;
      EXPECT_EQ(qmtest::readFile(file_), form.fileOf(after != kRefused ? after : before)) << before;
      if (after == kRefused) {
        EXPECT_EQ(lastError(), DWORD{ERROR_INVALID_PARAMETER});
      } else {
        EXPECT_EQ(read(section, key), value) << before;
      }
    }
  });
  EXPECT_FALSE(fs::exists(file_ + ".tmp"));
  fs::remove(file_);
  EXPECT_FALSE(write("", "\xFF\xFE", "v")) << "it would be the mark of an encoding";
  EXPECT_TRUE(write("s", "k", "v"));
  EXPECT_EQ(qmtest::readFile(file_), "[s]\nk=v\n");
  // Half a character and half a unit are not ours to mend.
  qmtest::writeFile(file_, std::string("\xFF\xFE\x00\xD8=\0a\0\n\0x", 11));
  EXPECT_FALSE(write("", "k", "no UTF-8 \xE4"));
  EXPECT_TRUE(write("", "k", "v"));
  EXPECT_EQ(qmtest::readFile(file_), std::string("\xFF\xFE\x00\xD8=\0a\0\n\0k\0=\0v\0\n\0x", 19));
}

TEST(ProfileCache, TakesNoFileThatMayChangeWithoutAnotherTime) {
  using namespace qm::platform::posix;
  const auto text = std::make_shared<const ProfileText>("");
  constexpr long kCoarse = 7'000'000, kFine = 7'000'001;  // of a clock in seconds, or a finer one
  const struct {
    long changed, readLater;
    bool remembered;
  } kCases[] = {{kFine, 0, false},
                {kFine, 40, false},
                {kFine, 60, true},
                {kCoarse, 2000, false},
                {kCoarse, 3500, true}};
  ino_t inode = 1;
  for (const auto& [changed, readLater, remembered] : kCases) {
    struct stat status {};
    status.st_ino = ++inode;
    status.st_mtim = status.st_ctim = {1000, changed};
    const timespec read{1000 + readLater / 1000, changed + readLater % 1000 * 1'000'000};
    rememberProfile(status, read, text);
    EXPECT_EQ(knownProfile(status) == text, remembered) << changed << " " << readLater;
    struct stat others[5];
    std::ranges::fill(others, status);
    ++others[0].st_dev;
    others[1].st_ino += 100;
    ++others[2].st_size;
    ++others[3].st_mtim.tv_nsec;
    ++others[4].st_ctim.tv_nsec;
    for (const auto& other : others) EXPECT_EQ(knownProfile(other), nullptr) << &other - others;
  }
}

TEST_F(Profile, AFileThatStaysIsNotOpenedAgain) {
  qmtest::writeFile(file_, "[s]\nk=1\n");
  const int watcher = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watcher, file_.c_str(), IN_OPEN), 0);
  const auto wasOpened = [&] {
    EXPECT_EQ(read("s", "k"), "1");
    alignas(inotify_event) char events[4096];
    return ::read(watcher, events, sizeof events) > 0;
  };
  // It is remembered only when its last change is some time ago.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (wasOpened() && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_FALSE(wasOpened());
  close(watcher);
}

TEST_F(Profile, WritersOfOneFileLoseNothing) {
  constexpr int kProcesses = 4, kKeys = 15;
  const std::string link = folder_.file("folder/link");
  fs::create_directory(folder_.file("folder"));
  fs::create_symlink("../test.ini", link);  // the first writer makes the file
  for (int process = 0; process < kProcesses; ++process) {
    if (fork() != 0) continue;
    std::atomic<bool> good{true};
    const auto writeKeys = [&](const std::string& path) {
      for (int key = 0; key < kKeys; ++key) {
        const std::string name = std::to_string(process) + path + std::to_string(key);
        if (!writeProfile(path.c_str(), "all", name.c_str(), "v")) good = false;
      }
    };
    std::thread other(writeKeys, link);
    writeKeys(file_);
    other.join();
    _exit(good ? 0 : 1);
  }
  for (int process = 0; process < kProcesses; ++process) {
    int status = -1;
    wait(&status);
    EXPECT_EQ(status, 0);
  }
  Sections sections;
  EXPECT_TRUE(qm::platform::listProfile(file_.c_str(), "all", &sections));
  ASSERT_EQ(sections.size(), 1u);
  EXPECT_EQ(sections[0].values.size(), 2u * kProcesses * kKeys);
  EXPECT_TRUE(fs::is_symlink(link));
}

}  // namespace
