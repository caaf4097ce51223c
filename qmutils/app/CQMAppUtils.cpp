#include "qmutils/app/CQMAppUtils.h"

#include <algorithm>
#include <new>
#include <string>
#include <string_view>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMFileUtilsC.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/module.h"
#include "qmutils/platform/user.h"

using namespace qm::platform;
using QMErrors::QMErrorT;

namespace {

constexpr int kUniqueNames = 999;
constexpr const char* kEnglish = "English";

/// The last system error as a result, logged under `label`.
QMErrorT failed(const char* label) {
  const QMErrorT error = QMErrors::lastOsError();
  qm::logError(label, QMErrToStr(error));
  return error;
}

/// A value of an open key as a text, which may have no terminator. False when there is none.
bool readText(HKEY key, const char* name, CString& text, QMErrorT& result) {
  unsigned char* data = nullptr;
  DWORD size = 0;
  result = QMRegistryC::GetKeyData(key, name, &data, nullptr, &size);
  if (data == nullptr) return false;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  text = bytes.substr(0, bytes.find('\0'));
  ::operator delete(data);
  return true;
}

/// The folder of a path when it is the root itself, which SplitPath() shows as no folder at all.
bool standsInRoot(std::string_view path) {
  const std::size_t drive = path.find(':');
  if (drive != std::string_view::npos) path.remove_prefix(drive + 1);
  return path.find_last_of("\\/") == 0;
}

}  // namespace

std::atomic<const char*> CQMAppUtils::m_pAppDataKey{nullptr};
std::atomic<const char*> CQMAppUtils::m_pAppDataDirKey{nullptr};

namespace {

/// Never destroyed: listeners may be removed after main().
QMWindowsKeyboardEventMultiCasterC& keyboardEvents() {
  static auto& multicaster = *new QMWindowsKeyboardEventMultiCasterC;
  return multicaster;
}

}  // namespace

QMWindowsKeyboardEventMultiCasterC& CQMAppUtils::m_KeyboardEventMulticaster = keyboardEvents();

CQMAppUtils::CQMAppUtils(const char* appDataKey, const char* appDataDirKey) {
  m_pAppDataKey = appDataKey;
  m_pAppDataDirKey = appDataDirKey;
}

void CQMAppUtils::GetPreferredLanguage(CString& language) { language = kEnglish; }

void CQMAppUtils::GetSPVersionInfo(CString& version, CString& spVersion) {
  version.Empty();
  spVersion.Empty();
  HKEY key = nullptr;
  if (QMRegistryC::OpenKey(HKEY_LOCAL_MACHINE, "SOFTWARE\\Quillmoor Designs\\Corvane", 0, &key) !=
      QMErrors::NoError) {
    return;
  }
  QMErrorT ignored;  // nothing is reported: what cannot be read is empty
  readText(key, "ProductVersion", version, ignored);
  readText(key, "SPVersion", spVersion, ignored);
  if (spVersion == "0") spVersion.Empty();
  QMRegistryC::CloseKey(key, 0);
}

QMErrorT CQMAppUtils::GetLanguageResourceHandle(const char* base, const char* subFolder,
                                                const char* language, HINSTANCE* pHandle) try {
  *pHandle = resourceModule();
  const std::string name(language != nullptr ? language : "");
  if (name == kEnglish) return QMErrors::NoError;
  std::string path = std::string(base != nullptr ? base : "") + "\\Languages\\";
  if (subFolder != nullptr) path += std::string(subFolder) + "\\";
  path += name + ".dll";
  const HINSTANCE library = loadLibrary(path.c_str());
  if (library == nullptr) {
    const QMErrorT error = QMErrors::lastOsError();
    qm::logError("CTesttoolApp::GetLanguageResourceHandle(): ", "Failed to Load dll: ", path,
                 " reason:", QMErrToStr(error));
    return error;
  }
  *pHandle = library;
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory("CTesttoolApp::GetLanguageResourceHandle(): ");
}

QMErrorT CQMAppUtils::SetLanguage(const char* base, const char* language) {
  HINSTANCE module = nullptr;
  const QMErrorT result = GetLanguageResourceHandle(base, nullptr, language, &module);
  if (module != nullptr) setResourceModule(module);
  return result;
}

QMErrorT CQMAppUtils::GetApplicationDataPath(CString& path) {
  path.Empty();
  const char* const keyName = m_pAppDataKey;
  const char* const valueName = m_pAppDataDirKey;
  if (keyName == nullptr || valueName == nullptr) return QMErrors::NullObjectProvided;
  HKEY key = nullptr;
  const QMErrorT opened = QMRegistryC::OpenKey(HKEY_LOCAL_MACHINE, keyName, 0, &key);
  if (opened != QMErrors::NoError) return opened;
  QMErrorT result;
  if (!readText(key, valueName, path, result) && result == QMErrors::NoError) {
    qm::logWarning(0, "CQMAppUtils::GetApplicationDataPath(): The registry key: ", keyName, "\\",
                   valueName, " does not contain valid data.");
    result = QMErrors::TheRegistryKeyIsInvalidOrDoesNotContainValidData;
  }
  QMRegistryC::CloseKey(key, 0);
  return result;
}

void CQMAppUtils::SplitPath(const CString& path, CString* drive, CString* dir, CString* name,
                            CString* ext) {
  QMFileUtilsC::SplitPath(path, drive, dir, name, ext);
}

void CQMAppUtils::MakePath(CString& path, const CString* drive, const CString* dir,
                           const CString* name, const CString* ext) {
  QMFileUtilsC::MakePath(path, drive, dir, name, ext);
}

void CQMAppUtils::MakeTimeStampedPath(CString& path, const CString* drive, const CString* dir,
                                      const CString* name, const CString* ext) {
  const SYSTEMTIME now = localSystemTime();
  CString stamped;
  stamped.Format("%s_%02d%02d%04d_%02d%02d%02d",
                 name != nullptr ? static_cast<const char*>(*name) : "", now.wDay, now.wMonth,
                 now.wYear, now.wHour, now.wMinute, now.wSecond);
  MakePath(path, drive, dir, &stamped, ext);
}

CString CQMAppUtils::MakeUniqueName(const char* path) {
  const CString whole(path);
  CString drive;
  CString dir;
  CString name;
  CString ext;
  SplitPath(whole, &drive, &dir, &name, &ext);
  const bool inRoot = standsInRoot(whole.view());
  for (int i = 0; i < kUniqueNames; ++i) {
    CString numbered;
    numbered.Format("%s%s_%03d", inRoot ? "\\" : "", static_cast<const char*>(name), i);
    CString candidate;
    MakePath(candidate, &drive, &dir, &numbered, &ext);
    if (!FileExists(candidate)) return candidate;
  }
  return {};
}

bool CQMAppUtils::FileExists(const char* path) { return findsEntry(path); }

QMErrorT CQMAppUtils::MakeFolder(const char* path) {
  QMCString level;
  const QMErrorT result = QMFileUtilsC::MakeFolderLevels(path, level);
  if (result != QMErrors::NoError) {
    qm::logError(
        "CQMAppUtils::MakeFolder(): ", "Creating directory: ", static_cast<const char*>(level));
  }
  return result;
}

QMErrorT CQMAppUtils::GetWindowsDirectoryA(CString& folder) {
  folder = systemFolder();
  return QMErrors::NoError;
}

QMErrorT CQMAppUtils::GetUserNameA(CString& user) try {
  std::string name;
  if (!userName(&name)) return failed("CQMAppUtils::GetUserName(): ::GetUserName() failed: ");
  user = name.c_str();
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory("CQMAppUtils::GetUserName(): ");
}

QMErrorT CQMAppUtils::IsAdministrator(int* pIsAdmin) try {
  *pIsAdmin = 0;
  CString user;
  const QMErrorT named = GetUserNameA(user);
  if (named != QMErrors::NoError) return named;
  bool administrator = false;
  if (!isAdministrator(user, &administrator)) {
    return failed("CQMAppUtils::IsAdministrator(): NetUserGetInfo() failed: ");
  }
  *pIsAdmin = administrator ? 1 : 0;
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory("CQMAppUtils::IsAdministrator(): ");
}

QMErrorT CQMAppUtils::AddKeyboardEventListener(IQMWindowsKeyboardEventListener& listener) {
  return m_KeyboardEventMulticaster.AddListener(listener);
}

QMErrorT CQMAppUtils::RemoveKeyboardEventListener(IQMWindowsKeyboardEventListener& listener) {
  return m_KeyboardEventMulticaster.RemoveListener(listener);
}
