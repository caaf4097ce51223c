// From the C library's errno to the Win32 numbers of the interface. For platform/posix/ only.
#pragma once

#include "qmutils/platform/types.h"

namespace qm::platform {

/// The Win32 number that means the same as an errno value; 31 (general failure) for one that has no
/// counterpart, 0 for 0.
DWORD lastErrorFromErrno(int errnoValue) noexcept;

/// Sets the last error from `errnoValue`; gives false, for use in a return statement.
bool failWithErrno(int errnoValue) noexcept;

/// The same with a Win32 number.
bool failWith(DWORD number) noexcept;

}  // namespace qm::platform
