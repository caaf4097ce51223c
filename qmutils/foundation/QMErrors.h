// Result codes: the value that every fallible operation returns, the catalogue of their texts, and
// the fixed-size record of one failure.
//
// A QMErrorT is 0 on success ("No Error"). Bits 29 and 30 tell three kinds apart: a catalogue code
// (bit 29 clear), a Win32 error number (bit 29 set, bit 30 clear) and a C-runtime errno (both set).
// A value with bit 31 set is looked up in the catalogue, whatever its other bits.
//
// All functions may be called from any thread and none throws. The texts they return live in a
// buffer of the calling thread and are valid until its next call of the same function.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace QMErrors {

/// Catalogue codes, one enumerator a row of QMErrorCatalogue.inc. Any 32-bit value may occur.
enum QMErrorT : std::int32_t {
#define QM_ERROR_ROW(code, identifier, message) identifier = code,
#include "qmutils/foundation/QMErrorCatalogue.inc"
#undef QM_ERROR_ROW
};

inline constexpr std::uint32_t kOsErrorBit = 0x20000000u;
inline constexpr std::uint32_t kCRuntimeErrorBit = 0x40000000u;

/// The result for a Win32 error number; 0 stays success.
constexpr QMErrorT fromOsError(DWORD number) noexcept {
  return static_cast<QMErrorT>(number == 0 ? 0 : number | kOsErrorBit);
}

/// The result for the calling thread's last system error; 0 when there was none.
QMUTILS_API QMErrorT lastOsError() noexcept;

#pragma pack(push, 1)
/// One failure at a source position, filled by QMFillError(). Packed: programs exchange it as
/// bytes.
struct QMERROR_ST {
  QMErrorT firstError;  ///< the code first reported; printed only when it differs from `error`
  QMErrorT error;       ///< the current code
  std::uint32_t extra;  ///< an additional number, for instance an OS error; 0 means none
  std::uint16_t line;   ///< source line
  char file[33];        ///< the last at most 32 characters of the source file's base name
};
#pragma pack(pop)
static_assert(sizeof(QMERROR_ST) == 47);

/// "ErrInfo [ first, error, extra, L=line, F=<file> ] " without a line end.
QMUTILS_API std::ostream& operator<<(std::ostream& os, const QMERROR_ST& record);

}  // namespace QMErrors

extern "C" {

/// "message: code" for a catalogue code (decimal, signed), "Unrecognised Error Code: code" for one
/// that is not there; the system's text for an OS code, the C library's for an errno code. At most
/// 2559 characters.
QMUTILS_API char* QMErrToStr(QMErrors::QMErrorT code);

/// "Error: 5 (0x5) Access is denied." for a Win32 error number, or for the thread's last error when
/// `number` is null; "Format message failed.  Error: n" for a number the system does not know. At
/// most 1023 characters.
QMUTILS_API char* QMGetLastErrorMsg(const DWORD* number);

/// Shows `text` and the thread's last error in a message box; gives the button pressed. A null text
/// counts as empty.
QMUTILS_API int QMOSError(const char* text);

/// Shows `text` in a message box "Program Error"; gives the button pressed.
QMUTILS_API int QMOSErrorAlert(const char* text);

/// 4004 for the two conditions that the operator clears by loading material (823, 824), 4002 for
/// every other code, success included.
QMUTILS_API QMErrors::QMErrorT DetermineErrorClass(QMErrors::QMErrorT code);

/// Fills `record` (may be null) for a failure at a source position and returns `code`, so that it
/// can stand in a return statement. `file` is a path; its base name is what follows the last '\'.
QMUTILS_API QMErrors::QMErrorT QMFillError(QMErrors::QMERROR_ST* record, QMErrors::QMErrorT code,
                                           std::uint32_t extra, const char* file,
                                           std::uint16_t line);
}
