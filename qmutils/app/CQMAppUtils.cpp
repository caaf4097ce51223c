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

using namespace qm::platform;

namespace {

constexpr const char* kModuleSeparators = ":\\/";
constexpr int kUniqueNames = 999;

/// The module's path as the system gives it; logs a failure under `label`.
QMErrors::QMErrorT readModulePath(HINSTANCE module, std::string& path, const char* label) {
  path = modulePath(module);
  if (!path.empty()) return QMErrors::NoError;
  const QMErrors::QMErrorT error = QMErrors::lastOsError();
  qm::logError(label, QMErrToStr(error));
  return error;
}

QMErrors::QMErrorT noMemory(const char* label) {
  qm::logError(label, QMErrToStr(QMErrors::MemoryAllocationFailed));
  return QMErrors::MemoryAllocationFailed;
}

QMErrors::QMErrorT pathOf(HINSTANCE module, CString& path, bool stripName, const char* label) try {
  std::string text;
  const QMErrors::QMErrorT result = readModulePath(module, text, label);
  if (stripName) text.resize(std::min(text.find_last_of(kModuleSeparators), text.size()));
  if (result == QMErrors::NoError) path = text.c_str();
  return result;
} catch (const std::bad_alloc&) {
  return noMemory(label);
}

QMErrors::QMErrorT nameOf(HINSTANCE module, CString& name, bool stripExtension,
                          const char* label) try {
  std::string text;
  const QMErrors::QMErrorT result = readModulePath(module, text, label);
  text.erase(0, text.find_last_of(kModuleSeparators) + 1);
  if (stripExtension) text.resize(std::min(text.rfind('.'), text.size()));
  if (result == QMErrors::NoError) name = text.c_str();
  return result;
} catch (const std::bad_alloc&) {
  return noMemory(label);
}

/// The folder of a path when it is the root itself, which SplitPath() shows as no folder at all.
bool standsInRoot(std::string_view path) {
  const std::size_t drive = path.find(':');
  if (drive != std::string_view::npos) path.remove_prefix(drive + 1);
  return path.find_last_of("\\/") == 0;
}

}  // namespace

QMErrors::QMErrorT CQMAppUtils::GetModulePath(HINSTANCE module, CString& path, bool bStripName) {
  return pathOf(module, path, bStripName, "CQMAppUtils::GetModulePath(h,s): ");
}

QMErrors::QMErrorT CQMAppUtils::GetModulePath(CString& path, bool bStripName) {
  return pathOf(programModule(), path, bStripName, "CQMAppUtils::GetModulePath(s): ");
}

QMErrors::QMErrorT CQMAppUtils::GetModuleName(HINSTANCE module, CString& name,
                                              bool bStripExtension) {
  return nameOf(module, name, bStripExtension, "CQMAppUtils::GetModuleName(h,s): ");
}

QMErrors::QMErrorT CQMAppUtils::GetModuleName(CString& name, bool bStripExtension) {
  return nameOf(programModule(), name, bStripExtension, "CQMAppUtils::GetModuleName(s): ");
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

QMErrors::QMErrorT CQMAppUtils::MakeFolder(const char* path) {
  QMCString level;
  const QMErrors::QMErrorT result = QMFileUtilsC::MakeFolderLevels(path, level);
  if (result != QMErrors::NoError) {
    qm::logError(
        "CQMAppUtils::MakeFolder(): ", "Creating directory: ", static_cast<const char*>(level));
  }
  return result;
}
