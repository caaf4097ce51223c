#include "qmutils/transport/CQMServerSocket.h"

#include <new>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/socket.h"
#include "qmutils/platform/waitable.h"
#include "qmutils/transport/CQMServerConnection.h"

using namespace qm::platform;

namespace {

using SectionUser = QMCriticalSectionC::QMCriticalSectionUserC;

constexpr int kBacklog = 100;
constexpr DWORD kIdleMs = 1000;  // between idle passes, and between tries to listen
constexpr DWORD kSectionTimeoutMs = 20000;

constexpr const char* kRun = "CQMServerSocket::run(): ";
constexpr const char* kCreate = "CQMServerSocket::CreateNewConnection(): ";
constexpr const char* kClean = "CQMServerSocket::CleanDeadConnections(): ";

/// Logs why a step of opening failed; gives the code.
QMErrors::QMErrorT failStep(const char* step) {
  const QMErrors::QMErrorT error = QMErrors::lastOsError();
  qm::logError(kRun, "Failed [ ", step, " ] with error: ", QMErrToStr(error));
  return error;
}

}  // namespace

CQMServerSocket::CQMServerSocket(const char* name, unsigned short port, void* hUserEvent,
                                 int noDelay)
    : CQMSocketCommon(name, port, nullptr, 0, noDelay), m_hUserEvent(hUserEvent) {}

CQMServerSocket::~CQMServerSocket() {
  (void)stop();
  (void)CleanDeadConnections();
  // One that did not end in its time goes on without a server.
  while (QMThreadC* const child = FindChild(nullptr)) child->SetParent(nullptr);
  if (m_hUserEvent != nullptr) closeHandle(m_hUserEvent);
}

QMErrors::QMErrorT CQMServerSocket::Notify(ServerStateT) { return QMErrors::NoMethodBodyCode; }
QMErrors::QMErrorT CQMServerSocket::ServerIdle() { return QMErrors::NoMethodBodyCode; }

QMErrors::QMErrorT CQMServerSocket::CreateNewConnection(unsigned socket) {
  auto* const connection = new (std::nothrow) CQMServerConnection(this, socket, 0);
  if (connection == nullptr) {
    CloseConnection(socket);
    qm::logError(kCreate, "failed creating new connection");
    return QMErrors::MemoryAllocationFailed;
  }
  qm::logInfo(1, kCreate, "created new connection.");
  return Begin(connection);
}

QMErrors::QMErrorT CQMServerSocket::Begin(CQMServerConnection* connection) {
  if (connection == nullptr) return QMErrors::MemoryAllocationFailed;
  const QMErrors::QMErrorT started = connection->start();
  if (started != QMErrors::NoError) delete connection;
  return started;
}

QMErrors::QMErrorT CQMServerSocket::run() {
  QMErrors::QMErrorT result = Notify(NotListening);
  if (result != QMErrors::NoError) return result;
  qm::logInfo(1, kRun, "Server is about to start");
  SocketHandle listener = kInvalidSocket;
  result = Open(listener);
  if (result != QMErrors::NoError) return result;
  if (Listen(listener)) {
    SetPortID(portOfSocket(listener));
    SetSocket(listener);
    result = AcceptClients();
    CloseConnection(GetSocket());
  } else {
    CloseConnection(listener);
  }
  // stop() has stopped the connections that there were; more may have come until now.
  if (IsEndEventSignalled()) (void)StopChildren();
  (void)CleanDeadConnections();
  qm::logInfo(1, kRun, "Server is about to stop");
  if (!IsEndEventSignalled()) (void)Notify(NotListening);
  return result;
}

/// Makes the socket and binds it to the port.
QMErrors::QMErrorT CQMServerSocket::Open(unsigned& socket) {
  const QMErrors::QMErrorT usable = InitialiseSocketUsage();
  if (usable != QMErrors::NoError) return usable;
  const SocketHandle made = createSocket();
  if (made == kInvalidSocket) return failStep("socket()");
  const char* failed = nullptr;
  if (!bindSocket(made, GetPort())) {
    failed = "bind()";
  } else if (!makeNonBlocking(made)) {
    failed = "ioctlsocket()";
  }
  if (failed != nullptr) {
    const QMErrors::QMErrorT error = failStep(failed);
    (void)closeSocket(made);
    return error;
  }
  socket = made;
  return QMErrors::NoError;
}

/// Tries until the socket listens; false when the thread is told to stop before.
bool CQMServerSocket::Listen(unsigned socket) const {
  for (bool told = false; !listenOnSocket(socket, kBacklog); told = true) {
    if (!told) (void)failStep("listen()");
    if (wait(GetEndEvent(), kIdleMs) != WAIT_TIMEOUT) return false;
  }
  return !IsEndEventSignalled();
}

QMErrors::QMErrorT CQMServerSocket::AcceptClients() {
  QMErrors::QMErrorT result = QMErrors::NoError;
  Deadline idle = Deadline::after(kIdleMs);
  while (result == QMErrors::NoError && !IsEndEventSignalled()) {
    qm::logInfo(1, kRun, "Waiting for connection...");
    const SocketHandle client = acceptClient(GetSocket());
    bool clientIsThere = true;
    if (client != kInvalidSocket) {
      result = Welcome(client);
    } else if (lastError() == WSAEWOULDBLOCK) {
      clientIsThere = AwaitClient();
    } else {
      result = QMErrors::lastOsError();
      qm::logError(kRun, "accept() failed with error: ", QMErrToStr(result));
    }
    // Many clients in a row do not keep the idle pass away for longer than usual.
    if (result != QMErrors::NoError || (clientIsThere && !idle.passed())) continue;
    if (IsEndEventSignalled()) break;
    (void)CleanDeadConnections();
    (void)ServerIdle();
    idle = Deadline::after(kIdleMs);
  }
  return result;
}

/// Waits for a client, the user event, the end of the thread, or the time of the next idle pass;
/// true when a client is there.
bool CQMServerSocket::AwaitClient() {
  const HANDLE handles[] = {GetEndEvent(), m_hUserEvent};
  const DWORD count = m_hUserEvent != nullptr ? 2 : 1;
  DWORD result = waitForSocket(GetSocket(), SocketEvent::Readable, handles, count, kIdleMs);
  if (result == WAIT_FAILED) {
    qm::logWarning(0, kRun, "failed waiting on m_hUserEvent", QMErrToStr(QMErrors::lastOsError()));
    result = waitForSocket(GetSocket(), SocketEvent::Readable, handles, 1, kIdleMs);
    return result == WAIT_OBJECT_0 + 1;
  }
  return result == WAIT_OBJECT_0 + count;
}

/// Hands an accepted socket to a new connection; a result other than 0 ends the server.
QMErrors::QMErrorT CQMServerSocket::Welcome(unsigned socket) {
  qm::logInfo(1, kRun, "Connecting to socket.");
  if (IsEndEventSignalled() || !IsComplete(socket)) {
    CloseConnection(socket);
    return QMErrors::NoError;
  }
  const QMErrors::QMErrorT created = CreateNewConnection(socket);
  if (created != QMErrors::NoError) qm::logError(kRun, "CreateNewConnection() failed");
  return created;
}

/// Waits until the client's connection is made; false when it has failed or the thread is told to
/// stop.
bool CQMServerSocket::IsComplete(unsigned socket) {
  for (;;) {
    const DWORD state = connectionState(socket);
    if (state == WSAEISCONN) return true;
    if (state != WSAEWOULDBLOCK) {
      setLastError(state);
      qm::logError(kRun, "connect() failed with error: ", QMErrToStr(QMErrors::lastOsError()));
      return false;
    }
    qm::logInfo(1, kRun, "Connecting to socket waiting.");
    const HANDLE end = GetEndEvent();
    if (waitForSocket(socket, SocketEvent::Writable, &end, 1, kIdleMs) == WAIT_OBJECT_0) {
      return false;
    }
  }
}

QMErrors::QMErrorT CQMServerSocket::CleanDeadConnections() {
  SectionUser user(&m_Section);
  const QMErrors::QMErrorT entered = user.EnterCriticalSection(kClean, kSectionTimeoutMs);
  if (entered != QMErrors::NoError) return entered;
  QMThreadC* child = FindChild(nullptr);
  while (child != nullptr) {
    QMThreadC* const next = FindChild(child);
    // A stopped thread is not dead for QMThreadC, as it can be started again; a connection cannot.
    const auto* const connection = dynamic_cast<CQMServerConnection*>(child);
    if (child->IsDead() || (connection != nullptr && connection->HasEnded())) {
      (void)child->RemoveThread(1);
    }
    child = next;
  }
  return QMErrors::NoError;
}

QMErrors::QMErrorT CQMServerSocket::Delete(CQMServerConnection& connection) {
  SectionUser user(&m_Section);
  const QMErrors::QMErrorT entered =
      user.EnterCriticalSection("CQMServerConnection::CleanUp(): ", kSectionTimeoutMs);
  if (entered != QMErrors::NoError) return entered;
  (void)connection.stop();
  return connection.RemoveThread(1);
}
