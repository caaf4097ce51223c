#include "qmutils/platform/replacement_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "qmutils/platform/error.h"
#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using qm::platform::ReplacementFile;

class ReplacementFileTest : public testing::Test {
 protected:
  bool replaceBy(const std::string& content) const {
    ReplacementFile file(target_.c_str());
    if (file.get() == nullptr) return false;
    std::fputs(content.c_str(), file.get());
    return file.commit();
  }

  qmtest::TempFolder folder_;
  const std::string target_ = folder_.file("target");
  const std::string temporary_ = target_ + ".tmp";
};

TEST_F(ReplacementFileTest, LeavesTheOldFileUntilTheNewOneIsComplete) {
  EXPECT_TRUE(replaceBy("one"));
  {
    ReplacementFile given(target_.c_str());
    std::fputs("half", given.get());
    EXPECT_TRUE(fs::exists(temporary_));
  }
  EXPECT_EQ(qmtest::readFile(target_), "one");
  EXPECT_FALSE(fs::exists(temporary_));
  {
    ReplacementFile stolen(target_.c_str());
    fs::remove(temporary_);
    qmtest::writeFile(temporary_, "somebody else's");
    EXPECT_FALSE(stolen.commit());
    EXPECT_EQ(qm::platform::lastError(), ERROR_SHARING_VIOLATION);
  }
  EXPECT_EQ(qmtest::readFile(temporary_), "somebody else's");
  EXPECT_EQ(qmtest::readFile(target_), "one");
}

TEST_F(ReplacementFileTest, IsAsSecretAsItsTarget) {
  for (const mode_t mode : {0600, 0640, 0604}) {
    qmtest::writeFile(target_, "old");
    chmod(target_.c_str(), mode);
    const ReplacementFile file(target_.c_str());
    EXPECT_EQ(fs::status(temporary_).permissions(), fs::perms(mode)) << "from the beginning";
  }
}

TEST_F(ReplacementFileTest, WaitsForAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "takes a second user";
  qmtest::writeFile(target_, "old");
  chmod(target_.c_str(), 0666);
  chmod(folder_.path().c_str(), 0777);
  ReplacementFile file(target_.c_str());
  chmod(temporary_.c_str(), 0600);
  const pid_t child = fork();
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    _exit(setgid(kNobody) == 0 && setuid(kNobody) == 0 && replaceBy("second") ? 0 : 1);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // in which the child can do harm
  EXPECT_TRUE(file.commit());
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(qmtest::readFile(target_), "second");
}

TEST_F(ReplacementFileTest, TellsWhyAWriteHasFailed) {
  ASSERT_TRUE(replaceBy("old"));
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  const auto formerHandler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{4096, former.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_FALSE(replaceBy(std::string(100'000, 'x')));
  EXPECT_EQ(qm::platform::lastError(), 223u) << "too large";
  setrlimit(RLIMIT_FSIZE, &former);
  std::signal(SIGXFSZ, formerHandler);
  EXPECT_EQ(qmtest::readFile(target_), "old");
}

TEST_F(ReplacementFileTest, WhatHasTheNameAlreadyIsNotWrittenTo) {
  const std::string other = folder_.file("other");
  qmtest::writeFile(other, "important");
  qmtest::writeFile(target_, "old");
  const std::pair<const char*, std::function<void()>> kCases[] = {
      {"a link", [&] { fs::create_symlink(other, temporary_); }},
      {"a link to the target", [&] { fs::create_symlink(target_, temporary_); }},
      {"another name of the target", [&] { fs::create_hard_link(target_, temporary_); }},
      {"a leftover",
       [&] {
         qmtest::writeFile(temporary_, "left over and longer");
         chmod(temporary_.c_str(), 0400);
       }},
      {"a pipe", [&] { mkfifo(temporary_.c_str(), 0600); }},
  };
  int count = 0;
  for (const auto& [name, make] : kCases) {
    const std::string content = "new" + std::to_string(++count);
    make();
    EXPECT_TRUE(replaceBy(content)) << name;
    EXPECT_EQ(qmtest::readFile(target_), content) << name;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target_))) << name;
    EXPECT_FALSE(fs::exists(fs::symlink_status(temporary_))) << name;
  }
  EXPECT_EQ(qmtest::readFile(other), "important");
  fs::create_directory(temporary_);
  EXPECT_FALSE(replaceBy("none"));
  EXPECT_EQ(qm::platform::lastError(), ERROR_ACCESS_DENIED);
}

TEST_F(ReplacementFileTest, ManyAtATimeTearNothing) {
  constexpr int kProcesses = 4, kTimes = 50;
  const auto content = [](int process) { return std::string(100'000, char('a' + process)); };
  ASSERT_TRUE(replaceBy(content(0)));
  for (int process = 0; process < kProcesses; ++process) {
    if (fork() != 0) continue;
    bool good = true;
    for (int i = 0; i < kTimes && good; ++i) {
      good = replaceBy(content(process));
      const std::string seen = qmtest::readFile(target_);
      good = good && !seen.empty() && seen == content(seen[0] - 'a');
    }
    _exit(good ? 0 : 1);
  }
  for (int process = 0; process < kProcesses; ++process) {
    int status = -1;
    wait(&status);
    EXPECT_EQ(status, 0);
  }
  EXPECT_FALSE(fs::exists(temporary_));
}

}  // namespace
