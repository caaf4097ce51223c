#include "qmutils/app/CQMAppUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>
#include <utility>

#include "qmutils/concurrency/QMWindowsKeyboardEventC.h"
#include "qmutils/data/QMGUIDEncryptC.h"
#include "qmutils/platform/module.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/window.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Registries.h"
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

// ---- Versions -----------------------------------------------------------------------------------

struct Open : CQMAppUtils {
  using CQMAppUtils::CQMAppUtils;
  using CQMAppUtils::GetFileVersionInfoA;
};

const char* const kGerman = QMUTILS_BINARY_DIR "/Languages/test/German.dll";

TEST(AppVersions, FilesTellWhatTheyAre) {
  CString own, text;
  ASSERT_EQ(CQMAppUtils::GetModulePath(own, false), QMErrors::NoError);
  EXPECT_EQ(CQMAppUtils::GetFileCompanyString(own, text), QMErrors::NoError);
  EXPECT_EQ(text, "Test \"Company\"");
  EXPECT_EQ(CQMAppUtils::GetFileProductString(own, text), QMErrors::NoError);
  EXPECT_EQ(text, "Back\\slash");
  EXPECT_EQ(CQMAppUtils::GetFileVersionString(own, text, false, false), QMErrors::NoError);
  EXPECT_EQ(text, "5, 0,\t1, 2");
  EXPECT_EQ(CQMAppUtils::GetVersion(), "v5.0.1.2");
  // Only in the block that is looked up second.
  EXPECT_EQ(CQMAppUtils::GetFileVersionString(kGerman, text, false, false), QMErrors::NoError);
  EXPECT_EQ(text, "3, 1, 0, 0");
  const std::pair<const char*, const char*> kBritish[] = {
      {"Comments", ""}, {"legalcopyright", "a; \"b\" ${c} \\d"}, {"Key;with", "@at@"}};
  for (const auto& [key, value] : kBritish) {
    EXPECT_EQ(Open::GetFileVersionInfoA(own, key, text), QMErrors::NoError) << key;
    EXPECT_EQ(text, value);
  }
  EXPECT_EQ(Open::GetFileVersionInfoA(own, "Nothing", text), QMErrors::EndOfFileError);
  EXPECT_EQ(text, "Unknown");
  EXPECT_EQ(Open::GetFileVersionInfoA("", "ProductVersion", text),
            QMErrors::BadCommandLineArguments);
}

TEST(AppVersions, TheDateIsThatOfTheFile) {
  qmtest::TempFolder folder;
  CString text;
  const std::string file = folder.file("plain.txt");
  qmtest::writeFile(file, "no program");
  const timespec times[2] = {{1164117787, 0}, {1164117787, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  const qmtest::TimeZone zone("XYZ-1");
  EXPECT_EQ(CQMAppUtils::GetFileVersionString(file.c_str(), text, false, true), QMErrors::NoError);
  EXPECT_EQ(text, "Unknown ; 21/11/2006 14:03:07");
  CQMAppUtils::GetFileVersionString((file + "x").c_str(), text, true, true);
  EXPECT_EQ(text, "vUnknown ; unknown date/time ");
  // A driver's name is looked for in the system's folder, not here; its path is taken as it is.
  const std::string driver = folder.file("here.sys");
  std::filesystem::rename(file, driver);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  CQMAppUtils::GetFileVersionString("here.sys", text, false, true);
  EXPECT_EQ(text, "Unknown ; unknown date/time ");
  CQMAppUtils::GetFileVersionString(driver.c_str(), text, false, true);
  EXPECT_EQ(text, "Unknown ; 21/11/2006 14:03:07");
  std::filesystem::current_path(before);
}

TEST(AppVersions, NamesAreForgottenWithTheObject) {
  {
    CQMAppUtils app(nullptr, nullptr);
    EXPECT_EQ(CQMAppUtils::GetProgramName(), "app_test");
    CString language;
    app.GetPreferredLanguage(language);
    EXPECT_EQ(language, "English");
    const qmtest::Registries registries;
    const std::unique_ptr<CQMPrefs> prefs(app.GetPreferences());
    EXPECT_EQ(prefs->SaveUsrParam("x", 1, 0), QMErrors::NoError);
    HKEY key = nullptr;
    EXPECT_EQ(QMRegistryC::OpenKey(HKEY_CURRENT_USER,
                                   "SOFTWARE\\Quillmoor Designs\\app_test\\v5.0.1.2\\Preferences",
                                   0, &key),
              QMErrors::NoError);
    EXPECT_EQ(QMRegistryC::CloseKey(key, 0), QMErrors::NoError);
  }
  EXPECT_EQ(CQMAppUtils::GetProgramName(), "app_test");
}

TEST(AppVersions, WithoutMemoryNothingIsHalfThere) {
  CString own, text;
  ASSERT_EQ(CQMAppUtils::GetModulePath(own, false), QMErrors::NoError);
  const CString drive("a drive of some length"), dir("a folder of some length");
  const CString name("a name of some length"), ext("an extension of some length");
  const CString whole = drive + ":" + dir + "\\" + name + "." + ext;
  for (int n = 1, failures = 1; failures != 0; ++n) {
    failures = 0;
    const auto attempt = [&](auto call) {
      const qmtest::FailingAllocation nth(n);
      call();
      if (nth.hasFailed()) ++failures;
    };
    CString path;
    attempt([&] { CQMAppUtils::MakePath(path, &drive, &dir, &name, &ext); });
    EXPECT_TRUE(path.IsEmpty() || path == whole) << path.view();
    CString unique;
    attempt(
        [&] { unique = CQMAppUtils::MakeUniqueName("/a folder that is not/there, of length.x"); });
    EXPECT_TRUE(unique.IsEmpty() || unique == "/a folder that is not\\there, of length_000.x")
        << unique.view();
    text = "before";
    QMErrors::QMErrorT result = QMErrors::NoError;
    attempt([&] { result = CQMAppUtils::GetFileVersionString(own, text, true, true); });
    EXPECT_TRUE(result == QMErrors::NoError ? text.Left(11) == "v5.0.1.2 ; " : text == "before")
        << text.view();
  }
}

// ---- The reseller's settings --------------------------------------------------------------------

class Reseller : public testing::Test {
 protected:
  Reseller() {
    std::filesystem::copy_file(PRESS, folder_.file("press"));
    std::filesystem::create_directory(folder_.file("icons"));
    qmtest::writeFile(folder_.file("icons/3.svg"), "<svg/>");
    qmtest::writeFile(folder_.file("other.png"), "\x89PNG\r\n");
  }

  void settings(const std::string& text) {
    std::stringstream plain(text);
    ASSERT_EQ(QMGUIDEncryptC::Encode(plain, folder_.file("oemconfig.ini").c_str(),
                                     QMGUIDEncryptC::PUBLIC_KEY),
              QMErrors::NoError);
  }

  /// What the program there prints.
  std::string probe() {
    const std::string output = folder_.file("output");
    EXPECT_EQ(std::system((folder_.file("press") + " > " + output).c_str()), 0);
    return qmtest::readFile(output);
  }

  const qmtest::TempFolder folder_;
};

TEST_F(Reseller, WithoutSettingsTheProgramsOwnNamesStay) {
  const std::string text = probe();
  EXPECT_TRUE(
      text.starts_with("Test \"Company\"|Back\\slash|none,3.svg|"
                       "support@quillmoor.example||\n"))
      << text;
  for (const char* warning :
       {" WARNING: CQMAppUtils::GetMailRecipients(void): an error occurred fetching the "
        "recipients: Failed to Open File: 1001",
        " WARNING: CQMAppUtils::GetMailAddresses(void): an error occurred fetching the addresses: ",
        " WARNING: CQMAppUtils::GetMailSubject(void): an error occurred fetching the subject: "}) {
    EXPECT_NE(text.find(warning), std::string::npos) << text;
  }
}

TEST_F(Reseller, SettingsReplaceNamesIconAndMail) {
  settings(
      "[manufacturer]\nmanufacturer=Northlight\nproduct=Plate Master\n"
      "[press]\nproduct_icon=other.png\n"
      "[mail]\nrecipients=a@example.com\naddresses=b@example.com\nsubject=Help\n");
  EXPECT_EQ(probe(),
            "Northlight|Plate Master|other.png,other.png|a@example.com|b@example.com|Help\n");
  settings("[manufacturer]\nproduct=\n[press]\nproduct_icon=output\n[mail]\n");
  EXPECT_EQ(probe(), "Test \"Company\"|Back\\slash|none,3.svg|support@quillmoor.example||\n");
}

TEST_F(Reseller, DamagedSettingsChangeNothing) {
  qmtest::writeFile(folder_.file("oemconfig.ini"), "[manufacturer]\nproduct=plain\n");
  EXPECT_TRUE(
      probe().starts_with("Test \"Company\"|Back\\slash|none,3.svg|"
                          "support@quillmoor.example||\n"));
}

// ---- Language and data --------------------------------------------------------------------------

TEST(AppLanguage, LibrariesAreLoadedAndUsed) {
  using namespace qm::platform;
  HINSTANCE handle = nullptr;
  EXPECT_EQ(CQMAppUtils::GetLanguageResourceHandle("none", nullptr, "English", &handle),
            QMErrors::NoError);
  EXPECT_EQ(handle, resourceModule());
  qmtest::LogCapture log;
  EXPECT_EQ(CQMAppUtils::GetLanguageResourceHandle("/none", "sub", "French", &handle),
            QMErrors::fromOsError(126));
  EXPECT_EQ(handle, resourceModule());
  EXPECT_TRUE(
      log.contains(" ERROR: CTesttoolApp::GetLanguageResourceHandle(): Failed to Load dll: "
                   "/none\\Languages\\sub\\French.dll reason:Error: 126 "))
      << log.text();
  EXPECT_EQ(CQMAppUtils::GetLanguageResourceHandle(QMUTILS_BINARY_DIR, "test", "German", &handle),
            QMErrors::NoError);
  EXPECT_STREQ(moduleText(handle, 7), "Wo sind die Seiten?");
  EXPECT_EQ(moduleText(handle, 8), nullptr);
  CString path;
  EXPECT_EQ(CQMAppUtils::GetModuleName(handle, path, true), QMErrors::NoError);
  EXPECT_EQ(path, "German");

  const qmtest::TempFolder folder;
  std::filesystem::create_directory(folder.file("Languages"));
  qmtest::writeFile(folder.file("Languages/Bad.dll"), "no library");
  EXPECT_EQ(CQMAppUtils::SetLanguage(folder.path().c_str(), "Bad"), QMErrors::fromOsError(193));
  EXPECT_EQ(resourceModule(), programModule());
  std::filesystem::copy_file(kGerman, folder.file("Languages/German.dll"));
  EXPECT_EQ(CQMAppUtils::SetLanguage(folder.path().c_str(), "German"), QMErrors::NoError);
  EXPECT_STREQ(moduleText(resourceModule(), 7), "Wo sind die Seiten?");
  setResourceModule(nullptr);
}

TEST(AppData, TheMachineTellsWhereItIs) {
  const qmtest::Registries registries;
  qmtest::LogCapture log;
  CString path("x");
  EXPECT_EQ(CQMAppUtils::GetApplicationDataPath(path), QMErrors::NullObjectProvided);
  EXPECT_EQ(path, "");
  const CQMAppUtils app("SOFTWARE\\Press", "Folder");
  EXPECT_EQ(CQMAppUtils::GetApplicationDataPath(path), QMErrors::fromOsError(2));
  HKEY key = nullptr;
  ASSERT_EQ(QMRegistryC::OpenKey(HKEY_LOCAL_MACHINE, "SOFTWARE\\Press", 1, &key),
            QMErrors::NoError);
  EXPECT_EQ(CQMAppUtils::GetApplicationDataPath(path),
            QMErrors::TheRegistryKeyIsInvalidOrDoesNotContainValidData);
  EXPECT_TRUE(
      log.contains(" WARNING: CQMAppUtils::GetApplicationDataPath(): The registry key: "
                   "SOFTWARE\\Press\\Folder does not contain valid data."))
      << log.text();
  QMRegistryC::SaveKeyData(key, "Folder", "D:\\data");  // without a terminator
  EXPECT_EQ(CQMAppUtils::GetApplicationDataPath(path), QMErrors::NoError);
  EXPECT_EQ(path, "D:\\data");
  EXPECT_EQ(QMRegistryC::CloseKey(key, 0), QMErrors::NoError);

  CString version("x"), pack("x");
  CQMAppUtils::GetSPVersionInfo(version, pack);
  EXPECT_EQ(version + "|" + pack, "|");
  ASSERT_EQ(
      QMRegistryC::OpenKey(HKEY_LOCAL_MACHINE, "SOFTWARE\\Quillmoor Designs\\Corvane", 1, &key),
      QMErrors::NoError);
  QMRegistryC::SaveKeyData(key, "ProductVersion", "7.1");
  for (const char* stored : {"2", "0"}) {
    QMRegistryC::SaveKeyData(key, "SPVersion", stored);
    CQMAppUtils::GetSPVersionInfo(version, pack);
    EXPECT_EQ(version, "7.1");
    EXPECT_EQ(pack, *stored == '0' ? "" : stored);
  }
  EXPECT_EQ(QMRegistryC::CloseKey(key, 0), QMErrors::NoError);
}

TEST(AppUser, HasANameAndRights) {
  CString user;
  int administrator = -1;
  EXPECT_EQ(CQMAppUtils::GetUserNameA(user), QMErrors::NoError);
  EXPECT_FALSE(user.IsEmpty());
  EXPECT_EQ(CQMAppUtils::IsAdministrator(&administrator), QMErrors::NoError);
  if (geteuid() != 0) return;
  EXPECT_EQ(administrator, 1);
  if (const pid_t child = fork(); child == 0) {
    // Nobody, and then a user who is not in the list of users.
    if (seteuid(65534) != 0) _exit(1);
    if (CQMAppUtils::IsAdministrator(&administrator) != QMErrors::NoError || administrator != 0) {
      _exit(2);
    }
    if (seteuid(0) != 0 || seteuid(54321) != 0) _exit(3);
    qmtest::LogCapture log;
    const bool unknown = CQMAppUtils::GetUserNameA(user) == QMErrors::fromOsError(1332);
    const bool told =
        log.contains(" ERROR: CQMAppUtils::GetUserName(): ::GetUserName() failed: Error: 1332 ");
    _exit(unknown && told ? 0 : 4);
  } else {
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
}

// ---- Windows ------------------------------------------------------------------------------------

class AppWindows : public testing::Test {
 protected:
  AppWindows() {
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::owner_all);
    setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
  }
  ~AppWindows() override {
    qm::platform::setPromptHook(nullptr);
    unsetenv("XDG_RUNTIME_DIR");
  }

  static LRESULT deaf(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam) {
    return message == WM_CLOSE ? 0 : CQMAppUtils::DefWindowProcA(hWnd, message, wParam, lParam);
  }

  /// Another program that runs a window's messages.
  pid_t startOther(WNDPROC procedure) {
    const pid_t child = fork();
    if (child == 0) {
      char title[] = "The press";
      std::_Exit(
          CQMAppUtils::InitInstance(nullptr, "Press", title, nullptr, 0, procedure) == 0 ? 0 : 1);
    }
    while (qm::platform::findWindow("Press", "The press", true) == nullptr) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return child;
  }

  const qmtest::TempFolder folder_;
  qmtest::LogCapture log_;
};

TEST_F(AppWindows, AnotherProgramIsFoundAskedAndClosed) {
  EXPECT_EQ(CQMAppUtils::FindAndCloseApplication("Press", nullptr, 0, 1000), QMErrors::NoError);
  const pid_t other = startOther(CQMAppUtils::DefWindowProcA);
  const HWND window = qm::platform::findWindow("Press", nullptr, true);
  CString file, own;
  EXPECT_EQ(CQMAppUtils::GetWindowModuleFileNameA(window, file), QMErrors::NoError);
  CQMAppUtils::GetModulePath(own, false);
  EXPECT_EQ(file, own);

  static std::string question;
  qm::platform::setPromptHook([](const char* text, const char*, UINT) {
    question = text;
    return IDNO;
  });
  EXPECT_EQ(CQMAppUtils::FindAndCloseApplication("Press", "The press", 1, 20'000),
            QMErrors::TheUserCancelledTheOperation);
  EXPECT_NE(question.find("app_test"), std::string::npos);
  EXPECT_EQ(CQMAppUtils::FindAndCloseApplication(nullptr, "the PRESS", 0, 20'000),
            QMErrors::NoError);
  int status = -1;
  waitpid(other, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(log_.text(), "");
}

TEST_F(AppWindows, AProgramThatDoesNotCloseIsToldOf) {
  const pid_t other = startOther(deaf);
  EXPECT_EQ(CQMAppUtils::FindAndCloseApplication("Press", nullptr, 0, 200),
            QMErrors::CommandTimedOut);
  EXPECT_TRUE(log_.contains(" ERROR: CQMAppUtils::FindAndCloseApplication(): still running: "))
      << log_.text();
  const HWND window = qm::platform::findWindow("Press", nullptr, true);
  // One that does not even answer might be the one: it must not look as if there were none.
  kill(other, SIGSTOP);
  EXPECT_EQ(CQMAppUtils::FindAndCloseApplication("Press", nullptr, 0, 200),
            QMErrors::fromOsError(1460));
  kill(other, SIGKILL);
  waitpid(other, nullptr, 0);
  log_.clear();
  CString file;
  EXPECT_EQ(CQMAppUtils::GetWindowModuleFileNameA(window, file), QMErrors::fromOsError(1400));
  EXPECT_TRUE(
      log_.contains(" ERROR: CQMAppUtils::GetWindowModuleFileName(): Failed to get process "
                    "handle: Error: 1400 "))
      << log_.text();
  EXPECT_TRUE(log_.contains(" ERROR: CQMAppUtils::GetWindowModuleFileName(): hWnd = 0x"))
      << log_.text();
  EXPECT_TRUE(log_.contains(", window title:, module is: ")) << log_.text();
}

struct KeyCounter : IQMWindowsKeyboardEventListener {
  void OnEvent(IQMEventBase& event) override {
    const MSG message = dynamic_cast<QMWindowsKeyboardEventC&>(event);
    keys += static_cast<char>(message.wParam);
  }
  std::string keys;
};

TEST_F(AppWindows, KeysReachTheListeners) {
  KeyCounter counter;
  EXPECT_EQ(CQMAppUtils::AddKeyboardEventListener(counter), QMErrors::NoError);
  std::thread program([] {
    char title[] = "keys";
    EXPECT_EQ(
        CQMAppUtils::InitInstance(nullptr, "Keys", title, nullptr, 0, CQMAppUtils::DefWindowProcA),
        QMErrors::NoError);
  });
  HWND window = nullptr;
  while ((window = qm::platform::findWindow("Keys", nullptr, false)) == nullptr) {
    std::this_thread::yield();
  }
  EXPECT_EQ(CQMAppUtils::RegisterClassA(nullptr, "Keys", nullptr, CQMAppUtils::DefWindowProcA),
            QMErrors::fromOsError(1410));
  for (const char key : {'a', 'b'}) {
    EXPECT_TRUE(qm::platform::postMessage(window, WM_KEYDOWN, static_cast<WPARAM>(key), 0));
  }
  EXPECT_TRUE(qm::platform::postMessage(window, 0x400, 'c', 0));
  EXPECT_TRUE(qm::platform::postMessage(window, WM_CLOSE, 0, 0));
  program.join();
  EXPECT_EQ(counter.keys, "ab");
  EXPECT_EQ(CQMAppUtils::RemoveKeyboardEventListener(counter), QMErrors::NoError);
}

}  // namespace
