#include "qmutils/platform/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "tests/support/TempFolder.h"

namespace qm::platform {
namespace {

namespace fs = std::filesystem;
using qmtest::readFile;
using qmtest::writeFile;

class Files : public testing::Test {
 protected:
  std::string path(const char* name) const { return folder_.file(name); }

  qmtest::TempFolder folder_;
};

/// The last error of a call that must fail.
template <class Call>
DWORD errorOf(Call call) {
  setLastError(0);
  EXPECT_FALSE(call());
  return lastError();
}

bool opens(const std::string& path, const char* mode) {
  return FilePtr(openFile(path.c_str(), mode)) != nullptr;
}

bool hasAttributes(const std::string& path) {
  return fileAttributes(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

TEST_F(Files, EachFailureHasItsNumber) {
  writeFile(path("file"), "x");
  const std::string to = path("to"), tooLong(5000, 'x');
  const struct {
    std::string path;
    DWORD error;
  } kCases[] = {{path("none"), 2},       {path("none/file"), 3},
                {path("file/below"), 3}, {folder_.path(), 5},
                {tooLong, 206},          {path(std::string(300, 'x').c_str()), 206}};
  for (const auto& c : kCases) {
    FILETIME time{};
    EXPECT_EQ(errorOf([&] { return opens(c.path, "r"); }), c.error) << c.path;
    EXPECT_EQ(errorOf([&] { return lastWriteTime(c.path.c_str(), &time); }), c.error) << c.path;
    EXPECT_EQ(errorOf([&] { return deleteFile(c.path.c_str()); }), c.error) << c.path;
    EXPECT_EQ(errorOf([&] { return copyFile(c.path.c_str(), to.c_str(), false); }), c.error);
    if (c.error == 5) continue;
    EXPECT_EQ(errorOf([&] { return hasAttributes(c.path); }), c.error) << c.path;
  }
  EXPECT_FALSE(fs::exists(to));
  EXPECT_EQ(errorOf([&] { return openFile(nullptr, "r") != nullptr; }), 3u);
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(errorOf([&] { return opens(path("pipe"), "rb"); }), 5u) << "and does not wait";
  EXPECT_EQ(errorOf([&] { return createDirectory(folder_.path().c_str()); }), 183u);
  EXPECT_EQ(errorOf([&] { return createDirectory(path("none/below").c_str()); }), 3u);
  EXPECT_EQ(errorOf([&] { return createFileExclusively(path("file").c_str()) != nullptr; }), 80u);
  FilePtr made(createFileExclusively(path("new").c_str()));
  EXPECT_NE(made, nullptr);
  EXPECT_TRUE(fcntl(fileno(made.get()), F_GETFD) & FD_CLOEXEC);
}

TEST_F(Files, BothSeparatorsOpenAPath) {
  ASSERT_TRUE(createDirectory((folder_.path() + "\\a b").c_str()));
  const std::string mixed = folder_.path() + "\\a b/file.txt";
  EXPECT_TRUE(opens(mixed, "w"));
  EXPECT_TRUE(hasAttributes(mixed));
  EXPECT_EQ(nativePath("a\\b/c"), "a/b/c");
  FilePtr file(openFile(mixed.c_str(), "r+b"));
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC);
}

TEST_F(Files, PipesAndDevicesThatWereHandedOverOpen) {
  EXPECT_TRUE(opens("/dev/null", "r+"));
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const FilePtr file(openFile(("/proc/self/fd/" + std::to_string(ends[0])).c_str(), "r"));
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(errorOf([&] { return isRegularFile(file.get()); }), 5u);
  EXPECT_EQ(fcntl(fileno(file.get()), F_GETFL) & O_NONBLOCK, 0) << "its reader waits";
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  EXPECT_EQ(std::fgetc(file.get()), 'x');
  for (const int end : ends) close(end);
}

TEST_F(Files, AttributesKeepMarksAndReadOnly) {
  const std::string file = path("file");
  writeFile(file, "x");
  EXPECT_EQ(fileAttributes(file.c_str()), FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(fileAttributes(folder_.path().c_str()), FILE_ATTRIBUTE_DIRECTORY);
  const DWORD kSets[] = {FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY,
                         FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_SYSTEM,
                         FILE_ATTRIBUTE_NORMAL};
  for (DWORD attributes : kSets) {
    ASSERT_TRUE(setFileAttributes(file.c_str(), attributes)) << attributes;
    EXPECT_EQ(fileAttributes(file.c_str()), attributes);
  }
  EXPECT_TRUE(setFileAttributes(file.c_str(), FILE_ATTRIBUTE_HIDDEN));
  fs::rename(file, path("moved"));
  EXPECT_EQ(fileAttributes(path("moved").c_str()), FILE_ATTRIBUTE_HIDDEN) << "not part of the name";
}

/// Ends the child of a test, who has not the superuser's rights; with 0 when all checks held.
template <class Checks>
[[noreturn]] void exitAsOrdinaryUser(const Checks& checks) {
  constexpr uid_t kNobody = 65534;
  const bool dropped = geteuid() != 0 || (setgid(kNobody) == 0 && setuid(kNobody) == 0);
  _exit(dropped && checks() ? 0 : 1);
}

TEST_F(Files, AReadOnlyFileIsMarkedByItsOwner) {
  chmod(folder_.path().c_str(), 0777);
  const auto checks = [&] {
    const std::string file = path("own");
    writeFile(file, "x");
    const DWORD hidden = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN;
    return chmod(file.c_str(), 0464) == 0 &&
           fileAttributes(file.c_str()) == FILE_ATTRIBUTE_READONLY &&
           setFileAttributes(file.c_str(), hidden) && fileAttributes(file.c_str()) == hidden;
  };
  EXPECT_EXIT(exitAsOrdinaryUser(checks), testing::ExitedWithCode(0), "");
  EXPECT_EQ(fs::status(path("own")).permissions(), fs::perms(0464)) << "its mode stays";
}

TEST_F(Files, ACopyOverAFileThatWasThereNeverDeletesIt) {
  const std::string from = path("from"), foreign = path("foreign"), pipe = path("pipe");
  writeFile(from, "new");
  writeFile(foreign, "old");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
  for (const std::string& name : {folder_.path(), from}) chmod(name.c_str(), 0755);
  for (const std::string& name : {foreign, pipe}) chmod(name.c_str(), 0666);
  const auto copy = [&] { return copyFile(from.c_str(), foreign.c_str(), false); };
  EXPECT_EXIT(exitAsOrdinaryUser(copy), testing::ExitedWithCode(0), "");
  EXPECT_EQ(readFile(foreign), "new");
  EXPECT_FALSE(copyFile(from.c_str(), pipe.c_str(), false)) << "and does not wait for a reader";
  EXPECT_TRUE(fs::is_fifo(pipe));
}

TEST_F(Files, SearchFindsEntriesByPattern) {
  writeFile(path("Plate-A2.xml"), "");
  fs::create_symlink("nowhere", path("link"));
  const std::pair<DWORD, std::vector<const char*>> kCases[] = {
      {0, {"Plate-A2.xml", "plate*.XML", "*-A?.x*l", "*", "*.*", "link"}},
      {2, {"*.txt", "?late", "plate-a2.xmlx*", "", "none"}},
      {3, {"none/*", "none/file"}}};
  for (const auto& [error, names] : kCases) {
    for (const char* name : names) {
      setLastError(0);
      EXPECT_EQ(findsEntry(path(name).c_str()), error == 0) << name;
      EXPECT_EQ(lastError(), error) << name;
    }
  }
  EXPECT_EQ(errorOf([] { return findsEntry(""); }), 123u);
  EXPECT_EQ(errorOf([] { return findsEntry(nullptr); }), 3u);
  EXPECT_TRUE(findsEntry("/*"));
}

TEST_F(Files, CopiesCarryContentPermissionsTimeAndMarks) {
  const std::string from = path("from"), to = path("to");
  writeFile(from, std::string(100'000, 'x') + "end");
  chmod(from.c_str(), 0640);
  ASSERT_TRUE(setFileAttributes(from.c_str(), FILE_ATTRIBUTE_HIDDEN));
  const timespec times[] = {{1'000'000'000, 0}, {1'162'821'787, 45'000'000}};
  ASSERT_EQ(utimensat(AT_FDCWD, from.c_str(), times, 0), 0);
  writeFile(to, std::string(200'000, 'y'));
  EXPECT_EQ(errorOf([&] { return copyFile(from.c_str(), to.c_str(), true); }), 80u);
  EXPECT_EQ(readFile(to).front(), 'y');
  ASSERT_TRUE(copyFile(from.c_str(), to.c_str(), false));
  EXPECT_EQ(readFile(to), readFile(from));
  EXPECT_EQ(fs::status(to).permissions(), fs::perms(0640));
  EXPECT_EQ(fileAttributes(to.c_str()), FILE_ATTRIBUTE_HIDDEN);
  FILETIME time{};
  ASSERT_TRUE(lastWriteTime(to.c_str(), &time));
  EXPECT_EQ(fileTimeTicks(time), 128'072'953'870'450'000u);

  EXPECT_EQ(errorOf([&] { return copyFile(from.c_str(), from.c_str(), false); }), 32u);
  EXPECT_EQ(readFile(from).size(), 100'003u) << "a copy onto itself loses nothing";
  EXPECT_EQ(errorOf([&] { return copyFile(from.c_str(), folder_.path().c_str(), false); }), 5u);
}

TEST_F(Files, ReplacingTakesModeAndMarksFollowsLinksAndRefusesReadOnly) {
  const std::string fresh = path("fresh"), target = path("target"), link = path("link");
  writeFile(target, "old");
  ASSERT_TRUE(setFileAttributes(target.c_str(), FILE_ATTRIBUTE_HIDDEN));
  chmod(target.c_str(), 0604);
  fs::create_symlink("target", link);
  writeFile(fresh, "new");
  ASSERT_TRUE(mayReplaceFile(link.c_str()));
  ASSERT_TRUE(replaceFile(fresh.c_str(), link.c_str()));
  EXPECT_EQ(readFile(target), "new");
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0604));
  EXPECT_EQ(fileAttributes(target.c_str()), FILE_ATTRIBUTE_HIDDEN);
  EXPECT_FALSE(fs::exists(fresh));

  fs::create_symlink(path("to be made"), path("dangling"));
  writeFile(fresh, "made");
  ASSERT_TRUE(replaceFile(fresh.c_str(), path("dangling").c_str()));
  EXPECT_EQ(readFile(path("to be made")), "made");
  fs::create_symlink("loop", path("loop"));
  writeFile(fresh, "newer");
  EXPECT_FALSE(replaceFile(fresh.c_str(), path("loop").c_str()));

  chmod(target.c_str(), 0444);
  for (const std::string& refused : {target, folder_.path(), std::string("/dev/null")}) {
    EXPECT_EQ(errorOf([&] { return mayReplaceFile(refused.c_str()); }), 5u) << refused;
    EXPECT_EQ(errorOf([&] { return replaceFile(fresh.c_str(), refused.c_str()); }), 5u) << refused;
  }
  EXPECT_EQ(readFile(target), "new");
  EXPECT_TRUE(mayReplaceFile(path("not there yet").c_str()));
}

TEST_F(Files, ReplacingCrossesFileSystemsThroughALink) {
  const std::string elsewhere =
      "/dev/shm/" + fs::path(folder_.path()).filename().string() + "-target";
  writeFile(elsewhere, "old");
  fs::create_symlink(elsewhere, path("link"));
  writeFile(path("fresh"), "new");
  std::error_code failure;
  fs::rename(path("fresh"), elsewhere, failure);
  ASSERT_EQ(failure, std::errc::cross_device_link) << "needs a second file system";
  EXPECT_TRUE(replaceFile(path("fresh").c_str(), path("link").c_str()));
  EXPECT_EQ(readFile(elsewhere), "new");
  EXPECT_FALSE(fs::exists(path("fresh")));
  fs::remove(elsewhere);
}

TEST_F(Files, FlushingReportsAFullDisk) {
  FilePtr full(openFile("/dev/full", "w"));
  std::fputs("lost", full.get());
  EXPECT_EQ(errorOf([&] { return flushToDisk(full.get()); }), 112u);
  FilePtr file(openFile(path("file").c_str(), "w"));
  std::fputs("kept", file.get());
  EXPECT_TRUE(flushToDisk(file.get()));
  EXPECT_EQ(readFile(path("file")), "kept");
}

}  // namespace
}  // namespace qm::platform
