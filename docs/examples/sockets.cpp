// Text lines between a server and a client in one program.
#include <atomic>
#include <cstdio>
#include <new>
#include <string>

#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/transport/CQMClientSocket.h"
#include "qmutils/transport/CQMServerConnection.h"
#include "qmutils/transport/CQMServerSocket.h"

class SessionC : public CQMServerConnection {
 public:
  SessionC(CQMServerSocket* server, unsigned socket) : CQMServerConnection(server, socket, 0) {}
  ~SessionC() override { stop(); }

 protected:
  QMErrors::QMErrorT ClientListen() override {
    char text[256];
    DWORD count = 0;
    const QMErrors::QMErrorT result = Receive(text, sizeof text, count, 0);
    if (result == QMErrors::CommandTimedOut) return QMErrors::NoError;  // nothing there
    if (result != QMErrors::NoError) return result;
    return Send(("you said: " + std::string(text, count)).c_str());
  }
};

class ServerC : public CQMServerSocket {
 public:
  ServerC() : CQMServerSocket("Greeter", 0, nullptr, 0) {}  // any port that is free
  ~ServerC() override { stop(); }
  QMErrors::QMErrorT Notify(ServerStateT) override { return QMErrors::NoError; }

 protected:
  QMErrors::QMErrorT CreateNewConnection(unsigned socket) override {
    return Begin(new (std::nothrow) SessionC(this, socket));  // the server deletes it at its end
  }
};

class ClientC : public CQMClientSocket {
 public:
  ~ClientC() override { stop(); }
  std::atomic<bool> connected{false}, answered{false};

 protected:
  QMErrors::QMErrorT Notify(ClientStateT state) override {
    connected = state == Connected;
    return QMErrors::NoError;  // go on: the client connects anew by itself
  }
  QMErrors::QMErrorT ServerListen() override {
    char text[256];
    DWORD count = 0;
    const QMErrors::QMErrorT result = Receive(text, sizeof text, count, 1000);
    if (result == QMErrors::CommandTimedOut) return QMErrors::NoError;
    std::printf("%.*s", static_cast<int>(count), text);  // you said: load plate 17
    answered = count != 0;
    return result;
  }
};

int main() {
  // Errors only.
  const QMLogStreamC errorsOnly(nullptr, nullptr, nullptr, [] { return 1u; });
  ServerC server;
  server.start();
  while (server.GetSocket() == ServerC::kNoSocket && server.IsAlive()) server.Sleep(1);

  ClientC client;
  client.SetHost("localhost", server.GetPort());  // starts the thread
  while (!client.connected) client.Sleep(1);
  client.Send("load plate 17\n");
  while (!client.answered) client.Sleep(1);
  return 0;
}
