#include "qmutils/transport/CQMSocketCommon.h"

#include <cstring>
#include <iostream>
#include <mutex>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/socket.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;

namespace {

constexpr DWORD kStopTimeoutMs = 10000;
constexpr DWORD kIdleMs = 100;         // between two looks at a connection where nothing happens
constexpr DWORD kConnectPauseMs = 10;  // between two tries to send before the connection is made
constexpr WORD kSocketsVersion = socketsVersion(2, 0);

// What SetNoTCPDelay() sets; installed programs rely on these two numbers.
constexpr int kNoDelayLevel = 0;
constexpr int kNoDelayOption = 1;

constexpr const char* kInitialise = "CQMSocketCommon::InitialiseSocketUsage(): ";
constexpr const char* kSend = "CQMSocketCommon::Send(): ";

static_assert(CQMSocketCommon::kNoSocket == kInvalidSocket);

/// Repeats a step of closing while the system says that it would have to wait.
template <class Step>
void untilDone(const Step& step) {
  while (!step() && (lastError() == WSAEWOULDBLOCK || lastError() == WSAEINPROGRESS)) {
    sleep(1, false);
  }
}

void closeConnection(SocketHandle socket) {
  untilDone([socket] { return shutDownSocket(socket); });
  untilDone([socket] { return closeSocket(socket); });
}

}  // namespace

/// A use of the socket, which is not closed meanwhile. Nobody begins one any more once the socket
/// is about to be closed: whoever closes waits for those that have begun only.
class CQMSocketCommon::UseC {
 public:
  explicit UseC(CQMSocketCommon& owner) : m_Share(owner.m_InUse, std::defer_lock) {
    if (owner.m_nSocket == kNoSocket) return;
    m_Share.lock();
    m_nSocket = owner.m_nSocket;
  }
  SocketHandle socket() const { return m_nSocket; }

 private:
  std::shared_lock<std::shared_mutex> m_Share;
  SocketHandle m_nSocket = kNoSocket;
};

CQMSocketCommon::CQMSocketCommon(const char* name, unsigned short port, QMThreadC* const parent,
                                 int autoDelete, int noDelay)
    : QMThreadC(name, parent, kStopTimeoutMs, autoDelete),
      m_Lock("CQMSocketCommon", INFINITE),
      m_nPort(port),
      m_nNoDelay(noDelay),
      m_nAutoDelete(autoDelete) {}

CQMSocketCommon::CQMSocketCommon(const CQMSocketCommon& other)
    : CQMSocketCommon(other.GetSafeThreadName(), other.GetPort(), other.GetParent(),
                      other.m_nAutoDelete, other.m_nNoDelay) {}

CQMSocketCommon::~CQMSocketCommon() {
  (void)stop();
  CloseConnection(GetSocket());
}

QMErrors::QMErrorT CQMSocketCommon::InitialiseSocketUsage() {
  WORD highest = 0;
  if (!startSockets(kSocketsVersion, &highest)) {
    const QMErrors::QMErrorT error = QMErrors::lastOsError();
    qm::logError(kInitialise, "WSAStartup() failed with error: ", QMErrToStr(error));
    return error;
  }
  const unsigned major = highest & 0xFFu;
  if (major >= (kSocketsVersion & 0xFFu)) return QMErrors::NoError;
  qm::logError(kInitialise, "WinSock version: (", major, ".", highest >> 8, " ) is too old.");
  setLastError(WSAVERNOTSUPPORTED);
  return QMErrors::lastOsError();
}

bool CQMSocketCommon::IsToldToStop() const {
  return GetEndEvent() != nullptr && IsEndEventSignalled();
}

QMErrors::QMErrorT CQMSocketCommon::SetNoTCPDelay(int /*noDelay*/) {
  const UseC use(*this);
  if (setSocketOption(use.socket(), kNoDelayLevel, kNoDelayOption, m_nNoDelay)) {
    return QMErrors::NoError;
  }
  const QMErrors::QMErrorT error = QMErrors::lastOsError();
  qm::logWarning(
      0, "CQMSocketCommon::SetNoTCPDelay(): Failed to disable TCP coalescing: ", QMErrToStr(error));
  return error;
}

QMErrors::QMErrorT CQMSocketCommon::HasData(DWORD& count) {
  const UseC use(*this);
  if (bytesWaiting(use.socket(), &count)) return QMErrors::NoError;
  return QMErrors::lastOsError();
}

int CQMSocketCommon::IsConnected(QMErrors::QMErrorT* error) {
  DWORD waiting = 0;
  if (HasData(waiting) == QMErrors::NoError && waiting != 0) return GetSocket() != kNoSocket;
  const UseC use(*this);
  char byte;
  const long peeked = peekByte(use.socket(), &byte);
  if (peeked > 0) return GetSocket() != kNoSocket;
  const DWORD reason = peeked == 0 ? ERROR_SUCCESS : lastError();
  if (reason == WSAEWOULDBLOCK || reason == WSAEINPROGRESS) {
    const HANDLE end = GetEndEvent();
    waitForSocket(use.socket(), SocketEvent::Readable, &end, end != nullptr ? 1 : 0, kIdleMs);
    return GetSocket() != kNoSocket;
  }
  setLastError(reason);
  if (error != nullptr) *error = QMErrors::lastOsError();
  return 0;
}

QMErrors::QMErrorT CQMSocketCommon::Send(const char* text) {
  if (text == nullptr) return QMErrors::NoError;
  const QMErrors::QMErrorT locked = m_Lock.lock();
  if (locked == QMErrors::ResourceAllocationFailed) return locked;
  const QMErrors::QMErrorT sent = Transfer(text);
  if (sent != QMErrors::NoError) qm::logError(kSend, "send returned error: ", QMErrToStr(sent));
  (void)m_Lock.unlock();
  if (sent == QMErrors::NoError) qm::logInfo(10, kSend, "sent: ", text);
  return sent;
}

/// Under the lock.
QMErrors::QMErrorT CQMSocketCommon::Transfer(const char* text) {
  const UseC use(*this);
  std::size_t left = std::strlen(text);
  // Behind a text that was cut nothing is sent: the peer would take the two for one.
  if (left != 0 && use.socket() != kNoSocket && use.socket() == m_nCutSocket) {
    return QMErrors::NoError;
  }
  while (left != 0) {
    const long sent = sendBytes(use.socket(), text, left);
    if (sent >= 0) {
      text += sent;
      left -= static_cast<std::size_t>(sent);
      if (left == 0) break;
      setLastError(WSAEWOULDBLOCK);  // for the rest there was no room
    }
    if (!AwaitRoom(use.socket())) {
      const QMErrors::QMErrorT error = QMErrors::lastOsError();
      // The end of the thread closes the connection: that is no failure of this send.
      return IsToldToStop() ? QMErrors::NoError : error;
    }
    if (IsToldToStop()) {
      m_nCutSocket = use.socket();
      break;
    }
  }
  return QMErrors::NoError;
}

/// After a send that failed: waits until it is worth while to try again, or the thread is told to
/// stop; false when it never will be.
bool CQMSocketCommon::AwaitRoom(unsigned socket) const {
  const HANDLE end = GetEndEvent();
  const DWORD reason = lastError();
  if (reason == WSAEWOULDBLOCK) {
    return waitForSocket(socket, SocketEvent::Writable, &end, end != nullptr ? 1 : 0, INFINITE) !=
           WAIT_FAILED;
  }
  // Unless somebody closes it.
  const bool maybeLater = reason == WSAENOTCONN && end != nullptr && GetSocket() == socket;
  return maybeLater && wait(end, kConnectPauseMs) != WAIT_FAILED;
}

QMErrors::QMErrorT CQMSocketCommon::Receive(char* buffer, DWORD size, DWORD& received,
                                            DWORD timeoutMs) {
  received = 0;
  const UseC use(*this);
  const HANDLE end = GetEndEvent();
  const Deadline deadline = Deadline::after(timeoutMs);
  for (;;) {
    const long taken = receiveBytes(use.socket(), buffer, size);
    if (taken > 0) {
      received = static_cast<DWORD>(taken);
      return QMErrors::NoError;
    }
    if (taken == 0) return QMErrors::EndOfFileError;
    if (lastError() != WSAEWOULDBLOCK) return QMErrors::lastOsError();
    const DWORD count = end != nullptr ? 1 : 0;
    const DWORD result =
        waitForSocket(use.socket(), SocketEvent::Readable, &end, count, deadline.remainingMs());
    if (result == WAIT_TIMEOUT) return QMErrors::CommandTimedOut;
    if (result == WAIT_FAILED) return QMErrors::lastOsError();
    if (result != WAIT_OBJECT_0 + count) return QMErrors::TheWaitWasForcedToExit;
  }
}

void CQMSocketCommon::CloseConnection(unsigned socket) {
  if (socket == kNoSocket) return;
  unsigned own = socket;
  if (!m_nSocket.compare_exchange_strong(own, kNoSocket)) {
    closeConnection(socket);
    return;
  }
  // Nobody begins to use it any more, and who does so now notices that it ends.
  (void)shutDownSocket(socket);
  const std::unique_lock<std::shared_mutex> unused(m_InUse);
  closeConnection(socket);
}

std::iostream& operator<<(std::iostream& stream, CQMSocketCommon& socket) {
  stream << "CQMSocketCommon = { m_pName=" << socket.GetSafeThreadName() << ", m_nSocket=";
  if (socket.GetSocket() == CQMSocketCommon::kNoSocket) {
    stream << "none";
  } else {
    stream << socket.GetSocket();
  }
  stream << ", m_nPort=" << socket.GetPort() << ", m_nNoDelay=" << socket.GetNoTCPDelay() << " }";
  return stream;
}
