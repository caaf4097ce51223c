// Lets the operator pick a folder, a file, a computer or a printer in a dialog.
//
//   QMBrowseC browse;
//   CString folder;
//   if (browse.BrowseForDirectory(nullptr, folder, "Where are the pages?",
//                                 QMBrowseC::FromDesktop, "C:\\Jobs") == QMErrors::NoError) ...
//
// Codes: 2050 "The user cancelled the operation", 2001 no memory, else the system's number with bit
// 29 set (50: there is no display, or no dialog program). The choice is set on success only.
// Failures are logged at level 0. Any thread may ask; nothing throws. Hosts may put their own
// dialogs in the place of the desktop's (qmutils/platform/chooser.h).
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/chooser.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"
#include "qmutils/windowing/CString.h"

class QMUTILS_API QMBrowseC {
 public:
  /// Where the dialog begins.
  enum BrowseFlagsT {
    FromDesktop = 0,  ///< with the start folder selected
    FromDrives = 1,   ///< at the root of all drives
    FromNetwork = 2,  ///< at the network; where the dialog has no such place, at its own choice
  };

  QMBrowseC() = default;
  virtual ~QMBrowseC() = default;

  // `owner` may be null. The title is a text (null: none), or the number of one in the module that
  // texts are taken from. `start` may be null.
  QMErrors::QMErrorT BrowseForDirectory(HWND owner, CString& choice, const char* title,
                                        BrowseFlagsT flags, const char* start);
  QMErrors::QMErrorT BrowseForDirectory(HWND owner, CString& choice, UINT titleId,
                                        BrowseFlagsT flags, const char* start);
  QMErrors::QMErrorT BrowseForFile(HWND owner, CString& choice, const char* title,
                                   BrowseFlagsT flags, const char* start);
  QMErrors::QMErrorT BrowseForFile(HWND owner, CString& choice, UINT titleId, BrowseFlagsT flags,
                                   const char* start);
  /// The computer's name, not a path; so for printers.
  QMErrors::QMErrorT BrowseForComputer(HWND owner, CString& choice, const char* title,
                                       BrowseFlagsT flags);
  QMErrors::QMErrorT BrowseForComputer(HWND owner, CString& choice, UINT titleId,
                                       BrowseFlagsT flags);
  QMErrors::QMErrorT BrowseForPrinter(HWND owner, CString& choice, const char* title,
                                      BrowseFlagsT flags);
  QMErrors::QMErrorT BrowseForPrinter(HWND owner, CString& choice, UINT titleId,
                                      BrowseFlagsT flags);

 protected:
  QMErrors::QMErrorT BrowseFor(qm::platform::ChooserRequest::Kind kind, HWND owner, CString& choice,
                               const char* title, BrowseFlagsT flags, const char* start);
  QMErrors::QMErrorT BrowseFor(qm::platform::ChooserRequest::Kind kind, HWND owner, CString& choice,
                               UINT titleId, BrowseFlagsT flags, const char* start);
};
