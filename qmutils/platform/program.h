// What a command-line program asks of the system as a whole.
#pragma once

#include "qmutils/platform/export.h"

namespace qm::platform {

/// The first call of main(). Standard streams that were closed are opened onto nothing, as else the
/// next file opened, be it shared memory, would get what is printed. A write beyond the limit on a
/// file's size fails and no longer ends the program.
QMUTILS_API void beginProgram() noexcept;

/// From now on Ctrl-C, a request to terminate and the end of the terminal are only noted, unless
/// they are ignored. They also end a write to somebody who does not read.
QMUTILS_API void noteInterrupts() noexcept;
/// Whether one came. Any thread may ask.
QMUTILS_API bool interrupted() noexcept;

}  // namespace qm::platform
