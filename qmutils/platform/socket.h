// TCP sockets over IPv4, with Windows Sockets numbers in the last error (10035 would block, 10054
// reset, 10061 refused, 11001 host unknown, ...).
//
// A handle is a plain number, as programs pass it on to the system's own calls; it is not checked
// for being a socket of ours, so nobody may use one after it was closed. Sockets are not handed
// down to child processes, and writing to one whose peer has gone is an error, never a signal. Any
// thread may call; nothing throws. Only waitForSocket() and findHost() wait.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmutils/platform/types.h"

namespace qm::platform {

using SocketHandle = std::uint32_t;
inline constexpr SocketHandle kInvalidSocket = 0xFFFFFFFFu;

/// A version of the socket library: its major number in the low byte, the minor one in the high.
constexpr WORD socketsVersion(BYTE major, BYTE minor) noexcept {
  return static_cast<WORD>(major | minor << 8);
}
/// Starts the socket library for this process, once for each call. `highest` is the newest version
/// the system offers.
bool startSockets(WORD wanted, WORD* highest) noexcept;

/// An IPv4 address, its first number in the highest byte.
using HostAddress = std::uint32_t;
/// The first address of a host, given by name or as four numbers. Gives up with 10004 when `stop`
/// (may be null) is signalled; the system's own look-up then goes on in the background for a while.
bool findHost(const char* host, HANDLE stop, HostAddress* address) noexcept;

/// kInvalidSocket with the last error set.
SocketHandle createSocket() noexcept;
/// From here on operations that would have to wait fail with 10035.
bool makeNonBlocking(SocketHandle socket) noexcept;
/// Binds to all addresses of this computer; port 0 lets the system choose one. A port whose last
/// server has just gone can be bound again at once.
bool bindSocket(SocketHandle socket, std::uint16_t port) noexcept;
bool listenOnSocket(SocketHandle socket, int backlog) noexcept;
/// The port that the socket is bound to; 0 with the last error set.
std::uint16_t portOfSocket(SocketHandle socket) noexcept;
/// The next client, non-blocking; kInvalidSocket with 10035 when there is none, a client that has
/// gone again meanwhile included.
SocketHandle acceptClient(SocketHandle listener) noexcept;
/// Begins to connect a non-blocking socket: fails with 10035 while that goes on.
bool connectSocket(SocketHandle socket, HostAddress address, std::uint16_t port) noexcept;
/// How far connecting has come: 10056 connected, 10035 it goes on, else the error that ended it.
DWORD connectionState(SocketHandle socket) noexcept;

/// What to wait for: something to read or accept, or room to write or the end of connecting. An
/// error or a closed connection ends both.
enum class SocketEvent { Readable, Writable };
/// Waits for the socket or the first of `count` objects: WAIT_OBJECT_0 + index of an object, which
/// wins when both are there, WAIT_OBJECT_0 + count for the socket, WAIT_TIMEOUT, WAIT_FAILED.
DWORD waitForSocket(SocketHandle socket, SocketEvent event, const HANDLE* objects,
                    std::size_t count, DWORD timeoutMs) noexcept;

/// Sends or takes what is possible at once: the number of bytes (for receiving, 0 when the peer has
/// closed the connection), or a negative number with the last error set. Sending on a socket that
/// was never connected fails with 10057; once connected, with 10054 when the connection is gone.
long sendBytes(SocketHandle socket, const char* bytes, std::size_t count) noexcept;
long receiveBytes(SocketHandle socket, char* buffer, std::size_t size) noexcept;
/// As receiving one byte, which stays to be read; never waits.
long peekByte(SocketHandle socket, char* byte) noexcept;
bool bytesWaiting(SocketHandle socket, DWORD* count) noexcept;

bool setSocketOption(SocketHandle socket, int level, int option, int value) noexcept;
/// Ends the connection in both directions; who waits for the socket wakes up.
bool shutDownSocket(SocketHandle socket) noexcept;
bool closeSocket(SocketHandle socket) noexcept;

}  // namespace qm::platform
