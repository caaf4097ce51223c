// The registry: keys that hold sub-keys and named values, in a tree of the user's
// (HKEY_CURRENT_USER) and one of the machine's (HKEY_LOCAL_MACHINE).
//
//   HKEY key = nullptr;
//   if (QMRegistryC::OpenKey(HKEY_CURRENT_USER, "SOFTWARE\\Press", 1, &key) == QMErrors::NoError) {
//     QMRegistryC::SaveKeyData(key, "plates", 17);
//     QMRegistryC::CloseKey(key, 0);
//   }
//
// All operations are static; any thread and any number of processes may use them at a time. What a
// save has reported is on the disk. System failures come back as the system's number with bit 29
// set and are logged at level 0; nothing throws. Opening, reading and finding look names up without
// regard to the case of A-Z, but GetKeyData() and Find() then want the very spelling.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMRegistryC {
 public:
  QMRegistryC() = default;
  QMRegistryC(const QMRegistryC&) = default;
  QMRegistryC& operator=(const QMRegistryC&) = default;
  virtual ~QMRegistryC() = default;

  /// Opens `subKey` below `parent` for reading, or with `bCreate` for everything and makes it if it
  /// is missing. A missing key is a warning and system error 2. The caller closes the key.
  static QMErrors::QMErrorT OpenKey(HKEY parent, const char* subKey, int bCreate, HKEY* pKey);
  /// Everything saved is on the disk already; `bFlush` asks for it once more.
  static QMErrors::QMErrorT CloseKey(HKEY key, int bFlush);

  /// A missing value is success with a null `*pData`. The caller frees the data with operator
  /// delete; they have no terminator of their own. `pType` and `pSize` (bytes) may be null. 2001
  /// without memory.
  static QMErrors::QMErrorT GetKeyData(HKEY key, const char* valueName, unsigned char** pData,
                                       DWORD* pType, DWORD* pSize);

  /// Any type number and bytes.
  static QMErrors::QMErrorT SaveKeyData(HKEY key, const char* valueName, DWORD type,
                                        const unsigned char* data, DWORD size);
  static QMErrors::QMErrorT SaveKeyData(HKEY key, const char* valueName, DWORD value);
  /// Stores the characters without a terminator under the type of a number; installed programs
  /// expect texts in this form.
  static QMErrors::QMErrorT SaveKeyData(HKEY key, const char* valueName, const char* text);

  /// The name of a sub-key by its number, sorted by name from 0; behind the last, success with a
  /// null `*pName`. The caller frees the name with operator delete. `pTime` (may be null) receives
  /// when the sub-key was last written, UTC.
  static QMErrors::QMErrorT GetSubKeyName(HKEY key, unsigned int index, char** pName,
                                          FILETIME* pTime);
  /// The same for values. Values have no time of their own: with `pTime` it is that of a sub-key of
  /// the same name, and a failure when there is none.
  static QMErrors::QMErrorT GetSubValueName(HKEY key, unsigned int index, char** pName,
                                            FILETIME* pTime);

  /// Copies a key with all below it, as it is at one moment, to `dst\dstSubKey`, or to
  /// `src\dstSubKey` when `dst` is null: all of it or nothing. What is there already stays unless
  /// it has the same name.
  static QMErrors::QMErrorT CopyKey(HKEY src, const char* srcSubKey, const char* dstSubKey,
                                    HKEY dst);

  /// Looks for a key below `root` and opens it for everything; the caller closes it. Below each key
  /// only the first sub-key is searched further, down to 512 levels, and not finding the name there
  /// is success with `*pFound` untouched: set it to null before and look at it afterwards. A key
  /// without sub-keys at which the search begins is system error 259.
  static QMErrors::QMErrorT Find(HKEY root, const char* name, HKEY* pFound);
};
