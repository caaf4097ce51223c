#include "qmutils/platform/posix/line_settings.h"

#include <asm/termbits.h>

#include <cstdint>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform::posix {

namespace {

constexpr BYTE kLeastDataBits = 5;
constexpr tcflag_t kDataBits[] = {CS5, CS6, CS7, CS8};
constexpr tcflag_t kParity[] = {0, PARENB | PARODD, PARENB, PARENB | PARODD | CMSPAR,
                                PARENB | CMSPAR};
constexpr tcflag_t kParityFlags = PARENB | PARODD | CMSPAR;
constexpr tcflag_t kFrameAndFlow = CSIZE | CSTOPB | kParityFlags | CRTSCTS;
constexpr std::uint64_t kSpeedTolerancePercent = 3;
constexpr char kXon = 0x11;
constexpr char kXoff = 0x13;

bool hasUsableFrame(const DCB& state) noexcept {
  if (state.BaudRate == 0 || state.ByteSize < kLeastDataBits || state.ByteSize > 8) return false;
  if (state.Parity > SPACEPARITY) return false;
  // The one bit that the hardware has for it means 1.5 with 5 data bits and 2 with more.
  const BYTE longStop = state.ByteSize == kLeastDataBits ? ONE5STOPBITS : TWOSTOPBITS;
  return state.StopBits == ONESTOPBIT || state.StopBits == longStop;
}

bool hasUsableFlow(const DCB& state) noexcept {
  if (state.fOutxDsrFlow || state.fDsrSensitivity || state.fDtrControl > DTR_CONTROL_ENABLE) {
    return false;
  }
  if (state.fErrorChar || state.fNull || state.fAbortOnError) return false;
  if ((state.fOutX || state.fInX) && state.XonChar == state.XoffChar) return false;
  // Hardware flow control is one switch for both directions.
  return state.fRtsControl <= RTS_CONTROL_ENABLE ||
         (state.fRtsControl == RTS_CONTROL_HANDSHAKE && state.fOutxCtsFlow);
}

tcflag_t controlFlags(const DCB& state) noexcept {
  // CLOCAL: without it opening and reading would wait for a modem's carrier.
  tcflag_t flags = BOTHER | CLOCAL | CREAD | HUPCL;
  flags |= kDataBits[state.ByteSize - kLeastDataBits] | kParity[state.Parity];
  if (state.StopBits != ONESTOPBIT) flags |= CSTOPB;
  if (state.fOutxCtsFlow) flags |= CRTSCTS;
  return flags;
}

BYTE parityOf(tcflag_t flags) noexcept {
  if ((flags & PARENB) == 0) return NOPARITY;
  for (BYTE parity = ODDPARITY; parity <= SPACEPARITY; ++parity) {
    if ((flags & kParityFlags) == kParity[parity]) return parity;
  }
  return NOPARITY;
}

BYTE dataBitsOf(tcflag_t flags) noexcept {
  BYTE bits = kLeastDataBits;
  while ((flags & CSIZE) != kDataBits[bits - kLeastDataBits]) ++bits;
  return bits;
}

}  // namespace

bool applyLineState(const DCB& state, termios2* settings) noexcept {
  if (!hasUsableFrame(state) || !hasUsableFlow(state)) return failWith(ERROR_INVALID_PARAMETER);
  // Without INPCK a character with wrong parity is handed over as it came and only counted as an
  // error; the kernel would replace it by a zero.
  settings->c_iflag = IGNBRK | (state.fOutX ? IXON : 0) | (state.fInX ? IXOFF : 0);
  settings->c_oflag = 0;
  settings->c_lflag = 0;
  settings->c_cflag = controlFlags(state);
  settings->c_ispeed = state.BaudRate;
  settings->c_ospeed = state.BaudRate;
  settings->c_cc[VSTART] = static_cast<cc_t>(state.XonChar);
  settings->c_cc[VSTOP] = static_cast<cc_t>(state.XoffChar);
  return true;
}

void readLineState(const termios2& settings, DCB* state) noexcept {
  const tcflag_t flags = settings.c_cflag;
  *state = DCB{};
  state->DCBlength = sizeof *state;
  state->fBinary = 1;
  state->BaudRate = settings.c_ospeed;
  state->ByteSize = dataBitsOf(flags);
  state->Parity = parityOf(flags);
  state->fParity = state->Parity != NOPARITY;
  state->StopBits = (flags & CSTOPB) == 0               ? ONESTOPBIT
                    : state->ByteSize == kLeastDataBits ? ONE5STOPBITS
                                                        : TWOSTOPBITS;
  state->fOutxCtsFlow = (flags & CRTSCTS) != 0;
  state->fDtrControl = DTR_CONTROL_ENABLE;
  state->fRtsControl = RTS_CONTROL_ENABLE;
  state->fOutX = (settings.c_iflag & IXON) != 0;
  state->fInX = (settings.c_iflag & IXOFF) != 0;
  // A line on which they are switched off still needs a pair that differs.
  const bool bothSet = settings.c_cc[VSTART] != 0 && settings.c_cc[VSTOP] != 0;
  state->XonChar = bothSet ? static_cast<char>(settings.c_cc[VSTART]) : kXon;
  state->XoffChar = bothSet ? static_cast<char>(settings.c_cc[VSTOP]) : kXoff;
}

bool hasTakenFrameAndFlow(const termios2& asked, const termios2& actual) noexcept {
  return ((asked.c_cflag ^ actual.c_cflag) & kFrameAndFlow) == 0 &&
         ((asked.c_iflag ^ actual.c_iflag) & (IXON | IXOFF)) == 0;
}

bool isSpeedUsable(DWORD wanted, DWORD actual) noexcept {
  const std::uint64_t difference = wanted > actual ? wanted - actual : actual - wanted;
  return difference * 100 <= kSpeedTolerancePercent * wanted;
}

}  // namespace qm::platform::posix
