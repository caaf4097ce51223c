// Who the program is: module paths, version data, the remembered names, a reseller's settings.
#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/config/QMIniFileC.h"
#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMFileUtilsC.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/icon.h"
#include "qmutils/platform/module.h"
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
  if (result == QMErrors::NoError) path = text.c_str();
  return result;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(label);
}

QMErrorT nameOf(HINSTANCE module, CString& name, bool stripExtension, const char* label) try {
  std::string text;
  const QMErrorT result = readModulePath(module, text, label);
  text.erase(0, text.find_last_of(kModuleSeparators) + 1);
  if (stripExtension) text.resize(std::min(text.rfind('.'), text.size()));
  if (result == QMErrors::NoError) name = text.c_str();
  return result;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(label);
}

/// 2007 only says that the file tells nothing.
QMErrorT unknownIsFine(QMErrorT result) {
  return result == QMErrors::EndOfFileError ? QMErrors::NoError : result;
}

/// "5, 0, 1, 2" as "v5.0.1.2".
CString compact(const CString& version) {
  CString text("v");
  for (const char c : version.view()) {
    if (c != ' ' && c != '\t') text += c == ',' ? '.' : c;
  }
  return text;
}

/// Drivers are named without their folder.
CString fileToDate(const CString& file) {
  const bool driver = file.Right(3) == "sys" || file.Right(3) == "SYS";
  CString folder;
  if (!driver || file.Find(':') >= 0 ||
      CQMAppUtils::GetWindowsDirectoryA(folder) != QMErrors::NoError) {
    return file;
  }
  return folder + "\\" + file;
}

CString dateOf(const CString& file) {
  FILETIME written;
  SYSTEMTIME time;
  if (!lastWriteTime(fileToDate(file), &written) || !fileTimeToSystemTime(written, &time)) {
    return " ; unknown date/time ";
  }
  CString text;
  text.Format(" ; %02d/%02d/%04d %02d:%02d:%02d", time.wDay, time.wMonth, time.wYear, time.wHour,
              time.wMinute, time.wSecond);
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

/// What the running program's file says under a key; logs a failure under the names given.
template <class Read>
bool askProgram(const char* caller, const char* reader, CString& value, const Read& read) {
  CString path;
  const QMErrorT found = CQMAppUtils::GetModulePath(path, false);
  if (found != QMErrors::NoError) {
    qm::logError("CQMAppUtils::", caller, "(): GetModulePath() returned: ", QMErrToStr(found));
    return false;
  }
  const QMErrorT result = read(path, value);
  if (result != QMErrors::NoError) {
    qm::logError("CQMAppUtils::", caller, "(): ", reader, "() returned: ", QMErrToStr(result));
  }
  return result == QMErrors::NoError;
}

/// Lets the reseller's settings, if there are any, read a key of the branding.
template <class Use>
void askReseller(const char* key, const CString* defaultText, const Use& use) {
  CString path;
  if (besideProgram(QMIniFileC::OEM_CONFIG_INI_FILE, path) != QMErrors::NoError) return;
  if (!CQMAppUtils::FileExists(path)) return;
  QMIniFileC settings(path, 1);
  CString value;
  const QMErrorT result = settings.Read(QMIniFileC::MANUFACTURER, key, defaultText, value);
  use(result, value);
}

void findVersion(CString& version) {
  if (!askProgram("GetVersion", "GetFileVersionString", version,
                  [](const CString& path, CString& text) {
                    return CQMAppUtils::GetFileVersionString(path, text, true, false);
                  })) {
    version.Empty();
  }
}

void findProgramName(CString& name) { CQMAppUtils::GetModuleName(name, true); }

void findCompanyName(CString& name) {
  askProgram("GetCompanyName", "GetFileCompanyString", name, CQMAppUtils::GetFileCompanyString);
  askReseller(QMIniFileC::MANUFACTURER, &name,
              [&](QMErrorT, const CString& value) { name = value; });
}

void findProductName(CString& name) {
  askProgram("GetProductName", "GetFileProductString", name, CQMAppUtils::GetFileProductString);
  askReseller(QMIniFileC::PRODUCT, nullptr, [&](QMErrorT result, const CString& value) {
    if (result == QMErrors::NoError && !value.IsEmpty()) name = value;
  });
}

/// The remembered names. Never destroyed: threads may outlive main().
struct Names {
  std::mutex lock;
  std::unique_ptr<CString> version, program, product, company;
};

Names& names() {
  static qm::Immortal<Names> all;
  return all.value;
}

/// Looks the name up without the lock: a failure is logged, and whoever takes the log's lines may
/// ask for a name as well.
CString remembered(std::unique_ptr<CString> Names::*which, void (*find)(CString&)) {
  {
    const std::lock_guard lock(names().lock);
    if (names().*which != nullptr) return *(names().*which);
  }
  std::unique_ptr<CString> made(new (std::nothrow) CString);
  if (made == nullptr) return {};
  find(*made);
  const std::lock_guard lock(names().lock);
  std::unique_ptr<CString>& name = names().*which;
  if (name == nullptr) name = std::move(made);
  return *name;
}

}  // namespace

CQMAppUtils::~CQMAppUtils() {
  const std::lock_guard lock(names().lock);
  for (auto which : {&Names::version, &Names::program, &Names::product, &Names::company}) {
    (names().*which).reset();
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
  if (file.IsEmpty()) return QMErrors::BadCommandLineArguments;
  for (const char* block : kBlocks) {
    std::string text;
    if (!readVersionText(file, block, key, &text)) continue;
    value = text.c_str();
    return QMErrors::NoError;
  }
  value = "Unknown";
  return QMErrors::EndOfFileError;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT CQMAppUtils::GetFileCompanyString(const CString& file, CString& value) {
  return unknownIsFine(GetFileVersionInfoA(file, "CompanyName", value));
}

QMErrorT CQMAppUtils::GetFileProductString(const CString& file, CString& value) {
  return unknownIsFine(GetFileVersionInfoA(file, "ProductName", value));
}

QMErrorT CQMAppUtils::GetFileVersionString(const CString& file, CString& version, bool bCompact,
                                           bool bWithDate) {
  CString text;
  const QMErrorT result = unknownIsFine(GetFileVersionInfoA(file, "ProductVersion", text));
  if (result != QMErrors::NoError) return result;
  if (bCompact) text = compact(text);
  if (bWithDate) text = text + dateOf(file);
  version = text;
  return result;
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
  return id != kNoIcon ? iconOfModule(resourceModule(), id) : nullptr;
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
