// The file attributes that permissions cannot express (hidden, system, archive), stored as the
// extended attribute user.DOSATTRIB, a hexadecimal number as text ("0x2"). For platform/posix/
// only.
#pragma once

#include "qmutils/platform/types.h"

namespace qm::platform {

/// FILE_ATTRIBUTE_HIDDEN, _SYSTEM and _ARCHIVE of a file; 0 when it has none or its file system
/// keeps none.
DWORD readMarks(const char* path) noexcept;
/// True when those three of `attributes` are what the file has.
bool hasMarks(const char* path, DWORD attributes) noexcept;
/// Stores those three of `attributes`; false with the last error set (50 when the file system keeps
/// none).
bool writeMarks(const char* path, DWORD attributes) noexcept;
/// Gives one open file the marks of another; errno is set on failure. Marks that the target's file
/// system cannot keep are left behind, as they are part of a copy only where there is a place.
bool copyMarks(int from, int to) noexcept;

}  // namespace qm::platform
