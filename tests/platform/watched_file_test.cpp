#include "qmutils/platform/watched_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "qmutils/platform/error.h"
#include "tests/support/TempFolder.h"

namespace qm::platform {
namespace {

namespace fs = std::filesystem;
using qmtest::readFile;
using qmtest::writeFile;

class WatchedFile : public testing::Test {
 protected:
  WatchedFile() {
    fs::create_directories(folder_.file("a/b"));
    fs::create_directory_symlink("a", folder_.file("link"));
  }
  ~WatchedFile() override { fs::current_path(former_); }

  qmtest::TempFolder folder_;
  fs::path former_ = fs::current_path();
};

// Once by a plain name, which the system watches, and by names that have to be looked up.
TEST_F(WatchedFile, NoticesEveryWayToLoseItsName) {
  fs::current_path(folder_.path());
  const std::string real = folder_.file("a/b/log");
  const struct {
    const char* what;
    std::function<void()> happen;
    bool still;
  } kCases[] = {
      {"nothing", [] {}, true},
      {"deleted", [&] { fs::remove(real); }, false},
      {"renamed", [&] { fs::rename(real, real + ".1"); }, false},
      {"renamed and back",
       [&] {
         fs::rename(real, real + ".1");
         fs::rename(real + ".1", real);
       },
       true},
      {"replaced",
       [&] {
         writeFile(folder_.file("other"), "");
         fs::rename(folder_.file("other"), real);
       },
       false},
      {"deleted and made again",
       [&] {
         fs::remove(real);
         writeFile(real, "");
       },
       false},
      {"folder renamed", [&] { fs::rename(folder_.file("a/b"), folder_.file("a/c")); }, false},
      {"folder above renamed", [&] { fs::rename(folder_.file("a"), folder_.file("z")); }, false},
      {"touched", [&] { fs::permissions(real, fs::perms::owner_all); }, true},
      {"another name added", [&] { fs::create_hard_link(real, folder_.file("second")); }, true},
      {"written and read by others",
       [&] {
         writeFile(folder_.file("a/b/neighbour"), "x");
         readFile(real);
       },
       true},
  };
  for (const std::string& name : {real, std::string("a/b/log"), folder_.file("link/b/log")}) {
    for (const auto& c : kCases) {
      for (const char* rest : {"a", "z", "second", "other"}) fs::remove_all(folder_.file(rest));
      fs::create_directories(folder_.file("a/b"));
      WatchedAppendFile file;
      ASSERT_TRUE(file.open(name.c_str()));
      ASSERT_TRUE(file.append("before\n"));
      ASSERT_TRUE(file.stillNamed());
      c.happen();
      EXPECT_EQ(file.stillNamed(), c.still) << name << ' ' << c.what;
      EXPECT_EQ(file.stillNamed(), c.still) << name << ' ' << c.what << ", asked again";
    }
  }
}

TEST_F(WatchedFile, NoticesALinkThatLeadsElsewhere) {
  WatchedAppendFile file;
  ASSERT_TRUE(file.open(folder_.file("link/b/log").c_str()));
  fs::create_directories(folder_.file("other/b"));
  fs::remove(folder_.file("link"));
  fs::create_directory_symlink("other", folder_.file("link"));
  EXPECT_FALSE(file.stillNamed());
}

TEST_F(WatchedFile, AForkedChildDoesNotTakeTheNewsAway) {
  const std::string path = folder_.file("a/log");
  WatchedAppendFile file;
  ASSERT_TRUE(file.open(path.c_str()));
  const auto renameAndLook = [&] {
    fs::rename(path, path + ".old");
    return file.stillNamed() ? 1 : 0;
  };
  EXPECT_EXIT(_exit(renameAndLook()), testing::ExitedWithCode(0), "");
  EXPECT_FALSE(file.stillNamed());
}

TEST_F(WatchedFile, AppendsAndSaysWhatFails) {
  const std::string path = folder_.path() + "\\a\\log";
  WatchedAppendFile file;
  EXPECT_FALSE(file.append("closed"));
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(file.isOpen() || file.stillNamed());
  ASSERT_TRUE(file.open(path.c_str()));
  EXPECT_TRUE(file.append("one\n"));
  WatchedAppendFile second;
  ASSERT_TRUE(second.open(path.c_str()));
  EXPECT_TRUE(second.append("two\n") && file.append("three\n"));
  EXPECT_EQ(readFile(folder_.file("a/log")), "one\ntwo\nthree\n");
  EXPECT_FALSE(file.open(folder_.file("none/log").c_str()));
  EXPECT_EQ(lastError(), ERROR_PATH_NOT_FOUND);
  EXPECT_FALSE(file.isOpen());
  EXPECT_FALSE(file.open(folder_.path().c_str()));
  EXPECT_EQ(lastError(), ERROR_ACCESS_DENIED);
  ASSERT_TRUE(file.open("/dev/full"));
  EXPECT_FALSE(file.append("lost"));
  EXPECT_EQ(lastError(), ERROR_DISK_FULL);
}

}  // namespace
}  // namespace qm::platform
