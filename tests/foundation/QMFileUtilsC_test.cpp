#include "qmutils/foundation/QMFileUtilsC.h"

#include <gtest/gtest.h>

#include "qmutils/platform/file.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

TEST(QMFileUtilsC, PathsComeApartAndTogether) {
  const struct {
    const char *path, *drive, *dir, *name, *ext, *made;
  } cases[] = {
      {"C:\\data\\plate.tif", "C", "\\data", "plate", "tif", "C:\\data\\plate.tif"},
      {"plate", "", "", "plate", "", "plate"},
      {"/jobs/night.shift/page.1.tif", "", "/jobs/night.shift", "page.1", "tif",
       "/jobs/night.shift\\page.1.tif"},
      {"/jobs/", "", "/jobs", "", "", "/jobs\\"},
      {"a.b/c", "", "a.b", "c", "", "a.b\\c"},
      {".profile", "", "", "", "profile", ".profile"},
      {"", "", "", "", "", ""},
  };
  for (const auto& one : cases) {
    QMCString drive("?"), dir("?"), name("?"), ext("?");
    const QMCString path(one.path);
    QMFileUtilsC::SplitPath(path, &drive, &dir, &name, &ext);
    EXPECT_EQ(drive, one.drive) << one.path;
    EXPECT_EQ(dir, one.dir) << one.path;
    EXPECT_EQ(name, one.name) << one.path;
    EXPECT_EQ(ext, one.ext) << one.path;
    QMCString made;
    QMFileUtilsC::MakePath(made, &drive, &dir, &name, &ext);
    EXPECT_EQ(made, one.made) << one.path;
    QMFileUtilsC::SplitPath(path, nullptr, nullptr, nullptr, nullptr);
  }
  QMCString self("x/y.z");
  QMFileUtilsC::SplitPath(self, nullptr, &self, nullptr, nullptr);
  EXPECT_EQ(self, "x") << "a path may be its own part";
}

TEST(QMFileUtilsC, FilesAreHiddenCopiedDatedAndDeleted) {
  qmtest::LogCapture log;
  qmtest::TempFolder folder;
  const std::string a = folder.file("a"), b = folder.file("b");
  qmtest::writeFile(a, "content");
  EXPECT_NE(QMFileUtilsC::CopyFileA(a.c_str(), b.c_str(), 1), 0);
  EXPECT_EQ(qmtest::readFile(b), "content");
  FILETIME first{}, second{};
  EXPECT_EQ(QMFileUtilsC::GetLastWriteTime(a.c_str(), first), QMErrors::NoError);
  EXPECT_EQ(QMFileUtilsC::GetLastWriteTime(b.c_str(), second), QMErrors::NoError);
  EXPECT_EQ(first.dwHighDateTime, second.dwHighDateTime);
  for (const int hide : {1, 0}) {
    EXPECT_EQ(QMFileUtilsC::HideFile(a.c_str(), hide), QMErrors::NoError);
    const DWORD attributes = qm::platform::fileAttributes(a.c_str());
    EXPECT_EQ((attributes & FILE_ATTRIBUTE_HIDDEN) != 0, hide != 0);
  }
  EXPECT_NE(QMFileUtilsC::DeleteFileA(b.c_str(), 1), 0);
  EXPECT_NE(QMFileUtilsC::DeleteFileA(b.c_str(), 0), 0);
  EXPECT_EQ(log.text(), "");

  EXPECT_EQ(QMFileUtilsC::DeleteFileA(b.c_str(), 1), 0);
  EXPECT_TRUE(log.contains(" ERROR: QMFileUtilsC::DeleteFile(): failed deleting: " + b +
                           ", reason: Error: 2 (0x2) "));
  EXPECT_EQ(QMFileUtilsC::DeleteFileA(nullptr, 1), 0);
  EXPECT_TRUE(log.contains("failed deleting: NULL, reason: "));
  EXPECT_EQ(QMFileUtilsC::CopyFileA(b.c_str(), a.c_str(), 0), 0);
  EXPECT_TRUE(log.contains(" ERROR: QMFileUtilsC::CopyFile(): failed: Error: 2 (0x2) "));
  EXPECT_EQ(QMFileUtilsC::CopyFileA(a.c_str(), a.c_str(), 1), 0);
  EXPECT_EQ(QMFileUtilsC::HideFile(b.c_str(), 1), QMErrors::fromOsError(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(log.contains(
      " ERROR: QMFileUtilsC::HideFile(): GetFileAttributes() failed, reason: Error: 2 (0x2) "));
  EXPECT_EQ(QMFileUtilsC::HideFile("/proc/self/comm", 1), QMErrors::fromOsError(50));
  EXPECT_TRUE(
      log.contains(" ERROR: QMFileUtilsC::HideFile(): unable to make hidden file: "
                   "/proc/self/comm, reason: Error: 50 (0x32) "))
      << log.text();
  EXPECT_EQ(QMFileUtilsC::GetLastWriteTime(nullptr, first), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(QMFileUtilsC::GetLastWriteTime(b.c_str(), first), QMErrors::UnableToFindFile);
  EXPECT_NE(QMFileUtilsC::GetLastWriteTime(folder.path().c_str(), first), QMErrors::NoError);
  EXPECT_TRUE(log.contains(" WARNING: QMFileUtilsC::GetLastWriteTime(): Returning: "));
}

}  // namespace
