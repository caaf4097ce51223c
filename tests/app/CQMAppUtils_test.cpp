#include "qmutils/app/CQMAppUtils.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

TEST(CQMAppUtils, KnowsTheRunningProgram) {
  CString path;
  CString folder;
  CString name;
  EXPECT_EQ(CQMAppUtils::GetModulePath(path, false), QMErrors::NoError);
  EXPECT_EQ(CQMAppUtils::GetModulePath(folder, true), QMErrors::NoError);
  EXPECT_EQ(CQMAppUtils::GetModuleName(name, true), QMErrors::NoError);
  EXPECT_EQ(name, "app_test");
  EXPECT_EQ(std::string(folder.view()) + "/app_test", path.view());
  EXPECT_TRUE(std::filesystem::exists(std::string(path.view())));

  qmtest::LogCapture log;
  int local = 0;
  EXPECT_NE(CQMAppUtils::GetModulePath(reinterpret_cast<HINSTANCE>(&local), path, true),
            QMErrors::NoError);
  EXPECT_TRUE(log.contains(" ERROR: CQMAppUtils::GetModulePath(h,s): "));
}

TEST(CQMAppUtils, UniqueNamesKeepFolderRootAndExtension) {
  qmtest::TempFolder folder;
  const std::string wanted = folder.file("page.tif");
  const CString first = CQMAppUtils::MakeUniqueName(wanted.c_str());
  EXPECT_EQ(std::string(first.view()), folder.path() + "\\page_000.tif");
  qmtest::writeFile(folder.file("page_000.tif"), "");
  EXPECT_EQ(std::string(CQMAppUtils::MakeUniqueName(wanted.c_str()).view()),
            folder.path() + "\\page_001.tif");
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
  setenv("TZ", "XYZ-1", 1);
  tzset();
  CString path;
  const CString dir("jobs");
  const CString name("page");
  const CString ext("tif");
  CQMAppUtils::MakeTimeStampedPath(path, nullptr, &dir, &name, &ext);
  EXPECT_EQ(path, "jobs\\page_06112006_150307.tif");
  unsetenv("TZ");
  tzset();
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
}

}  // namespace
