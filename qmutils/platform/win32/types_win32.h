// Basic types of the interface on Windows. Include qmutils/platform/types.h instead of this file.
#pragma once

#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

// These macros would rename members of the library's classes.
#undef CopyFile
#undef DeleteFile
#undef DrawText
#undef GetMessage
#undef GetObject
#undef GetTextMetrics
#undef GetUserName
#undef SendMessage
#undef StartDoc
