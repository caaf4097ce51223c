// Files and folders by name, and the path rules of the suite: drive, folder, name and extension of
// a path, with '\' and '/' both read as separators and '\' written.
//
// All operations are static and may be called from any thread. System failures come back as the
// system's number with bit 29 set and are logged at level 0; nothing throws.
#pragma once

#include "qmutils/foundation/QMCString.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMFileUtilsC {
 public:
  /// True for files and folders whose attributes can be read.
  static int FileExists(const char* path);

  /// Sets or clears the hidden attribute; the others stay.
  static QMErrors::QMErrorT HideFile(const char* path, int bHide);

  /// Non-zero when the file is gone. With `bAlwaysTry` 0 a missing file is success; else it fails
  /// and is logged.
  static int DeleteFileA(const char* path, int bAlwaysTry);

  /// Non-zero on success. The copy takes permissions and last-write time of the source.
  static int CopyFileA(const char* src, const char* dst, int bFailIfExists);

  /// UTC. 2006 for a null path, 1014 "Unable to find file", else the system's code.
  static QMErrors::QMErrorT GetLastWriteTime(const char* path, FILETIME& time);

  /// Makes a folder and its missing parents; 0 when it is there at the end.
  static QMErrors::QMErrorT MakeFolder(const char* path);

  /// Drive: what stands before the first ':'. Folder: from there to the last separator, which is
  /// dropped. Name and extension: the rest, parted at its last '.', which is dropped. Each output
  /// may be null; what a path does not have is empty.
  static void SplitPath(const QMCString& path, QMCString* drive, QMCString* dir, QMCString* name,
                        QMCString* ext);

  /// Drive and ':', folder and '\', name, '.' and extension, each only when neither null nor empty.
  /// Empty without memory.
  static void MakePath(QMCString& path, const QMCString* drive, const QMCString* dir,
                       const QMCString* name, const QMCString* ext);

  /// The work of MakeFolder() for callers that log under a name of their own: makes each level from
  /// the top down. `failedLevel` receives the level at which it failed; of no meaning on success.
  static QMErrors::QMErrorT MakeFolderLevels(const char* path, QMCString& failedLevel);
};
