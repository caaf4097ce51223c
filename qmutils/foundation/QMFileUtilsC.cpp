#include "qmutils/foundation/QMFileUtilsC.h"

#include <new>
#include <string>
#include <string_view>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"

using namespace qm::platform;

namespace {

constexpr std::string_view kSeparators = "\\/";

const char* osErrorText() { return QMErrToStr(QMErrors::lastOsError()); }

void assign(QMCString* target, std::string_view text) {
  if (target != nullptr) *target = QMCString(text);
}

bool given(const QMCString* text) { return text != nullptr && !text->IsEmpty(); }

}  // namespace

int QMFileUtilsC::FileExists(const char* path) {
  return fileAttributes(path) != INVALID_FILE_ATTRIBUTES ? 1 : 0;
}

QMErrors::QMErrorT QMFileUtilsC::HideFile(const char* path, int bHide) {
  const DWORD attributes = fileAttributes(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const QMErrors::QMErrorT error = QMErrors::lastOsError();
    qm::logError("QMFileUtilsC::HideFile(): GetFileAttributes() failed, reason: ",
                 QMErrToStr(error));
    return error;
  }
  const DWORD changed =
      bHide != 0 ? attributes | FILE_ATTRIBUTE_HIDDEN : attributes & ~FILE_ATTRIBUTE_HIDDEN;
  if (setFileAttributes(path, changed)) return QMErrors::NoError;
  const QMErrors::QMErrorT error = QMErrors::lastOsError();
  qm::logError("QMFileUtilsC::HideFile(): unable to make ", bHide != 0 ? "hidden" : "visible",
               " file: ", path, ", reason: ", QMErrToStr(error));
  return error;
}

int QMFileUtilsC::DeleteFileA(const char* path, int bAlwaysTry) {
  if (bAlwaysTry == 0 && FileExists(path) == 0) return 1;
  if (deleteFile(path)) return 1;
  qm::logError("QMFileUtilsC::DeleteFile(): failed deleting: ", path != nullptr ? path : "NULL",
               ", reason: ", osErrorText());
  return 0;
}

int QMFileUtilsC::CopyFileA(const char* src, const char* dst, int bFailIfExists) {
  if (copyFile(src, dst, bFailIfExists != 0)) return 1;
  qm::logError("QMFileUtilsC::CopyFile(): failed: ", osErrorText());
  return 0;
}

QMErrors::QMErrorT QMFileUtilsC::GetLastWriteTime(const char* path, FILETIME& time) {
  if (path == nullptr) return QMErrors::BadCommandLineArguments;
  if (FileExists(path) == 0) return QMErrors::UnableToFindFile;
  if (lastWriteTime(path, &time)) return QMErrors::NoError;
  const QMErrors::QMErrorT error = QMErrors::lastOsError();
  qm::logWarning(0, "QMFileUtilsC::GetLastWriteTime(): Returning: ", QMErrToStr(error));
  return error;
}

QMErrors::QMErrorT QMFileUtilsC::MakeFolder(const char* path) {
  QMCString level;
  const QMErrors::QMErrorT result = MakeFolderLevels(path, level);
  if (result != QMErrors::NoError) {
    qm::logError("QMFileUtilsC::MakeFolder(): ", "Creating directory: ",
                 static_cast<const char*>(level), ", reason: ", QMErrToStr(result));
  }
  return result;
}

QMErrors::QMErrorT QMFileUtilsC::MakeFolderLevels(const char* path, QMCString& failedLevel) try {
  if (path == nullptr) return QMErrors::BadCommandLineArguments;
  if (FileExists(path) != 0) return QMErrors::NoError;
  const std::string_view whole = path;
  std::size_t end = 0;
  while (end < whole.size()) {
    end = whole.find_first_of(kSeparators, end);
    end = end == std::string_view::npos ? whole.size() : end + 1;
    const std::string level(whole.substr(0, end));
    failedLevel = level.c_str();
    // A level that is there already, or the root of a drive, cannot be made and need not be.
    if (!createDirectory(level.c_str()) && lastError() == ERROR_PATH_NOT_FOUND) {
      return QMErrors::lastOsError();
    }
  }
  // The last attempt gives the reason why; another program may make the folder meanwhile.
  if (FileExists(path) != 0 || createDirectory(path)) return QMErrors::NoError;
  const QMErrors::QMErrorT reason = QMErrors::lastOsError();
  return FileExists(path) != 0 ? QMErrors::NoError : reason;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

void QMFileUtilsC::SplitPath(const QMCString& path, QMCString* drive, QMCString* dir,
                             QMCString* name, QMCString* ext) {
  const QMCString text(path);  // the outputs may be the path itself
  std::string_view rest = text.view();
  const auto cut = [&rest](QMCString* target, std::size_t at) {
    const bool found = at != std::string_view::npos;
    assign(target, found ? rest.substr(0, at) : std::string_view());
    if (found) rest.remove_prefix(at + 1);
  };
  cut(drive, rest.find(':'));
  cut(dir, rest.find_last_of(kSeparators));
  const std::size_t dot = rest.rfind('.');
  assign(name, rest.substr(0, dot));
  assign(ext, dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1));
}

void QMFileUtilsC::MakePath(QMCString& path, const QMCString* drive, const QMCString* dir,
                            const QMCString* name, const QMCString* ext) try {
  // At once: a path without one of its parts would be another file's.
  std::string made;
  const auto add = [&made](const char* before, const QMCString* part, const char* behind) {
    if (given(part)) made.append(before).append(part->view()).append(behind);
  };
  add("", drive, ":");
  add("", dir, "\\");
  add("", name, "");
  add(".", ext, "");
  if (!path.Assign(made)) path.Empty();
} catch (const std::bad_alloc&) {
  path.Empty();
  qm::logError("QMFileUtilsC::MakePath(): ", QMErrToStr(QMErrors::MemoryAllocationFailed));
}
