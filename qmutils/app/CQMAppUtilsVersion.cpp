// Who the program is: module paths, version data, the remembered names, a reseller's settings.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/config/QMIniFileC.h"
#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/icon.h"
#include "qmutils/platform/module.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/user.h"
#include "qmutils/platform/version_info.h"

using namespace qm::platform;
using QMErrors::QMErrorT;

namespace {

constexpr const char* kModuleSeparators = ":\\/";
constexpr const char* kBlocks[] = {"040904B0", "080904B0"};
constexpr UINT kNoIcon = 0xFFFFFFFF;
constexpr const char* kSupport = "support@quillmoor.example";

/// The module's path as the system gives it; logs a failure under `label`.
QMErrorT readModulePath(HINSTANCE module, std::string& path, const char* label) {
  path = modulePath(module);
  if (!path.empty()) return QMErrors::NoError;
  const QMErrorT error = QMErrors::lastOsError();
  qm::logError(label, QMErrToStr(error));
  return error;
}

QMErrorT pathOf(HINSTANCE module, CString& path, bool stripName, const char* label) try {
  std::string text;
  const QMErrorT result = readModulePath(module, text, label);
  if (stripName) text.resize(std::min(text.find_last_of(kModuleSeparators), text.size()));
  if (result != QMErrors::NoError) return result;
  return path.Assign(text) ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(label);
}

QMErrorT nameOf(HINSTANCE module, CString& name, bool stripExtension, const char* label) try {
  std::string text;
  const QMErrorT result = readModulePath(module, text, label);
  text.erase(0, text.find_last_of(kModuleSeparators) + 1);
  if (stripExtension) text.resize(std::min(text.rfind('.'), text.size()));
  if (result != QMErrors::NoError) return result;
  return name.Assign(text) ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(label);
}

/// True when the file tells nothing, which is no failure; false when nobody could look.
bool tellsNothing(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_ACCESS_DENIED:
    case ERROR_RESOURCE_DATA_NOT_FOUND:
    case ERROR_RESOURCE_TYPE_NOT_FOUND:
    case ERROR_RESOURCE_NAME_NOT_FOUND:
      return true;
    default:
      return false;
  }
}

/// A text of a file's version data: 2007 with "Unknown" when it is not there.
QMErrorT versionText(const CString& file, const char* key, std::string& text) {
  if (file.IsEmpty()) return QMErrors::BadCommandLineArguments;
  for (const char* block : kBlocks) {
    if (readVersionText(file, block, key, &text)) return QMErrors::NoError;
    if (!tellsNothing(lastError())) return QMErrors::lastOsError();
  }
  text = "Unknown";
  return QMErrors::EndOfFileError;
}

/// The same for callers who do not mind.
QMErrorT versionTextOrUnknown(const CString& file, const char* key, std::string& text) {
  const QMErrorT result = versionText(file, key, text);
  return result == QMErrors::EndOfFileError ? QMErrors::NoError : result;
}

QMErrorT giveText(QMErrorT result, const std::string& text, CString& value) {
  if (result != QMErrors::NoError && result != QMErrors::EndOfFileError) return result;
  return value.Assign(text) ? result : QMErrors::MemoryAllocationFailed;
}

/// "5, 0, 1, 2" as "v5.0.1.2".
std::string compact(const std::string& version) {
  std::string text = "v";
  for (const char c : version) {
    if (c != ' ' && c != '\t') text += c == ',' ? '.' : c;
  }
  return text;
}

/// Drivers are named without their folder, which is the system's.
std::string fileToDate(std::string_view file) {
  const bool driver = file.ends_with("sys") || file.ends_with("SYS");
  const bool absolute =
      file.find(':') != std::string_view::npos || file.starts_with('/') || file.starts_with('\\');
  if (!driver || absolute) return std::string(file);
  return std::string(systemFolder()) + "\\" + std::string(file);
}

std::string dateOf(const CString& file) {
  FILETIME written;
  SYSTEMTIME time;
  if (!lastWriteTime(fileToDate(file.view()).c_str(), &written) ||
      !fileTimeToSystemTime(written, &time)) {
    return " ; unknown date/time ";
  }
  char text[48];
  std::snprintf(text, sizeof text, " ; %02u/%02u/%04u %02u:%02u:%02u", time.wDay, time.wMonth,
                time.wYear, time.wHour, time.wMinute, time.wSecond);
  return text;
}

// ---- The reseller's settings --------------------------------------------------------------------

/// The path of a file beside the program.
QMErrorT besideProgram(const char* name, CString& path) {
  const QMErrorT result = CQMAppUtils::GetModulePath(path, true);
  path = path + "\\" + name;
  return result;
}

CString mailSetting(const char* key, const char* defaultText, const char* failed) {
  CString path, value;
  QMErrorT result = besideProgram(QMIniFileC::OEM_CONFIG_INI_FILE, path);
  if (result == QMErrors::NoError) {
    QMIniFileC settings(path, 1);
    const CString fallback(defaultText);
    result = settings.Read(QMIniFileC::MAIL, key, &fallback, value);
  } else {
    value = defaultText;
  }
  if (result != QMErrors::NoError) qm::logWarning(0, failed, QMErrToStr(result));
  return value;
}

// ---- Names that are looked up once --------------------------------------------------------------

/// What the running program's file says; logs a failure under the names given.
template <class Read>
QMErrorT askProgram(const char* caller, const char* reader, CString& value, const Read& read) {
  CString path;
  const QMErrorT found = CQMAppUtils::GetModulePath(path, false);
  if (found != QMErrors::NoError) {
    qm::logError("CQMAppUtils::", caller, "(): GetModulePath() returned: ", QMErrToStr(found));
    return found;
  }
  const QMErrorT result = read(path, value);
  if (result != QMErrors::NoError) {
    qm::logError("CQMAppUtils::", caller, "(): ", reader, "() returned: ", QMErrToStr(result));
  }
  return result;
}

/// Lets the reseller's settings, if there are any, replace a name; a value that could not be read
/// or is empty replaces none.
QMErrorT askReseller(const char* key, const CString* defaultText, CString& name) {
  CString path;
  QMErrorT result = besideProgram(QMIniFileC::OEM_CONFIG_INI_FILE, path);
  if (result != QMErrors::NoError || !CQMAppUtils::FileExists(path)) return result;
  QMIniFileC settings(path, 1);
  CString value;
  result = settings.Read(QMIniFileC::MANUFACTURER, key, defaultText, value);
  if (result != QMErrors::NoError || (value.IsEmpty() && defaultText == nullptr)) return result;
  return name.Assign(value.view()) ? result : QMErrors::MemoryAllocationFailed;
}

QMErrorT findVersion(CString& version) {
  return askProgram("GetVersion", "GetFileVersionString", version,
                    [](const CString& path, CString& text) {
                      return CQMAppUtils::GetFileVersionString(path, text, true, false);
                    });
}

QMErrorT findProgramName(CString& name) { return CQMAppUtils::GetModuleName(name, true); }

QMErrorT findCompanyName(CString& name) {
  const QMErrorT own =
      askProgram("GetCompanyName", "GetFileCompanyString", name, CQMAppUtils::GetFileCompanyString);
  const QMErrorT resellers = askReseller(QMIniFileC::MANUFACTURER, &name, name);
  return own == QMErrors::MemoryAllocationFailed ? own : resellers;
}

QMErrorT findProductName(CString& name) {
  const QMErrorT own =
      askProgram("GetProductName", "GetFileProductString", name, CQMAppUtils::GetFileProductString);
  const QMErrorT resellers = askReseller(QMIniFileC::PRODUCT, nullptr, name);
  return own == QMErrors::MemoryAllocationFailed ? own : resellers;
}

/// The remembered names. Never destroyed: threads may outlive main().
using Name = std::shared_ptr<const CString>;
struct Names {
  std::mutex lock;
  Name version, program, product, company;
};

Names& names() {
  static qm::Immortal<Names> all;
  return all.value;
}

/// Looks a name up without the lock: a failure is logged, and whoever takes the log's lines may ask
/// for a name as well. What memory was lacking for is looked up again next time.
CString remembered(Name Names::*which, QMErrorT (*find)(CString&)) try {
  Name known;
  {
    const ShortLock lock(names().lock);
    known = names().*which;
  }
  if (known != nullptr) return *known;
  CString found;
  const QMErrorT result = find(found);
  if (result == QMErrors::MemoryAllocationFailed || result == QMErrors::ResourceAllocationFailed) {
    return found;
  }
  auto made = std::make_shared<const CString>(std::move(found));
  {
    const ShortLock lock(names().lock);
    if (names().*which == nullptr) names().*which = made;
  }
  return *made;
} catch (const std::bad_alloc&) {
  return {};
}

}  // namespace

CQMAppUtils::~CQMAppUtils() {
  for (auto which : {&Names::version, &Names::program, &Names::product, &Names::company}) {
    Name forgotten;  // destroyed outside of the lock
    const ShortLock lock(names().lock);
    forgotten.swap(names().*which);
  }
}

CQMPrefs* CQMAppUtils::GetPreferences() {
  auto* const prefs = new (std::nothrow) CQMPrefs(GetProgramName(), GetVersion(), "Preferences");
  if (prefs == nullptr) {
    qm::logError("CQMAppUtils::GetPreferences(): new Failed on CQMPrefs return is NULL");
  }
  return prefs;
}

QMErrorT CQMAppUtils::GetModulePath(HINSTANCE module, CString& path, bool bStripName) {
  return pathOf(module, path, bStripName, "CQMAppUtils::GetModulePath(h,s): ");
}

QMErrorT CQMAppUtils::GetModulePath(CString& path, bool bStripName) {
  return pathOf(programModule(), path, bStripName, "CQMAppUtils::GetModulePath(s): ");
}

QMErrorT CQMAppUtils::GetModuleName(HINSTANCE module, CString& name, bool bStripExtension) {
  return nameOf(module, name, bStripExtension, "CQMAppUtils::GetModuleName(h,s): ");
}

QMErrorT CQMAppUtils::GetModuleName(CString& name, bool bStripExtension) {
  return nameOf(programModule(), name, bStripExtension, "CQMAppUtils::GetModuleName(s): ");
}

QMErrorT CQMAppUtils::GetFileVersionInfoA(const CString& file, const CString& key,
                                          CString& value) try {
  std::string text;
  const QMErrorT result = versionText(file, key, text);
  return giveText(result, text, value);
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT CQMAppUtils::GetFileCompanyString(const CString& file, CString& value) try {
  std::string text;
  const QMErrorT result = versionTextOrUnknown(file, "CompanyName", text);
  return giveText(result, text, value);
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT CQMAppUtils::GetFileProductString(const CString& file, CString& value) try {
  std::string text;
  const QMErrorT result = versionTextOrUnknown(file, "ProductName", text);
  return giveText(result, text, value);
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT CQMAppUtils::GetFileVersionString(const CString& file, CString& version, bool bCompact,
                                           bool bWithDate) try {
  std::string text;
  const QMErrorT result = versionTextOrUnknown(file, "ProductVersion", text);
  if (bCompact) text = compact(text);
  if (bWithDate) text += dateOf(file);
  return giveText(result, text, version);
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

CString CQMAppUtils::GetVersion() { return remembered(&Names::version, findVersion); }

CString CQMAppUtils::GetProgramName() { return remembered(&Names::program, findProgramName); }

CString CQMAppUtils::GetCompanyName() { return remembered(&Names::company, findCompanyName); }

CString CQMAppUtils::GetProductName() { return remembered(&Names::product, findProductName); }

HICON CQMAppUtils::LoadAppIcon(UINT id) try {
  CString folder;
  const QMErrorT found = GetModulePath(folder, true);
  if (found == QMErrors::NoError) {
    const CString settingsPath = folder + "\\" + QMIniFileC::OEM_CONFIG_INI_FILE;
    QMIniFileC settings(settingsPath, 1);
    CString file;
    settings.Read(GetProgramName(), QMIniFileC::PRODUCT_ICON, nullptr, file);
    if (!file.IsEmpty()) {
      if (const HICON icon = iconFromFile(folder + "\\" + file)) return icon;
    }
  } else {
    qm::logError("CQMAppUtils::LoadAppIcon(): will use default icon as GetModulePath() returned:",
                 QMErrToStr(found));
  }
  if (id == kNoIcon) return nullptr;
  // A language library may have icons of its own, but need not.
  const HICON icon = iconOfModule(resourceModule(), id);
  return icon != nullptr ? icon : iconOfModule(programModule(), id);
} catch (const std::bad_alloc&) {
  qm::logNoMemory("CQMAppUtils::LoadAppIcon(): ");
  return nullptr;
}

CString CQMAppUtils::GetMailRecipients() {
  return mailSetting(QMIniFileC::RECIPIENTS, kSupport,
                     "CQMAppUtils::GetMailRecipients(void): an error occurred fetching the "
                     "recipients: ");
}

CString CQMAppUtils::GetMailAddresses() {
  return mailSetting(
      QMIniFileC::ADDRESSES, "",
      "CQMAppUtils::GetMailAddresses(void): an error occurred fetching the addresses: ");
}

CString CQMAppUtils::GetMailSubject() {
  return mailSetting(QMIniFileC::SUBJECT, "",
                     "CQMAppUtils::GetMailSubject(void): an error occurred fetching the subject: ");
}
