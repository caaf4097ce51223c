// Marks the names that the shared libraries, qmutils and qmutils_print, show to programs; everything
// else stays hidden.
#pragma once

#if defined(_WIN32)
#if defined(QMUTILS_BUILDING)
#define QMUTILS_API __declspec(dllexport)
#else
#define QMUTILS_API __declspec(dllimport)
#endif
#if defined(QMUTILS_PRINT_BUILDING)
#define QMUTILS_PRINT_API __declspec(dllexport)
#else
#define QMUTILS_PRINT_API __declspec(dllimport)
#endif
#else
#define QMUTILS_API __attribute__((visibility("default")))
#define QMUTILS_PRINT_API __attribute__((visibility("default")))
#endif

// Lets the compiler check a printf-style call: the 1-based positions of the format and of the first
// argument behind it.
#if defined(__GNUC__)
#define QMUTILS_PRINTF(formatAt, firstAt) __attribute__((format(printf, formatAt, firstAt)))
#else
#define QMUTILS_PRINTF(formatAt, firstAt)
#endif
