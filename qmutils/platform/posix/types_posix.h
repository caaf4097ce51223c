// Basic types and numbers of the interface for systems without <windows.h>. Include
// qmutils/platform/types.h instead of this file.
#pragma once

#include <cstddef>
#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using UINT = std::uint32_t;
using LONG = std::int32_t;
using BOOL = std::int32_t;
using HANDLE = void*;

struct HINSTANCE__;
struct HWND__;
struct HICON__;
struct HKEY__;
using HINSTANCE = HINSTANCE__*;
using HWND = HWND__*;
using HICON = HICON__*;
using HKEY = HKEY__*;

// What a window message carries.
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;
using LRESULT = std::intptr_t;

/// 100-nanosecond ticks since 1601-01-01 00:00, in two halves.
struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

/// A broken-down date and time; wMonth 1..12, wDayOfWeek 0 (Sunday)..6.
struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};

/// A signed 64-bit number, as the performance counter gives it.
union LARGE_INTEGER {
  std::int64_t QuadPart;
};

/// A globally unique identifier. Data1 to Data3 are numbers; in text they are written with their
/// highest digit first, in memory they have the byte order of the machine.
struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16);

constexpr bool operator==(const GUID& a, const GUID& b) noexcept {
  for (int i = 0; i < 8; ++i) {
    if (a.Data4[i] != b.Data4[i]) return false;
  }
  return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3;
}

/// A position on the screen.
struct POINT {
  LONG x;
  LONG y;
};

/// A message of a thread's queue.
struct MSG {
  HWND hwnd;
  UINT message;
  WPARAM wParam;
  LPARAM lParam;
  DWORD time;
  POINT pt;
};

/// The settings of a serial line. Programs hand it to each other by its layout.
struct DCB {
  DWORD DCBlength;
  DWORD BaudRate;  // bits per second
  DWORD fBinary : 1;
  DWORD fParity : 1;
  DWORD fOutxCtsFlow : 1;
  DWORD fOutxDsrFlow : 1;
  DWORD fDtrControl : 2;
  DWORD fDsrSensitivity : 1;
  DWORD fTXContinueOnXoff : 1;
  DWORD fOutX : 1;
  DWORD fInX : 1;
  DWORD fErrorChar : 1;
  DWORD fNull : 1;
  DWORD fRtsControl : 2;
  DWORD fAbortOnError : 1;
  DWORD fDummy2 : 17;
  WORD wReserved;
  WORD XonLim;
  WORD XoffLim;
  BYTE ByteSize;  // data bits
  BYTE Parity;
  BYTE StopBits;
  char XonChar;
  char XoffChar;
  char ErrorChar;
  char EofChar;
  char EvtChar;
  WORD wReserved1;
};
static_assert(sizeof(DCB) == 28 && offsetof(DCB, XonLim) == 14 && offsetof(DCB, ByteSize) == 18 &&
              offsetof(DCB, XonChar) == 21 && offsetof(DCB, wReserved1) == 26);

using WNDPROC = LRESULT (*)(HWND, UINT, WPARAM, LPARAM);

/// A rectangle in device units; right and bottom lie outside.
struct RECT {
  LONG left;
  LONG top;
  LONG right;
  LONG bottom;
};

/// The measures of a font in device units.
struct TEXTMETRICA {
  LONG tmHeight;
  LONG tmAscent;
  LONG tmDescent;
  LONG tmInternalLeading;
  LONG tmExternalLeading;
  LONG tmAveCharWidth;
  LONG tmMaxCharWidth;
  LONG tmWeight;
  LONG tmOverhang;
  LONG tmDigitizedAspectX;
  LONG tmDigitizedAspectY;
  BYTE tmFirstChar;
  BYTE tmLastChar;
  BYTE tmDefaultChar;
  BYTE tmBreakChar;
  BYTE tmItalic;
  BYTE tmUnderlined;
  BYTE tmStruckOut;
  BYTE tmPitchAndFamily;
  BYTE tmCharSet;
};
using TEXTMETRIC = TEXTMETRICA;

/// Time-outs are milliseconds; this one never passes.
inline constexpr DWORD INFINITE = 0xFFFFFFFFu;

// Results of a wait.
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_ABANDONED_0 = 0x80;
inline constexpr DWORD WAIT_ABANDONED = 0x80;
inline constexpr DWORD WAIT_IO_COMPLETION = 0xC0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFFu;
inline constexpr DWORD STILL_ACTIVE = 259;
inline constexpr int MAXIMUM_WAIT_OBJECTS = 64;

// Last-error numbers that the library produces or compares.
inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_INVALID_DATA = 13;
inline constexpr DWORD ERROR_NO_MORE_FILES = 18;
inline constexpr DWORD ERROR_BAD_UNIT = 20;
inline constexpr DWORD ERROR_WRITE_FAULT = 29;
inline constexpr DWORD ERROR_GEN_FAILURE = 31;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32;
inline constexpr DWORD ERROR_NOT_SUPPORTED = 50;
inline constexpr DWORD ERROR_FILE_EXISTS = 80;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_DISK_FULL = 112;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
inline constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
inline constexpr DWORD ERROR_SIGNAL_REFUSED = 156;
inline constexpr DWORD ERROR_BAD_PATHNAME = 161;
inline constexpr DWORD ERROR_BUSY = 170;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_BAD_EXE_FORMAT = 193;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr DWORD ERROR_MORE_DATA = 234;
inline constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
inline constexpr DWORD ERROR_DIRECTORY = 267;
inline constexpr DWORD ERROR_NOT_OWNER = 288;
inline constexpr DWORD ERROR_TOO_MANY_POSTS = 298;
inline constexpr DWORD ERROR_OPERATION_ABORTED = 995;
inline constexpr DWORD ERROR_IO_INCOMPLETE = 996;
inline constexpr DWORD ERROR_BADDB = 1009;
inline constexpr DWORD ERROR_REGISTRY_IO_FAILED = 1016;
inline constexpr DWORD ERROR_KEY_DELETED = 1018;
inline constexpr DWORD ERROR_CANCELLED = 1223;
inline constexpr DWORD ERROR_NONE_MAPPED = 1332;
inline constexpr DWORD ERROR_INVALID_WINDOW_HANDLE = 1400;
inline constexpr DWORD ERROR_CANNOT_FIND_WND_CLASS = 1407;
inline constexpr DWORD ERROR_CLASS_ALREADY_EXISTS = 1410;
inline constexpr DWORD ERROR_CLASS_DOES_NOT_EXIST = 1411;
inline constexpr DWORD ERROR_CLASS_HAS_WINDOWS = 1412;
inline constexpr DWORD ERROR_TIMEOUT = 1460;
inline constexpr DWORD RPC_S_INVALID_STRING_UUID = 1705;
inline constexpr DWORD RPC_S_SERVER_UNAVAILABLE = 1722;
inline constexpr DWORD ERROR_INVALID_PRINTER_NAME = 1801;
inline constexpr DWORD ERROR_RESOURCE_DATA_NOT_FOUND = 1812;
inline constexpr DWORD ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;
inline constexpr DWORD ERROR_RESOURCE_NAME_NOT_FOUND = 1814;
inline constexpr DWORD ERROR_NOT_ENOUGH_QUOTA = 1816;
inline constexpr DWORD NERR_UserNotFound = 2221;

// Errors of sockets.
inline constexpr DWORD WSAEINTR = 10004;
inline constexpr DWORD WSAEACCES = 10013;
inline constexpr DWORD WSAEFAULT = 10014;
inline constexpr DWORD WSAEINVAL = 10022;
inline constexpr DWORD WSAEMFILE = 10024;
inline constexpr DWORD WSAEWOULDBLOCK = 10035;
inline constexpr DWORD WSAEINPROGRESS = 10036;
inline constexpr DWORD WSAEALREADY = 10037;
inline constexpr DWORD WSAENOTSOCK = 10038;
inline constexpr DWORD WSAEPROTOTYPE = 10041;
inline constexpr DWORD WSAENOPROTOOPT = 10042;
inline constexpr DWORD WSAEPROTONOSUPPORT = 10043;
inline constexpr DWORD WSAEOPNOTSUPP = 10045;
inline constexpr DWORD WSAEAFNOSUPPORT = 10047;
inline constexpr DWORD WSAEADDRINUSE = 10048;
inline constexpr DWORD WSAEADDRNOTAVAIL = 10049;
inline constexpr DWORD WSAENETDOWN = 10050;
inline constexpr DWORD WSAENETUNREACH = 10051;
inline constexpr DWORD WSAENETRESET = 10052;
inline constexpr DWORD WSAECONNABORTED = 10053;
inline constexpr DWORD WSAECONNRESET = 10054;
inline constexpr DWORD WSAENOBUFS = 10055;
inline constexpr DWORD WSAEISCONN = 10056;
inline constexpr DWORD WSAENOTCONN = 10057;
inline constexpr DWORD WSAESHUTDOWN = 10058;
inline constexpr DWORD WSAETIMEDOUT = 10060;
inline constexpr DWORD WSAECONNREFUSED = 10061;
inline constexpr DWORD WSAEHOSTDOWN = 10064;
inline constexpr DWORD WSAEHOSTUNREACH = 10065;
inline constexpr DWORD WSAVERNOTSUPPORTED = 10092;
inline constexpr DWORD WSAHOST_NOT_FOUND = 11001;
inline constexpr DWORD WSATRY_AGAIN = 11002;
inline constexpr DWORD WSANO_RECOVERY = 11003;
inline constexpr DWORD WSANO_DATA = 11004;

// File attributes.
inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
inline constexpr DWORD FILE_ATTRIBUTE_HIDDEN = 0x2;
inline constexpr DWORD FILE_ATTRIBUTE_SYSTEM = 0x4;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
inline constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x20;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu;

// The two trees of the registry, in the place of keys.
inline const HKEY HKEY_CURRENT_USER = reinterpret_cast<HKEY>(std::uintptr_t{0x80000001});
inline const HKEY HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(std::uintptr_t{0x80000002});

// Types of registry values: a text, bytes, a number of 32 bits.
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;

// Window messages.
inline constexpr UINT WM_CREATE = 0x1;
inline constexpr UINT WM_DESTROY = 0x2;
inline constexpr UINT WM_CLOSE = 0x10;
inline constexpr UINT WM_QUIT = 0x12;
inline constexpr UINT WM_KEYDOWN = 0x100;
inline constexpr UINT WM_KEYUP = 0x101;
inline constexpr UINT WM_CHAR = 0x102;
inline constexpr UINT WM_KEYFIRST = 0x100;
inline constexpr UINT WM_KEYLAST = 0x108;

// Serial lines: parity, stop bits, and what the DTR and RTS lines do.
inline constexpr BYTE NOPARITY = 0;
inline constexpr BYTE ODDPARITY = 1;
inline constexpr BYTE EVENPARITY = 2;
inline constexpr BYTE MARKPARITY = 3;
inline constexpr BYTE SPACEPARITY = 4;
inline constexpr BYTE ONESTOPBIT = 0;
inline constexpr BYTE ONE5STOPBITS = 1;
inline constexpr BYTE TWOSTOPBITS = 2;
inline constexpr DWORD DTR_CONTROL_DISABLE = 0;
inline constexpr DWORD DTR_CONTROL_ENABLE = 1;
inline constexpr DWORD RTS_CONTROL_DISABLE = 0;
inline constexpr DWORD RTS_CONTROL_ENABLE = 1;
inline constexpr DWORD RTS_CONTROL_HANDSHAKE = 2;

// What can happen on a serial line.
inline constexpr DWORD EV_RXCHAR = 0x1;
inline constexpr DWORD EV_TXEMPTY = 0x4;
inline constexpr DWORD EV_CTS = 0x8;
inline constexpr DWORD EV_DSR = 0x10;
inline constexpr DWORD EV_RLSD = 0x20;
inline constexpr DWORD EV_BREAK = 0x40;
inline constexpr DWORD EV_ERR = 0x80;
inline constexpr DWORD EV_RING = 0x100;

// The lines by which a modem tells its state.
inline constexpr DWORD MS_CTS_ON = 0x10;
inline constexpr DWORD MS_DSR_ON = 0x20;
inline constexpr DWORD MS_RING_ON = 0x40;
inline constexpr DWORD MS_RLSD_ON = 0x80;

// Process creation: priority class and detachment from the console.
inline constexpr DWORD DETACHED_PROCESS = 0x8;
inline constexpr DWORD NORMAL_PRIORITY_CLASS = 0x20;
inline constexpr DWORD IDLE_PRIORITY_CLASS = 0x40;
inline constexpr DWORD HIGH_PRIORITY_CLASS = 0x80;
inline constexpr DWORD REALTIME_PRIORITY_CLASS = 0x100;

// Thread priorities.
inline constexpr int THREAD_PRIORITY_IDLE = -15;
inline constexpr int THREAD_PRIORITY_LOWEST = -2;
inline constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
inline constexpr int THREAD_PRIORITY_NORMAL = 0;
inline constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
inline constexpr int THREAD_PRIORITY_HIGHEST = 2;
inline constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;
inline constexpr int THREAD_PRIORITY_ERROR_RETURN = 0x7FFFFFFF;

// Message boxes: style bits and the button that was pressed.
inline constexpr UINT MB_OK = 0x0;
inline constexpr UINT MB_YESNO = 0x4;
inline constexpr UINT MB_ICONHAND = 0x10;
inline constexpr UINT MB_ICONWARNING = 0x30;
inline constexpr UINT MB_SYSTEMMODAL = 0x1000;
inline constexpr UINT MB_TASKMODAL = 0x2000;
inline constexpr UINT MB_SETFOREGROUND = 0x10000;
inline constexpr UINT MB_TOPMOST = 0x40000;
inline constexpr int IDOK = 1;
inline constexpr int IDYES = 6;
inline constexpr int IDNO = 7;

// Capabilities of a device: printable area and resolution, for printers also the paper.
inline constexpr int HORZRES = 8;
inline constexpr int VERTRES = 10;
inline constexpr int LOGPIXELSX = 88;
inline constexpr int LOGPIXELSY = 90;
inline constexpr int PHYSICALWIDTH = 110;
inline constexpr int PHYSICALHEIGHT = 111;
inline constexpr int PHYSICALOFFSETX = 112;
inline constexpr int PHYSICALOFFSETY = 113;

// How text is drawn into a rectangle.
inline constexpr UINT DT_TOP = 0x0;
inline constexpr UINT DT_LEFT = 0x0;
inline constexpr UINT DT_CENTER = 0x1;
inline constexpr UINT DT_RIGHT = 0x2;
inline constexpr UINT DT_VCENTER = 0x4;
inline constexpr UINT DT_BOTTOM = 0x8;
inline constexpr UINT DT_WORDBREAK = 0x10;
inline constexpr UINT DT_SINGLELINE = 0x20;
inline constexpr UINT DT_EXPANDTABS = 0x40;
inline constexpr UINT DT_NOCLIP = 0x100;
inline constexpr UINT DT_CALCRECT = 0x400;
inline constexpr UINT DT_NOPREFIX = 0x800;
inline constexpr UINT DT_PATH_ELLIPSIS = 0x4000;
