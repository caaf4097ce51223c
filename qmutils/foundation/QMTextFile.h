// Text files that hold either single-byte text or UTF-16 little-endian behind the mark FF FE, a
// substring search without regard to case, and checked conversions to 7-bit ASCII.
//
// `unicode` is 1 for UTF-16, 0 for single-byte text; UTF-16 is read into and written from UTF-8.
// Paths may use '\' and '/'. Lines may end with LF or CR LF. A file belongs to one thread at a
// time. Failures show as the C runtime's values (null, short counts, negative numbers).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

extern "C" {

/// Opens a file in one of fopen()'s modes; null on failure. For a mode with 'w', *unicode = 1
/// writes the mark first. For any other mode *unicode is set from the file (1 only for a
/// little-endian mark) and reading starts behind a mark of either order. A null `unicode` counts
/// as 0. The caller closes the file with fclose().
QMUTILS_API std::FILE* FOpen(const char* path, const char* mode, int* unicode);

/// 1 when the file begins with the little-endian mark, -1 with the big-endian one, 0 otherwise, for
/// null and for a file without positions. The position stays.
QMUTILS_API int FileIsUnicode(std::FILE* file);

/// Reads one line of at most size - 1 bytes and removes its line end. `dest` holds `size` bytes.
/// Null at the end of the file. A UTF-16 line is read byte by byte up to the first byte 0x0A, so
/// the next read starts with the second byte of the line feed.
QMUTILS_API char* FGets(char* dest, int size, std::FILE* file, int unicode);

/// Writes a printf-style text of at most size - 1 bytes (the rest is cut) and gives the number of
/// characters or UTF-16 units written. On failure -1 for single-byte text, and for UTF-16 the units
/// that did get written. Single-byte text is interpreted a
/// second time after formatting: "%%" becomes "%", "%n" disappears, all else stays as it is.
QMUTILS_API int FPrint(std::FILE* file, int unicode, int size, const char* format, ...)
    QMUTILS_PRINTF(4, 5);
QMUTILS_API int vFPrint(std::FILE* file, int unicode, int size, const char* format,
                        std::va_list arguments) QMUTILS_PRINTF(4, 0);

/// Copies at most `length` bytes of 7-bit text, filling up with NULs (as strncpy, no terminator
/// when the text is longer). 2035 "Error Name is not ASCII", dest untouched, when a byte is 128 or
/// more; 2100 "Null object provided" for a null dest. A null src counts as empty.
QMUTILS_API QMErrors::QMErrorT TchrToAscii(char* dest, const char* src, std::size_t length);
/// The same for 16-bit text, terminated when there is room. At the first unit of 128 or more the
/// units before it are converted and 2035 is returned.
QMUTILS_API QMErrors::QMErrorT WsToAscii(char* dest, const char16_t* src, std::size_t length);

/// The first place where `pattern` occurs in `text`, upper and lower case alike; null when it does
/// not, or when either is empty or null.
QMUTILS_API const char* UiStrStr(const char* text, const char* pattern);
}
