#include "qmutils/transport/CQMClientSocket.h"

#include <new>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/socket.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;

namespace {

constexpr DWORD kAttemptIntervalMs = 1000;
constexpr unsigned kHighestPort = 0xFFFF;

constexpr const char* kRun = "CQMClientSocket::run(): ";

}  // namespace

CQMClientSocket::CQMClientSocket(const char* name, unsigned short port, int noDelay)
    : CQMSocketCommon(name, port, nullptr, 0, noDelay), m_nRemotePort(port) {}

CQMClientSocket::~CQMClientSocket() { (void)stop(); }

QMErrors::QMErrorT CQMClientSocket::Notify(ClientStateT) { return QMErrors::NoMethodBodyCode; }
QMErrors::QMErrorT CQMClientSocket::ServerListen() { return QMErrors::NoMethodBodyCode; }

QMErrors::QMErrorT CQMClientSocket::SetHost(const char* host, unsigned int port) try {
  const QMErrors::QMErrorT stopped = stop();
  if (stopped != QMErrors::NoError) {
    qm::logError("CQMClientSocket::SetHost(): Failed stopping thread");
    return stopped;
  }
  {
    std::string copy(host != nullptr ? host : "");
    const ShortLock lock(m_HostLock);
    m_pHost.swap(copy);
    m_nRemotePort = port;
  }
  const QMErrors::QMErrorT started = start();
  if (started != QMErrors::NoError) {
    qm::logError("CQMClientSocket::SetHost(): Failed starting thread");
  }
  return started;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory("CQMClientSocket::SetHost(): ");
}

QMErrors::QMErrorT CQMClientSocket::run() {
  QMErrors::QMErrorT result = Notify(NotConnected);
  if (result != QMErrors::NoError) return result;
  result = InitialiseSocketUsage();
  if (result != QMErrors::NoError) return result;
  m_NextAttempt = Deadline::after(0);
  while (!IsEndEventSignalled()) {
    if (Connect() && !IsEndEventSignalled()) {
      result = Notify(Connected);
      while (result == QMErrors::NoError && !IsEndEventSignalled()) result = ServerListen();
    }
    CloseConnection(GetSocket());
    result = Notify(NotConnected);
    if (result != QMErrors::NoError) break;
  }
  const bool stopped = IsEndEventSignalled();
  qm::logInfo(1, kRun, stopped ? "disconnecting" : "lost connection");
  return stopped ? QMErrors::NoError : result;
}

/// Tries, once a second, until there is a connection, a notification asks to leave off, or the
/// thread is told to stop; true for a connection.
bool CQMClientSocket::Connect() {
  bool goOn = true;
  while (goOn && GetSocket() == kNoSocket) {
    // Also after a connection that was lost at once: a server that does so is not to be flooded.
    if (wait(GetEndEvent(), m_NextAttempt.remainingMs()) != WAIT_TIMEOUT) return false;
    m_NextAttempt = Deadline::after(kAttemptIntervalMs);  // also when there is none now
    (void)Sleep(0);
    if (Notify(NotConnected) != QMErrors::NoError) return false;
    goOn = Attempt();
    m_NextAttempt = Deadline::after(kAttemptIntervalMs);
  }
  return GetSocket() != kNoSocket;
}

/// One attempt; false when a notification asks to leave off.
bool CQMClientSocket::Attempt() try {
  std::string host;
  unsigned port;
  {
    const ShortLock lock(m_HostLock);
    host = m_pHost;
    port = m_nRemotePort;
  }
  HostAddress address;
  if (!findHost(host.c_str(), GetEndEvent(), &address)) {
    const QMErrors::QMErrorT error = QMErrors::lastOsError();
    if (IsEndEventSignalled()) return false;
    qm::logError(kRun, "gethostbyname(", host, " ) failed with error: ", QMErrToStr(error));
    return Notify(HostNotFound) == QMErrors::NoError;
  }
  const SocketHandle socket = createSocket();
  if (socket != kInvalidSocket && Reach(socket, address, port)) {
    qm::logInfo(1, kRun, "Connected");
    SetSocket(socket);
    return true;
  }
  const QMErrors::QMErrorT error = QMErrors::lastOsError();
  if (socket != kInvalidSocket) (void)closeSocket(socket);
  if (!IsEndEventSignalled()) qm::logError(kRun, "connect() failed", QMErrToStr(error));
  return true;
} catch (const std::bad_alloc&) {
  (void)qm::logNoMemory(kRun);
  return true;
}

/// Connects the socket; false with the last error set, also when the thread is told to stop.
bool CQMClientSocket::Reach(unsigned socket, unsigned address, unsigned port) const {
  if (port == 0 || port > kHighestPort) {
    setLastError(WSAEADDRNOTAVAIL);
    return false;
  }
  if (!makeNonBlocking(socket)) return false;
  if (connectSocket(socket, address, static_cast<unsigned short>(port))) return true;
  DWORD state = lastError();
  while (state == WSAEWOULDBLOCK) {
    const HANDLE end = GetEndEvent();
    if (waitForSocket(socket, SocketEvent::Writable, &end, 1, INFINITE) != WAIT_OBJECT_0 + 1) {
      return false;
    }
    state = connectionState(socket);
  }
  setLastError(state);
  return state == WSAEISCONN;
}
