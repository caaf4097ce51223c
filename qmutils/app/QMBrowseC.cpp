#include "qmutils/app/QMBrowseC.h"

#include <new>
#include <string>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/module.h"

using qm::platform::ChooserRequest;
using QMErrors::QMErrorT;

namespace {

constexpr const char* kLabel = "QMBrowseC::BrowseFor";

/// The folder that the dialog begins with.
const char* startOf(QMBrowseC::BrowseFlagsT flags, const char* start) {
  switch (flags) {
    case QMBrowseC::FromDrives:
      return "\\";
    case QMBrowseC::FromNetwork:
      return "";
    default:
      return start != nullptr ? start : "";
  }
}

}  // namespace

QMErrorT QMBrowseC::BrowseFor(ChooserRequest::Kind kind, HWND owner, CString& choice,
                              const char* title, BrowseFlagsT flags, const char* start) try {
  std::string chosen;
  const DWORD error = qm::platform::choose(
      {kind, owner, title != nullptr ? title : "", startOf(flags, start)}, chosen);
  if (error == ERROR_CANCELLED) return QMErrors::TheUserCancelledTheOperation;
  if (error != 0) {
    const QMErrorT code = QMErrors::fromOsError(error);
    qm::logError(kLabel, QMErrToStr(code));
    return code;
  }
  if (!choice.Assign(chosen)) throw std::bad_alloc();
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  qm::logError(kLabel, QMErrToStr(QMErrors::MemoryAllocationFailed), " While allocating pOlePath.");
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT QMBrowseC::BrowseFor(ChooserRequest::Kind kind, HWND owner, CString& choice, UINT titleId,
                              BrowseFlagsT flags, const char* start) try {
  const char* title = qm::platform::moduleText(qm::platform::resourceModule(), titleId);
  if (title == nullptr) title = qm::platform::moduleText(nullptr, titleId);
  return BrowseFor(kind, owner, choice, title, flags, start);
} catch (const std::bad_alloc&) {
  return BrowseFor(kind, owner, choice, nullptr, flags, start);
}

QMErrorT QMBrowseC::BrowseForDirectory(HWND owner, CString& choice, const char* title,
                                       BrowseFlagsT flags, const char* start) {
  return BrowseFor(ChooserRequest::Folder, owner, choice, title, flags, start);
}

QMErrorT QMBrowseC::BrowseForDirectory(HWND owner, CString& choice, UINT titleId,
                                       BrowseFlagsT flags, const char* start) {
  return BrowseFor(ChooserRequest::Folder, owner, choice, titleId, flags, start);
}

QMErrorT QMBrowseC::BrowseForFile(HWND owner, CString& choice, const char* title,
                                  BrowseFlagsT flags, const char* start) {
  return BrowseFor(ChooserRequest::File, owner, choice, title, flags, start);
}

QMErrorT QMBrowseC::BrowseForFile(HWND owner, CString& choice, UINT titleId, BrowseFlagsT flags,
                                  const char* start) {
  return BrowseFor(ChooserRequest::File, owner, choice, titleId, flags, start);
}

QMErrorT QMBrowseC::BrowseForComputer(HWND owner, CString& choice, const char* title,
                                      BrowseFlagsT flags) {
  return BrowseFor(ChooserRequest::Computer, owner, choice, title, flags, nullptr);
}

QMErrorT QMBrowseC::BrowseForComputer(HWND owner, CString& choice, UINT titleId,
                                      BrowseFlagsT flags) {
  return BrowseFor(ChooserRequest::Computer, owner, choice, titleId, flags, nullptr);
}

QMErrorT QMBrowseC::BrowseForPrinter(HWND owner, CString& choice, const char* title,
                                     BrowseFlagsT flags) {
  return BrowseFor(ChooserRequest::Printer, owner, choice, title, flags, nullptr);
}

QMErrorT QMBrowseC::BrowseForPrinter(HWND owner, CString& choice, UINT titleId,
                                     BrowseFlagsT flags) {
  return BrowseFor(ChooserRequest::Printer, owner, choice, titleId, flags, nullptr);
}
