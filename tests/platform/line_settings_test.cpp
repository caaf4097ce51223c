#include "qmutils/platform/posix/line_settings.h"

#include <asm/termbits.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/serial_name.h"

namespace qm::platform::posix {
namespace {

DCB lineOf(BYTE dataBits, BYTE parity, BYTE stopBits) {
  DCB state{};
  state.fDtrControl = DTR_CONTROL_ENABLE;
  state.fRtsControl = RTS_CONTROL_ENABLE;
  state.BaudRate = 12345;
  state.ByteSize = dataBits;
  state.Parity = parity;
  state.StopBits = stopBits;
  state.XonChar = 0x11;
  state.XoffChar = 0x13;
  return state;
}

TEST(LineSettings, ComeBackAsTheyWereGiven) {
  for (unsigned variant = 0; variant < 4 * 5 * 2 * 8; ++variant) {
    const BYTE dataBits = 5 + variant % 4;
    const BYTE longStop = dataBits == 5 ? ONE5STOPBITS : TWOSTOPBITS;
    DCB given = lineOf(dataBits, variant / 4 % 5, variant / 20 % 2 == 0 ? ONESTOPBIT : longStop);
    given.BaudRate = variant * 1000 + 1;
    given.fOutxCtsFlow = variant / 40 % 2;
    given.fOutX = variant / 80 % 2;
    given.fInX = variant / 160 % 2;
    termios2 settings;
    std::memset(&settings, 0xFF, sizeof settings);  // whatever was set before
    ASSERT_TRUE(applyLineState(given, &settings)) << variant;
    EXPECT_EQ(settings.c_lflag | settings.c_oflag, 0u) << "a raw line";
    EXPECT_EQ(settings.c_cflag & (CBAUD | CREAD | CLOCAL | HUPCL), BOTHER | CREAD | CLOCAL | HUPCL);
    DCB got;
    readLineState(settings, &got);
    got.DCBlength = 0;
    got.fBinary = got.fParity = 0;
    EXPECT_EQ(std::memcmp(&got, &given, sizeof got), 0) << variant;
  }
}

TEST(LineSettings, WhatALineCannotDoIsRefused) {
  const struct {
    const char* what;
    void (*spoil)(DCB&);
  } kCases[] = {
      {"no speed", [](DCB& s) { s.BaudRate = 0; }},
      {"9 data bits", [](DCB& s) { s.ByteSize = 9; }},
      {"4 data bits", [](DCB& s) { s.ByteSize = 4; }},
      {"an unknown parity", [](DCB& s) { s.Parity = 5; }},
      {"1.5 stop bits with 8", [](DCB& s) { s.StopBits = ONE5STOPBITS; }},
      {"2 stop bits with 5", [](DCB& s) { s.ByteSize = 5, s.StopBits = TWOSTOPBITS; }},
      {"flow control by DSR", [](DCB& s) { s.fOutxDsrFlow = 1; }},
      {"flow control by RTS alone", [](DCB& s) { s.fRtsControl = RTS_CONTROL_HANDSHAKE; }},
      {"one character for XON and XOFF", [](DCB& s) { s.fInX = 1, s.XoffChar = s.XonChar; }},
      {"stripped zeros", [](DCB& s) { s.fNull = 1; }},
  };
  for (const auto& c : kCases) {
    DCB state = lineOf(8, NOPARITY, ONESTOPBIT);
    termios2 settings{};
    EXPECT_TRUE(applyLineState(state, &settings)) << c.what;
    c.spoil(state);
    settings.c_ospeed = 77;
    setLastError(0);
    EXPECT_FALSE(applyLineState(state, &settings)) << c.what;
    EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER) << c.what;
    EXPECT_EQ(settings.c_ospeed, 77u) << c.what;
  }
  EXPECT_TRUE(isSpeedUsable(1000, 1030) && isSpeedUsable(1000, 970));
  EXPECT_FALSE(isSpeedUsable(1000, 1031) || isSpeedUsable(1000, 969) ||
               isSpeedUsable(0xFFFFFFFF, 0));
}

TEST(LineSettings, WhatADriverLeavesOutIsNoticed) {
  termios2 asked{};
  asked.c_cflag = CS8 | CSTOPB | PARENB | CREAD;
  asked.c_iflag = IXON | IGNBRK;
  termios2 actual = asked;
  actual.c_cflag &= ~CREAD;  // neither frame nor flow control
  actual.c_iflag &= ~IGNBRK;
  EXPECT_TRUE(hasTakenFrameAndFlow(asked, actual));
  constexpr tcflag_t kControl[] = {CS6, CSTOPB, PARENB, PARODD, CMSPAR, CRTSCTS};
  for (const tcflag_t flag : kControl) {
    termios2 other = actual;
    other.c_cflag ^= flag;
    EXPECT_FALSE(hasTakenFrameAndFlow(asked, other)) << flag;
  }
  actual.c_iflag ^= IXOFF;
  EXPECT_FALSE(hasTakenFrameAndFlow(asked, actual));
}

TEST(LineSettings, NamesLeadToDevices) {
  setenv("QMUTILS_COM3", "/dev/somewhere", 1);
  const struct {
    const char* name;
    const char* device;
  } kCases[] = {
      {"com10", "/dev/ttyS9"},    {"\\\\.\\Com2", "/dev/ttyS1"},
      {"COM3", "/dev/somewhere"}, {"COM0", "COM0"},
      {"COM1x", "COM1x"},         {nullptr, ""},
  };
  for (const auto& c : kCases) EXPECT_EQ(serialDevicePath(c.name), c.device);
  unsetenv("QMUTILS_COM3");
}

}  // namespace
}  // namespace qm::platform::posix
