// A message as compact text, the form that travels through the pool: type, code, id, value, string
// and qualifier joined by ";", the numbers in signed decimal, the texts as they stand.
//
//   3;12;7;-1;go;a.job
//
// Nothing is escaped: a ";" in the string moves what follows it to the qualifier. Hand-written
// conversions, no locale, no allocation: some 100 ns to make a text and read it back. All
// functions may be called from any thread; none throws.
#pragma once

#include <cstdint>

#include "qmutils/comms/QMMessagePacket.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/platform/export.h"

extern "C" {

/// Writes the text into `buffer`, the rest of which is cleared. Null texts count as empty. 124
/// "Buffer too small" for no buffer and when a number does not fit, 2113 "Buffer has overflowed"
/// when a text does not; what fitted before stands in the buffer. A text that leaves no byte to
/// spare does not fit.
QMUTILS_API QMErrors::QMErrorT QMCreateMessage(int type, int code, unsigned short id, int val,
                                               const char* string, const char* qualifier,
                                               char* buffer, unsigned short bufferSize);

/// The same from a record.
QMUTILS_API QMErrors::QMErrorT QMCreateMessageFromPacket(const QMErrors::QMMessagePacketT& packet,
                                                         char* buffer, unsigned short bufferSize);

/// Reads a text of at most 1023 characters, single-byte or UTF-16 behind the mark FF FE. Missing
/// numbers are 0; numbers beyond 32 bits wrap around, `id` is narrowed to 16. With fewer than five
/// separators the texts are whatever stands where the code of the last character points, as a rule
/// nothing. Null numbers are not stored; a null `text` counts as empty.
/// 124 "Buffer too small" for a longer text, and when the string (which is tried first) or the
/// qualifier does not fit its buffer with its NUL; 2035 "Error Name is not ASCII" for a UTF-16 text
/// that is not; 2116 "Reverse byte-order mark unsupported" for one behind FE FF.
QMUTILS_API QMErrors::QMErrorT QMExtractMessage(const char* text, int* type, int* code,
                                                unsigned short* id, int* val, char* string,
                                                unsigned short stringSize, char* qualifier,
                                                unsigned short qualifierSize);

/// The same into a record, with its buffers and sizes.
QMUTILS_API QMErrors::QMErrorT QMExtractMessagePacket(const char* text,
                                                      QMErrors::QMMessagePacketT& packet);

/// Stores the version mark of the message format, 0x21122004 and 0, into two words; gives 0. The
/// first argument has no meaning. 2100 "Null object provided" for no record.
QMUTILS_API QMErrors::QMErrorT QMGetMagic(const void* ignored, std::uint32_t* record);
}

/// The record as text, or "Could not create message from packet" when it is longer than 255
/// characters.
QMUTILS_API QMLogStreamC& operator<<(QMLogStreamC& log, const QMErrors::QMMessagePacketT& packet);
