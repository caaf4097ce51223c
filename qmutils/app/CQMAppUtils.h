// What every program of the suite needs about itself and its surroundings: where its module lies,
// its version, company and product names (which a reseller's settings file may replace), its
// preferences, its data folder, its language library, paths, the user, and a hidden window that
// other programs can find.
//
//   CQMAppUtils app("SOFTWARE\\Quillmoor Designs\\Press", "DataFolder");   // one in a program
//   std::unique_ptr<CQMPrefs> prefs(app.GetPreferences());
//   std::puts(CQMAppUtils::GetVersion());                                  // v5.0.1.2
//
// Everything may be called from any thread. Names are looked up once and then remembered, until a
// CQMAppUtils is destroyed. System failures come back as the system's number with bit 29 set and
// are logged at level 0; nothing throws, and without memory operations give 2001 or an empty text.
#pragma once

#include <atomic>

#include "qmutils/concurrency/QMWindowsKeyboardEventMultiCasterC.h"
#include "qmutils/config/CQMPrefs.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"
#include "qmutils/windowing/CString.h"

class QMUTILS_API CQMAppUtils {
 public:
  /// The machine's key and the name of its value that tell where the data of the applications are.
  /// Not copied: literals, or texts that live as long as the program.
  CQMAppUtils(const char* appDataKey, const char* appDataDirKey);
  /// Forgets the remembered names; they are looked up again when they are asked for.
  virtual ~CQMAppUtils();
  CQMAppUtils(const CQMAppUtils&) = delete;
  CQMAppUtils& operator=(const CQMAppUtils&) = delete;

  /// "English". Applications override it.
  virtual void GetPreferredLanguage(CString& language);
  /// The settings of this program and version; the caller deletes them. Null without memory.
  virtual CQMPrefs* GetPreferences();

  // ---- Modules and versions ----

  /// The full path of a module's file; with `bStripName` only its folder, without a separator at
  /// the end. The second form is for the running program.
  static QMErrors::QMErrorT GetModulePath(HINSTANCE module, CString& path, bool bStripName);
  static QMErrors::QMErrorT GetModulePath(CString& path, bool bStripName);

  /// The name of a module's file, without its extension if asked.
  static QMErrors::QMErrorT GetModuleName(HINSTANCE module, CString& name, bool bStripExtension);
  static QMErrors::QMErrorT GetModuleName(CString& name, bool bStripExtension);

  // What any program or library says about itself; "Unknown" when it says nothing (see
  // qmutils_version_info() of the CMake package).
  static QMErrors::QMErrorT GetFileCompanyString(const CString& file, CString& value);
  static QMErrors::QMErrorT GetFileProductString(const CString& file, CString& value);
  /// The version as it is written ("5, 0, 1, 2"), or with `bCompact` as "v5.0.1.2". With
  /// `bWithDate` followed by " ; " and the file's last-write time (UTC) as dd/mm/yyyy hh:mm:ss.
  static QMErrors::QMErrorT GetFileVersionString(const CString& file, CString& version,
                                                 bool bCompact, bool bWithDate);

  // Of the running program. Company and product may be a reseller's.
  /// "v5.0.1.2"; empty when it cannot be found.
  static CString GetVersion();
  /// The name of the program's file without its extension.
  static CString GetProgramName();
  static CString GetCompanyName();
  static CString GetProductName();

  /// The installed version and service pack of the suite; each empty when there is none.
  static void GetSPVersionInfo(CString& version, CString& spVersion);

  // ---- Language and data ----

  /// The library with the texts of a language, base\Languages\[subFolder\]language.dll, which then
  /// stays loaded. For "English", and on failure, the module the texts are taken from now.
  static QMErrors::QMErrorT GetLanguageResourceHandle(const char* base, const char* subFolder,
                                                      const char* language, HINSTANCE* pHandle);
  /// From now on texts are taken from the language's library.
  static QMErrors::QMErrorT SetLanguage(const char* base, const char* language);

  /// The folder of the applications' data. 2100 "Null object provided" before an application has
  /// said where to look for it; 9205 when nothing is stored there.
  static QMErrors::QMErrorT GetApplicationDataPath(CString& path);

  // ---- Paths ----

  /// As QMFileUtilsC; every pointer may be null.
  static void SplitPath(const CString& path, CString* drive, CString* dir, CString* name,
                        CString* ext);
  static void MakePath(CString& path, const CString* drive, const CString* dir, const CString* name,
                       const CString* ext);
  /// The name is followed by "_" and the local time as day, month, year, "_", hour, minute, second
  /// ("page_21112006_140307.tif").
  static void MakeTimeStampedPath(CString& path, const CString* drive, const CString* dir,
                                  const CString* name, const CString* ext);

  /// The first of name_000 to name_998 that does not exist, with folder and extension of `path`;
  /// empty when all exist. The name itself is never taken. Another program may take the result
  /// before the caller does, so create the file exclusively.
  static CString MakeUniqueName(const char* path);

  /// True when a directory search finds an entry: the name may hold wildcards.
  static bool FileExists(const char* path);

  /// Makes a folder and its missing parents; 0 when it is there at the end.
  static QMErrors::QMErrorT MakeFolder(const char* path);

  /// The folder of the system's own programs.
  static QMErrors::QMErrorT GetWindowsDirectoryA(CString& folder);

  // ---- The user ----

  static QMErrors::QMErrorT GetUserNameA(CString& user);
  /// Whether the user may administer the machine; 0 on failure.
  static QMErrors::QMErrorT IsAdministrator(int* pIsAdmin);

  // ---- The reseller's settings ----

  /// The reseller's icon of this program, else the program's own icon `id`, or null when `id` is
  /// 0xFFFFFFFF or there is none. Icons live as long as the program.
  static HICON LoadAppIcon(UINT id);
  // What support mails begin with. On failure a warning, and the default.
  static CString GetMailRecipients();
  static CString GetMailAddresses();
  static CString GetMailSubject();

  // ---- Windows ----

  /// The program that a window belongs to, of whatever process.
  static QMErrors::QMErrorT GetWindowModuleFileNameA(HWND hWnd, CString& file);
  /// Asks another program that has a window of this class (may be null: any) and title (likewise)
  /// to close it, and waits up to `timeoutMs` for that. With `bAsk` the operator is asked first:
  /// 2050 when he does not want it. 0 also when there is no such window, 2013 when it is still
  /// there.
  static QMErrors::QMErrorT FindAndCloseApplication(const char* windowClass, const char* title,
                                                    int bAsk, int timeoutMs);
  /// Makes a class of windows known. System error 1410 when it is already.
  static QMErrors::QMErrorT RegisterClassA(HINSTANCE module, const char* className, HICON icon,
                                           WNDPROC procedure);
  /// Registers the class, makes a window of it that other programs find, and runs the thread's
  /// messages until it is to quit. Keyboard messages go to the keyboard listeners as well. Then the
  /// class is unknown again.
  static QMErrors::QMErrorT InitInstance(HINSTANCE module, const char* className, char* title,
                                         HICON icon, int show, WNDPROC procedure);
  /// What a window procedure does with a message that it does not want.
  static LRESULT DefWindowProcA(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam);

  // ---- Keyboard events ----

  /// Listeners are not owned; see QMEventMulticasterC.
  static QMErrors::QMErrorT AddKeyboardEventListener(IQMWindowsKeyboardEventListener& listener);
  static QMErrors::QMErrorT RemoveKeyboardEventListener(IQMWindowsKeyboardEventListener& listener);

 protected:
  /// A text of a file's version data, or "Unknown" with 2007 when it is not there. 2006 without a
  /// file's name.
  static QMErrors::QMErrorT GetFileVersionInfoA(const CString& file, const CString& key,
                                                CString& value);

  static QMWindowsKeyboardEventMultiCasterC& m_KeyboardEventMulticaster;

 private:
  static std::atomic<const char*> m_pAppDataKey;
  static std::atomic<const char*> m_pAppDataDirKey;
};
