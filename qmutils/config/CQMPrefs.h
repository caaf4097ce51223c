// An application's named settings in the registry: one set for the user, one for the machine (the
// application tree). A setting is a number of 32 bits, a text, or a floating-point number.
//
//   CQMPrefs prefs("testtool", "v1.0.0.0", "Preferences");
//   prefs.SaveUsrParam("drum width", 1030u, 0);
//   unsigned width = prefs.LoadUsrParam("drum width", 800u, 0);   // 800 when it was never saved
//
// A load gives the default when the setting is missing or cannot be read (the log then tells why)
// and creates nothing. A save gives the system's code, and what it has reported is on the disk. Any
// thread and any number of processes may load and save at a time; a load never sees half a value.
#pragma once

#include "qmutils/config/QMRegistryC.h"
#include "qmutils/foundation/QMCString.h"
#include "qmutils/foundation/QMStringStream.h"

class QMUTILS_API CQMPrefs : public QMRegistryC {
 public:
  /// The maker's key, below SOFTWARE in both trees.
  static const char* const m_pPathRoot;

  /// The levels below the maker's key: program, version, section. Copied. An empty one makes every
  /// save fail with system error 161.
  CQMPrefs(const char* name1, const char* name2, const char* name3);

  // The application tree (HKEY_LOCAL_MACHINE).
  QMErrors::QMErrorT SaveAppParam(const char* name, unsigned long value);
  QMErrors::QMErrorT SaveAppParam(const char* name, const char* text);
  QMErrors::QMErrorT SaveAppParam(const char* name, double value);
  unsigned long LoadAppParam(const char* name, unsigned long defaultValue);
  /// A stored text that is no number counts as missing.
  double LoadAppParam(const char* name, double defaultValue);
  /// An empty text counts as missing. The caller frees the result with operator delete; null
  /// without memory.
  char* LoadAppParam(const char* name, const char* defaultText);

  // The user tree (HKEY_CURRENT_USER); with `bApp` a save then also writes the application tree. A
  // double has six digits behind its point there, and beyond 2^40 it is stored as 2^40.
  QMErrors::QMErrorT SaveUsrParam(const char* name, int value, int bApp);
  QMErrors::QMErrorT SaveUsrParam(const char* name, unsigned int value, int bApp);
  QMErrors::QMErrorT SaveUsrParam(const char* name, unsigned long value, int bApp);
  QMErrors::QMErrorT SaveUsrParam(const char* name, double value, int bApp);
  QMErrors::QMErrorT SaveUsrParam(const char* name, const char* text, int bApp);
  // With `bApp` from the application tree instead.
  /// 1 when the number is not 0, else 0.
  int LoadUsrParam(const char* name, int defaultValue, int bApp);
  unsigned int LoadUsrParam(const char* name, unsigned int defaultValue, int bApp);
  unsigned long LoadUsrParam(const char* name, unsigned long defaultValue, int bApp);
  double LoadUsrParam(const char* name, double defaultValue, int bApp);
  /// As LoadAppParam().
  char* LoadUsrParam(const char* name, const char* defaultText, int bApp);

  /// 1 when the user has settings under these names.
  int bIsUsrSectionValid();

  /// The program's key in the user tree, for reading; the caller closes it.
  QMErrors::QMErrorT GetProductKey(HKEY* pKey);

 protected:
  /// The section's key in the user tree, or the application tree when `bUser` is 0.
  QMErrors::QMErrorT GetProductKey(HKEY* pKey, int bUser, int bCreate);
  QMErrors::QMErrorT Save(const char* name, const unsigned char* data, DWORD type,
                          unsigned int size, int bUser);
  /// A missing value leaves `*value` as it is. Of shorter data the missing bytes are zero.
  QMErrors::QMErrorT Load(const char* name, DWORD* value, int bUser);
  /// Up to the first NUL.
  QMErrors::QMErrorT Load(const char* name, QMostrstream& text, int bUser);

 private:
  template <class Take>
  QMErrors::QMErrorT LoadData(const char* name, int bUser, const char* label, const Take& take);
  QMErrors::QMErrorT SaveNumber(const char* name, DWORD value, int bUser);
  QMErrors::QMErrorT SaveText(const char* name, const char* text, int bUser);
  DWORD LoadNumber(const char* name, DWORD defaultValue, int bUser);
  char* LoadText(const char* name, const char* defaultText, int bUser);

  QMCString m_Name1;
  QMCString m_Name2;
  QMCString m_Name3;
};
