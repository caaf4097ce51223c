// The system's basic types and numbers, in the words of the library's interface.
//
// The interface speaks Win32: 32-bit DWORDs for sizes, identifiers and time-outs, FILETIME and
// SYSTEMTIME for times, wait results 0.., 128.., 258 and 0xFFFFFFFF. On Windows these come from
// the system's own header; elsewhere they are defined here with the same sizes and values, so
// every other file of the library is written once.
#pragma once

#if defined(_WIN32)
#include "qmutils/platform/win32/types_win32.h"
#else
#include "qmutils/platform/posix/types_posix.h"
#endif
