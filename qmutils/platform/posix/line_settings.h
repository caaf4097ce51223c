// Between a DCB and the kernel's settings of a line, without a device: what can be expressed, and
// how. For platform/posix/ only.
//
// The kernel's structure is the one that takes any speed, which cannot be declared together with
// <termios.h>: who needs its members includes <asm/termbits.h> instead.
#pragma once

#include "qmutils/platform/types.h"

struct termios2;

namespace qm::platform::posix {

/// Puts a DCB into `settings`, which then are those of a raw line. False, with last error 87 and
/// `settings` unchanged, for what no line can do (speed 0, data bits outside 5..8, 1.5 stop bits
/// with other than 5 data bits, 2 with 5, equal XON and XOFF characters in use) or this system
/// cannot (flow control by DSR, DTR or RTS alone, replaced or stripped characters, abort on error).
bool applyLineState(const DCB& state, termios2* settings) noexcept;

/// The state that the settings stand for. What they do not tell reads as it is on an open line (DTR
/// and RTS raised) or 0.
void readLineState(const termios2& settings, DCB* state) noexcept;

/// False when a driver has left out or changed some of the frame or of the flow control it was
/// asked for. The speed has a tolerance of its own.
bool hasTakenFrameAndFlow(const termios2& asked, const termios2& actual) noexcept;

/// False for a speed that is so far off (over 3 %) that the two ends lose each other's characters.
bool isSpeedUsable(DWORD wanted, DWORD actual) noexcept;

}  // namespace qm::platform::posix
