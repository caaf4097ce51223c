#include "qmutils/transport/CQMServerConnection.h"

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/thread.h"
#include "qmutils/transport/CQMServerSocket.h"

namespace {

constexpr const char* kRun = "CQMServerConnection::run(): ";

}  // namespace

CQMServerConnection::CQMServerConnection(CQMServerSocket* server, unsigned socket, int noDelay)
    : CQMSocketCommon(nullptr, 0, server, 0, noDelay) {
  SetSocket(socket);
}

CQMServerConnection::~CQMServerConnection() { (void)stop(); }

QMErrors::QMErrorT CQMServerConnection::ClientListen() { return QMErrors::NoMethodBodyCode; }

QMErrors::QMErrorT CQMServerConnection::CleanUp() {
  if (GetThreadID() == qm::platform::currentThreadId() && IsAlive()) {
    (void)NotifyEnd();
    return QMErrors::NoError;
  }
  if (auto* const server = dynamic_cast<CQMServerSocket*>(GetParent())) {
    return server->Delete(*this);
  }
  delete this;
  return QMErrors::NoError;
}

void CQMServerConnection::ShowConnection(int connected) {
  qm::logInfo(1, "CQMServerConnection::ShowConnection(): ",
              connected != 0 ? " connected" : " disconnected", " on port: ", GetPort());
}

QMErrors::QMErrorT CQMServerConnection::run() {
  ShowConnection(1);
  QMErrors::QMErrorT result = QMErrors::NoError;
  while (result == QMErrors::NoError && !IsEndEventSignalled() && IsConnected(&result) != 0) {
    result = ClientListen();
    (void)Sleep(0);
  }
  qm::logInfo(1, kRun, IsEndEventSignalled() ? "closing connection." : "lost connection");
  ShowConnection(0);
  CloseConnection(GetSocket());
  qm::logInfo(1, kRun, "exiting with: ", QMErrToStr(result));
  return result;
}
