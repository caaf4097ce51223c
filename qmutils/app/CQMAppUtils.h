// What every program of the suite needs about itself and its surroundings: where its module lies,
// how paths are taken apart and built, names that are not taken yet, folders.
//
// The operations here are static, keep no state and may be called from any thread. System failures
// come back as the system's number with bit 29 set and are logged at level 0; nothing throws.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"
#include "qmutils/windowing/CString.h"

class QMUTILS_API CQMAppUtils {
 public:
  /// The full path of a module's file; with `bStripName` only its folder, without a separator at
  /// the end. The second form is for the running program.
  static QMErrors::QMErrorT GetModulePath(HINSTANCE module, CString& path, bool bStripName);
  static QMErrors::QMErrorT GetModulePath(CString& path, bool bStripName);

  /// The name of a module's file, without its extension if asked.
  static QMErrors::QMErrorT GetModuleName(HINSTANCE module, CString& name, bool bStripExtension);
  static QMErrors::QMErrorT GetModuleName(CString& name, bool bStripExtension);

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
};
