#include "qmutils/platform/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <string>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/blocking_wait.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {

namespace {

struct SocketError {
  int errnoValue;
  DWORD number;
};

constexpr SocketError kSocketErrors[] = {
    {EINTR, WSAEINTR},
    {EBADF, WSAENOTSOCK},
    {EACCES, WSAEACCES},
    {EPERM, WSAEACCES},
    {EFAULT, WSAEFAULT},
    {EINVAL, WSAEINVAL},
    {EMFILE, WSAEMFILE},
    {ENFILE, WSAEMFILE},
    {EAGAIN, WSAEWOULDBLOCK},
    {EINPROGRESS, WSAEWOULDBLOCK},  // of a connect that has begun
    {EALREADY, WSAEALREADY},
    {ENOTSOCK, WSAENOTSOCK},
    {EPROTOTYPE, WSAEPROTOTYPE},
    {ENOPROTOOPT, WSAENOPROTOOPT},
    {EPROTONOSUPPORT, WSAEPROTONOSUPPORT},
    {EOPNOTSUPP, WSAEOPNOTSUPP},
    {EAFNOSUPPORT, WSAEAFNOSUPPORT},
    {EADDRINUSE, WSAEADDRINUSE},
    {EADDRNOTAVAIL, WSAEADDRNOTAVAIL},
    {ENETDOWN, WSAENETDOWN},
    {ENETUNREACH, WSAENETUNREACH},
    {ENETRESET, WSAENETRESET},
    {ECONNABORTED, WSAECONNABORTED},
    {ECONNRESET, WSAECONNRESET},
    {EPIPE, WSAECONNRESET},
    {ENOBUFS, WSAENOBUFS},
    {ENOMEM, WSAENOBUFS},
    {EISCONN, WSAEISCONN},
    {ENOTCONN, WSAENOTCONN},
    {ESHUTDOWN, WSAESHUTDOWN},
    {ETIMEDOUT, WSAETIMEDOUT},
    {ECONNREFUSED, WSAECONNREFUSED},
    {EHOSTDOWN, WSAEHOSTDOWN},
    {EHOSTUNREACH, WSAEHOSTUNREACH},
};

DWORD socketError(int errnoValue) noexcept {
  const auto* found = std::ranges::find(kSocketErrors, errnoValue, &SocketError::errnoValue);
  return found == std::end(kSocketErrors) ? lastErrorFromErrno(errnoValue) : found->number;
}

bool failWithSocketError(int errnoValue) noexcept { return failWith(socketError(errnoValue)); }

int descriptorOf(SocketHandle socket) noexcept { return static_cast<int>(socket); }

SocketHandle handleOf(int descriptor) noexcept { return static_cast<SocketHandle>(descriptor); }

sockaddr_in socketAddress(HostAddress host, std::uint16_t port) noexcept {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(host);
  address.sin_port = htons(port);
  return address;
}

/// A socket that is or was connected has an address of its own; one that never was has not.
bool wasNeverConnected(SocketHandle socket) noexcept { return portOfSocket(socket) == 0; }

/// Errors of the network that belong to the one client that was waiting, and by which a listener
/// must not end.
bool concernsOneClient(int errnoValue) noexcept {
  switch (errnoValue) {
    case EINTR:
    case EPERM:  // a firewall's
    case ECONNABORTED:
    case EPROTO:
    case ENOPROTOOPT:
    case EOPNOTSUPP:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENONET:
      return true;
    default:
      return false;
  }
}

long receive(SocketHandle socket, char* buffer, std::size_t size, int flags) noexcept {
  ssize_t received;
  do {
    received = recv(descriptorOf(socket), buffer, size, flags);
  } while (received < 0 && errno == EINTR);
  if (received < 0) failWithSocketError(errno);
  return received;
}

DWORD lookUpError(int result, int errnoValue) noexcept {
  switch (result) {
    case EAI_NONAME:
      return WSAHOST_NOT_FOUND;
    case EAI_AGAIN:
      return WSATRY_AGAIN;
    case EAI_NODATA:
    case EAI_ADDRFAMILY:
      return WSANO_DATA;
    case EAI_MEMORY:
      return WSAENOBUFS;
    case EAI_SYSTEM:
      return socketError(errnoValue);
    default:
      return WSANO_RECOVERY;
  }
}

/// A look-up of a name, which the system does without a way to give up: a thread does it, and
/// whoever asked may leave before.
struct LookUp {
  explicit LookUp(const char* name) : host(name), done(createEvent(true, false)) {}
  LookUp(const LookUp&) = delete;
  LookUp& operator=(const LookUp&) = delete;
  ~LookUp() {
    if (done != nullptr) closeHandle(done);
  }

  void run() noexcept {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    error = result == 0 ? ERROR_SUCCESS : lookUpError(result, errno);
    if (result == 0) {
      address = ntohl(reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr);
      freeaddrinfo(found);
    }
    setEvent(done);
  }

  const std::string host;
  const HANDLE done;
  DWORD error = ERROR_SUCCESS;
  HostAddress address = 0;
};

DWORD runLookUp(void* argument) {
  const std::unique_ptr<std::shared_ptr<LookUp>> lookUp(
      static_cast<std::shared_ptr<LookUp>*>(argument));
  (*lookUp)->run();
  return 0;
}

}  // namespace

bool startSockets(WORD /*wanted*/, WORD* highest) noexcept {
  *highest = socketsVersion(2, 2);
  return true;
}

bool findHost(const char* host, HANDLE stop, HostAddress* address) noexcept try {
  if (host == nullptr || *host == '\0') return failWith(WSAHOST_NOT_FOUND);
  in_addr numbers;
  if (inet_pton(AF_INET, host, &numbers) == 1) {
    *address = ntohl(numbers.s_addr);
    return true;
  }
  const auto lookUp = std::make_shared<LookUp>(host);
  if (lookUp->done == nullptr) return failWith(WSAENOBUFS);
  auto share = std::make_unique<std::shared_ptr<LookUp>>(lookUp);
  const HANDLE thread = startThread(runLookUp, share.get(), nullptr);
  if (thread == nullptr) return failWith(WSAENOBUFS);
  (void)share.release();
  closeHandle(thread);
  const HANDLE handles[] = {lookUp->done, stop};
  if (waitAny(handles, stop != nullptr ? 2 : 1, INFINITE) != WAIT_OBJECT_0) {
    return failWith(WSAEINTR);
  }
  if (lookUp->error != ERROR_SUCCESS) return failWith(lookUp->error);
  *address = lookUp->address;
  return true;
} catch (const std::bad_alloc&) {
  return failWith(WSAENOBUFS);
}

SocketHandle createSocket() noexcept {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (made < 0) failWithSocketError(errno);
  return handleOf(made);
}

bool makeNonBlocking(SocketHandle socket) noexcept {
  int on = 1;
  return ioctl(descriptorOf(socket), FIONBIO, &on) == 0 || failWithSocketError(errno);
}

bool bindSocket(SocketHandle socket, std::uint16_t port) noexcept {
  // Connections that have just ended hold their port for a minute; they are no reason to refuse.
  if (!setSocketOption(socket, SOL_SOCKET, SO_REUSEADDR, 1)) return false;
  const sockaddr_in address = socketAddress(INADDR_ANY, port);
  return bind(descriptorOf(socket), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
             0 ||
         failWithSocketError(errno);
}

bool listenOnSocket(SocketHandle socket, int backlog) noexcept {
  return listen(descriptorOf(socket), backlog) == 0 || failWithSocketError(errno);
}

std::uint16_t portOfSocket(SocketHandle socket) noexcept {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(descriptorOf(socket), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    failWithSocketError(errno);
    return 0;
  }
  return ntohs(address.sin_port);
}

SocketHandle acceptClient(SocketHandle listener) noexcept {
  const int client =
      accept4(descriptorOf(listener), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) failWith(concernsOneClient(errno) ? WSAEWOULDBLOCK : socketError(errno));
  return handleOf(client);
}

bool connectSocket(SocketHandle socket, HostAddress host, std::uint16_t port) noexcept {
  const sockaddr_in address = socketAddress(host, port);
  if (connect(descriptorOf(socket), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
      0) {
    return true;
  }
  // Interrupted by a signal, it goes on all the same.
  return failWith(errno == EINTR ? WSAEWOULDBLOCK : socketError(errno));
}

DWORD connectionState(SocketHandle socket) noexcept {
  sockaddr_in peer;
  socklen_t size = sizeof peer;
  if (getpeername(descriptorOf(socket), reinterpret_cast<sockaddr*>(&peer), &size) == 0) {
    return WSAEISCONN;
  }
  int error = 0;
  size = sizeof error;
  if (getsockopt(descriptorOf(socket), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
    return socketError(errno);
  }
  if (error != 0) return socketError(error);
  pollfd entry{descriptorOf(socket), POLLOUT, 0};
  return poll(&entry, 1, 0) == 0 ? WSAEWOULDBLOCK : WSAENOTCONN;
}

DWORD waitForSocket(SocketHandle socket, SocketEvent event, const HANDLE* objects,
                    std::size_t count, DWORD timeoutMs) noexcept {
  return posix::waitReady(descriptorOf(socket), event == SocketEvent::Readable ? POLLIN : POLLOUT,
                          objects, count, Deadline::after(timeoutMs));
}

long sendBytes(SocketHandle socket, const char* bytes, std::size_t count) noexcept {
  ssize_t sent;
  do {
    sent = send(descriptorOf(socket), bytes, count, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    const int error = errno;
    failWith(error == EPIPE && wasNeverConnected(socket) ? WSAENOTCONN : socketError(error));
  }
  return sent;
}

long receiveBytes(SocketHandle socket, char* buffer, std::size_t size) noexcept {
  return receive(socket, buffer, size, 0);
}

long peekByte(SocketHandle socket, char* byte) noexcept {
  return receive(socket, byte, 1, MSG_PEEK | MSG_DONTWAIT);
}

bool bytesWaiting(SocketHandle socket, DWORD* count) noexcept {
  int waiting = 0;
  if (ioctl(descriptorOf(socket), FIONREAD, &waiting) != 0) return failWithSocketError(errno);
  *count = static_cast<DWORD>(waiting);
  return true;
}

bool setSocketOption(SocketHandle socket, int level, int option, int value) noexcept {
  return setsockopt(descriptorOf(socket), level, option, &value, sizeof value) == 0 ||
         failWithSocketError(errno);
}

bool shutDownSocket(SocketHandle socket) noexcept {
  return shutdown(descriptorOf(socket), SHUT_RDWR) == 0 || failWithSocketError(errno);
}

bool closeSocket(SocketHandle socket) noexcept {
  // The number is free again even if closing was interrupted.
  return close(descriptorOf(socket)) == 0 || errno == EINTR || failWithSocketError(errno);
}

}  // namespace qm::platform
