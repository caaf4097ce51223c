// The calling thread's last system error, in Win32 numbers, and the sentence for each number.
//
// A system's own error number never leaves the platform floor: it is translated to the Win32
// number that means the same, because installed programs compare those. All functions may be
// called from any thread; none of them throws.
#pragma once

#include <string_view>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// The number set last by a failing platform function on this thread; 0 when there was none.
/// Successful calls need not reset it.
QMUTILS_API DWORD lastError() noexcept;
/// Also for hosts whose implementations of the library's interfaces fail.
QMUTILS_API void setLastError(DWORD number) noexcept;

/// The system's one-line sentence for a number ("Access is denied."), without a line end; empty
/// for a number that the system does not know. The text is a constant.
std::string_view errorSentence(DWORD number) noexcept;

/// Writes the C library's text for an errno value into `buffer` (NUL-terminated, cut to `size`
/// bytes).
void copyCRuntimeErrorText(int errnoValue, char* buffer, std::size_t size) noexcept;

}  // namespace qm::platform
