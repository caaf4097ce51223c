#include "qmutils/app/CQMAppUtils.h"

#include <cstdio>
#include <new>
#include <string>
#include <string_view>

#include "qmutils/app/KeyboardEvents.h"
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

/// A value of an open key as a text, which may have no terminator in the store.
QMErrorT readText(HKEY key, const char* name, CString& text, bool* found) {
  unsigned char* data = nullptr;
  DWORD size = 0;
  const QMErrorT result = QMRegistryC::GetKeyData(key, name, &data, nullptr, &size);
  *found = data != nullptr;
  if (data == nullptr) return result;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const bool taken = text.Assign(bytes.substr(0, bytes.find('\0')));
  ::operator delete(data);
  return taken ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
}

}  // namespace

std::atomic<const char*> CQMAppUtils::m_pAppDataKey{nullptr};
std::atomic<const char*> CQMAppUtils::m_pAppDataDirKey{nullptr};

QMWindowsKeyboardEventMultiCasterC& CQMAppUtils::m_KeyboardEventMulticaster = qm::keyboardEvents();

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
  bool ignored;  // nothing is reported: what cannot be read is empty
  readText(key, "ProductVersion", version, &ignored);
  readText(key, "SPVersion", spVersion, &ignored);
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
  bool found;
  QMErrorT result = readText(key, valueName, path, &found);
  if (result == QMErrors::NoError && !found) {
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
  if (stamped.IsEmpty()) {
    path.Empty();  // no memory
    return;
  }
  MakePath(path, drive, dir, &stamped, ext);
}

/// The parts are those of SplitPath(); taken from the text itself, so that lacking memory none of
/// them is lost.
CString CQMAppUtils::MakeUniqueName(const char* path) try {
  std::string text(path != nullptr ? path : "");
  const std::size_t behindDrive = text.find(':') + 1;
  const std::size_t separator = text.find_last_of("\\/");
  const bool hasFolder = separator != std::string::npos && separator >= behindDrive;
  if (hasFolder) text[separator] = '\\';
  const std::size_t name = hasFolder ? separator + 1 : behindDrive;
  const std::size_t dot = text.rfind('.');
  const std::size_t nameEnd = dot != std::string::npos && dot >= name ? dot : text.size();
  std::string extension = text.substr(nameEnd);
  if (extension == ".") extension.clear();
  text.resize(nameEnd);
  for (int i = 0; i < kUniqueNames; ++i) {
    char number[16];
    std::snprintf(number, sizeof number, "_%03d", i);
    const std::string candidate = text + number + extension;
    if (FileExists(candidate.c_str())) continue;
    CString result;
    result.Assign(candidate);
    return result;
  }
  return {};
} catch (const std::bad_alloc&) {
  qm::logNoMemory("CQMAppUtils::MakeUniqueName(): ");
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
  return folder.Assign(systemFolder()) ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
}

QMErrorT CQMAppUtils::GetUserNameA(CString& user) try {
  std::string name;
  if (!userName(&name)) return failed("CQMAppUtils::GetUserName(): ::GetUserName() failed: ");
  return user.Assign(name) ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
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
  return qm::keyboardEvents().AddListener(listener);
}

QMErrorT CQMAppUtils::RemoveKeyboardEventListener(IQMWindowsKeyboardEventListener& listener) {
  return qm::keyboardEvents().RemoveListener(listener);
}
