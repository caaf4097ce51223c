#include "qmutils/app/CQMAppUtils.h"

#include <gtest/gtest.h>
#include <link.h>

#include <cstring>
#include <filesystem>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TimeZone.h"

namespace {

TEST(CQMAppUtils, KnowsTheRunningProgram) {
  CString path, folder, name;
  EXPECT_EQ(CQMAppUtils::GetModulePath(path, false), QMErrors::NoError);
  EXPECT_EQ(CQMAppUtils::GetModulePath(folder, true), QMErrors::NoError);
  EXPECT_EQ(CQMAppUtils::GetModuleName(name, true), QMErrors::NoError);
  EXPECT_EQ(name, "app_test");
  EXPECT_EQ(folder + "/app_test", path);
  EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe"), path.view());

  const auto findLibrary = [](dl_phdr_info* info, std::size_t, void* found) {
    *static_cast<const void**>(found) = info->dlpi_phdr;
    return std::strstr(info->dlpi_name, "libc.so") != nullptr ? 1 : 0;
  };
  HINSTANCE library = nullptr;
  dl_iterate_phdr(findLibrary, &library);
  EXPECT_EQ(CQMAppUtils::GetModulePath(library, path, false), QMErrors::NoError);
  EXPECT_TRUE(std::filesystem::path(path.view()).is_absolute());
  EXPECT_NE(path.Find("libc.so"), -1);

  qmtest::LogCapture log;
  EXPECT_NE(CQMAppUtils::GetModulePath(reinterpret_cast<HINSTANCE>(&library), path, true),
            QMErrors::NoError);
  EXPECT_TRUE(log.contains(" ERROR: CQMAppUtils::GetModulePath(h,s): ")) << log.text();
  EXPECT_TRUE(log.contains("126")) << log.text();
}

TEST(CQMAppUtils, UniqueNamesKeepFolderRootAndExtension) {
  qmtest::TempFolder folder;
  const std::string wanted = folder.file("page.tif");
  EXPECT_EQ(CQMAppUtils::MakeUniqueName(wanted.c_str()).view(), folder.path() + "\\page_000.tif");
  qmtest::writeFile(folder.file("page_000.tif"), "");
  EXPECT_EQ(CQMAppUtils::MakeUniqueName(wanted.c_str()).view(), folder.path() + "\\page_001.tif");
  EXPECT_EQ(CQMAppUtils::MakeUniqueName("/no-such-file.x"), "\\no-such-file_000.x");
  EXPECT_EQ(CQMAppUtils::MakeUniqueName("no-such-file"), "no-such-file_000");
  for (int i = 1; i < 999; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "page_%03d.tif", i);
    qmtest::writeFile(folder.file(name), "");
  }
  EXPECT_TRUE(CQMAppUtils::MakeUniqueName(wanted.c_str()).IsEmpty());
}

TEST(CQMAppUtils, TimeStampedPathsCarryLocalTime) {
  qmtest::FakeClock clock;
  const qmtest::TimeZone zone("XYZ-1");
  CString path;
  const CString dir("jobs"), name("page"), ext("tif");
  CQMAppUtils::MakeTimeStampedPath(path, nullptr, &dir, &name, &ext);
  EXPECT_EQ(path, "jobs\\page_06112006_150307.tif");
}

TEST(CQMAppUtils, MakesFoldersLevelByLevel) {
  qmtest::TempFolder folder;
  const std::string deep = folder.path() + "\\a/b\\c";
  EXPECT_EQ(CQMAppUtils::MakeFolder(deep.c_str()), QMErrors::NoError);
  EXPECT_TRUE(std::filesystem::is_directory(folder.path() + "/a/b/c"));
  EXPECT_EQ(CQMAppUtils::MakeFolder(deep.c_str()), QMErrors::NoError);
  EXPECT_TRUE(CQMAppUtils::FileExists((folder.path() + "/a/?").c_str()));
  EXPECT_FALSE(CQMAppUtils::FileExists((folder.path() + "/a/").c_str()));

  qmtest::LogCapture log;
  qmtest::writeFile(folder.file("file"), "");
  EXPECT_NE(CQMAppUtils::MakeFolder((folder.file("file") + "/x/y").c_str()), QMErrors::NoError);
  EXPECT_TRUE(log.contains(" ERROR: CQMAppUtils::MakeFolder(): Creating directory: "))
      << log.text();
  const QMErrors::QMErrorT refused = CQMAppUtils::MakeFolder("/sys/qmtest");
  // As the file system does, or the protection of a container before it.
  EXPECT_TRUE(refused == QMErrors::fromOsError(ERROR_ACCESS_DENIED) ||
              refused == QMErrors::fromOsError(19))
      << QMErrToStr(refused);
}

}  // namespace
