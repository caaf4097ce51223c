#include "qmutils/transport/CQMServerSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "qmutils/transport/CQMServerConnection.h"
#include "tests/support/LogCapture.h"
#include "tests/transport/Loopback.h"

namespace {

using namespace std::chrono_literals;
using qmtest::eventually;
using qmtest::LogCapture;
using qmtest::PlainSocket;
using std::chrono::steady_clock;

DWORD exitCodeOf(QMThreadC& thread) {
  DWORD code = 0;
  EXPECT_EQ(qm::platform::wait(thread.GetThread(), 30000), WAIT_OBJECT_0);
  EXPECT_TRUE(qm::platform::threadExitCode(thread.GetThread(), &code));
  return code;
}

/// Answers each line with itself.
class EchoServer : public CQMServerSocket {
 public:
  class Connection : public CQMServerConnection {
   public:
    Connection(EchoServer* server, unsigned socket)
        : CQMServerConnection(server, socket, 0), server_(*server) {
      ++server_.living;
    }
    ~Connection() override {
      (void)stop();
      --server_.living;
    }

   protected:
    QMErrors::QMErrorT ClientListen() override {
      char text[256];
      DWORD count = 0;
      const QMErrors::QMErrorT received = Receive(text, sizeof text, count, 0);
      if (received == QMErrors::CommandTimedOut) return QMErrors::NoError;
      if (received != QMErrors::NoError) return received;
      pending_.append(text, count);
      for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
        ++server_.lines;
        const std::string line = pending_.substr(0, end + 1);
        pending_.erase(0, end + 1);
        if (line == "leave\n") return static_cast<QMErrors::QMErrorT>(99);
        if (line == "clean up\n") return CleanUp();
        const QMErrors::QMErrorT sent = Send(line.c_str());
        if (sent != QMErrors::NoError) return sent;
      }
      return QMErrors::NoError;
    }

   private:
    EchoServer& server_;
    std::string pending_;
  };

  explicit EchoServer(unsigned short port = 0, void* userEvent = nullptr)
      : CQMServerSocket("Echo", port, userEvent, 0) {}
  ~EchoServer() override { (void)stop(); }

  QMErrors::QMErrorT Notify(ServerStateT) override {
    ++notified;
    return QMErrors::NoError;
  }
  bool begin() {
    return start() == QMErrors::NoError && eventually([this] { return GetSocket() != kNoSocket; });
  }

  std::atomic<int> living{0}, lines{0}, idle{0}, notified{0};
  std::atomic<CQMServerConnection*> newest{nullptr};
  std::atomic<int> refusal{0};  ///< what CreateNewConnection() gives instead of a connection

 protected:
  QMErrors::QMErrorT CreateNewConnection(unsigned socket) override {
    if (refusal != 0) {
      CloseConnection(socket);
      return static_cast<QMErrors::QMErrorT>(refusal.load());
    }
    auto* const connection = new Connection(this, socket);
    newest = connection;
    return Begin(connection);
  }
  QMErrors::QMErrorT ServerIdle() override {
    ++idle;
    return QMErrors::NoError;
  }
};

TEST(CQMServerSocket, EndsWhenItCannotServe) {
  LogCapture log(1);
  CQMServerSocket bare("bare", 0, nullptr, 0);
  ASSERT_EQ(bare.start(), QMErrors::NoError);
  EXPECT_EQ(exitCodeOf(bare), 2115u);
  EXPECT_EQ(log.text(), "");

  const PlainSocket listener = PlainSocket::listening();
  EchoServer late(listener.port());
  ASSERT_EQ(late.start(), QMErrors::NoError);
  EXPECT_EQ(exitCodeOf(late), 10048u | 0x20000000u);
  EXPECT_EQ(
      log.text(),
      " ERROR: CQMServerSocket::run(): Failed [ bind() ] with error: Error: 10048 (0x2740) The "
      "socket address is already in use.\n");
  EXPECT_EQ(late.GetSocket(), EchoServer::kNoSocket);

  log.clear();
  EchoServer refusing;
  refusing.refusal = 2001;
  ASSERT_TRUE(refusing.begin());
  const PlainSocket client = PlainSocket::connected(refusing.GetPort());
  EXPECT_EQ(exitCodeOf(refusing), 2001u);
  EXPECT_EQ(client.read(), "") << "the client is not left waiting";
  EXPECT_EQ(refusing.notified, 2);
  EXPECT_EQ(log.text(), " ERROR: CQMServerSocket::run(): CreateNewConnection() failed\n");
}

TEST(CQMServerSocket, TheDefaultConnectionHasNothingToSay) {
  class PlainServer : public CQMServerSocket {
   public:
    PlainServer() : CQMServerSocket("plain", 0, nullptr, 0) {}
    ~PlainServer() override { (void)stop(); }
    QMErrors::QMErrorT Notify(ServerStateT) override { return QMErrors::NoError; }
  };
  LogCapture log(2);
  PlainServer server;
  ASSERT_EQ(server.start(), QMErrors::NoError);
  ASSERT_TRUE(eventually([&] { return server.GetSocket() != PlainServer::kNoSocket; }));
  const PlainSocket client = PlainSocket::connected(server.GetPort());
  EXPECT_EQ(client.read(), "");
  EXPECT_TRUE(
      eventually([&] { return log.contains("CQMServerConnection::run(): exiting with: "); }));
  for (const char* line :
       {"CQMServerSocket::run(): Server is about to start\n",
        "CQMServerSocket::run(): Waiting for connection...\n",
        "CQMServerSocket::run(): Connecting to socket.\n",
        "CQMServerSocket::CreateNewConnection(): created new connection.\n",
        "CQMServerConnection::ShowConnection():  connected on port: 0\n",
        "CQMServerConnection::run(): lost connection\n",
        "CQMServerConnection::ShowConnection():  disconnected on port: 0\n",
        "CQMServerConnection::run(): exiting with: No method body code: 2115\n"}) {
    EXPECT_TRUE(log.contains(std::string(" INFO: ") + line)) << line;
  }
  EXPECT_EQ(server.stop(), QMErrors::NoError);
  EXPECT_TRUE(log.contains(" INFO: CQMServerSocket::run(): Server is about to stop\n"));
}

TEST(CQMServerSocket, ServesManyClientsAtOnceAndLosesNothing) {
  const LogCapture log(1);
  constexpr int kClients = 100, kLines = 50;
  EchoServer server;
  ASSERT_TRUE(server.begin());
  std::vector<std::thread> clients;
  std::atomic<int> complete{0};
  for (int number = 0; number < kClients; ++number) {
    clients.emplace_back([&, number] {
      PlainSocket client = PlainSocket::connected(server.GetPort());
      std::string all;
      for (int i = 0; i < kLines; ++i) {
        all += "client " + std::to_string(number) + " line " + std::to_string(i) + "\n";
      }
      if (!client.write(all)) return;
      if (number % 2 == 0) {
        if (client.read(all.size()) == all) ++complete;
      } else {
        ::shutdown(client.number(), SHUT_WR);  // has said everything, and is still served
        if (client.read() == all) ++complete;
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(complete, kClients);
  EXPECT_EQ(server.lines, kClients * kLines);
  EXPECT_TRUE(eventually([&] { return server.living == 0; })) << "those that have left are deleted";
  EXPECT_EQ(log.text(), "");
}

TEST(CQMServerSocket, IsIdleOncePerSecondOrWhenAskedAndNeverLateForAClient) {
  const HANDLE asked = qm::platform::createEvent(false, false);
  EchoServer server(0, asked);
  ASSERT_TRUE(server.begin());
  ASSERT_TRUE(eventually([&] { return server.idle >= 1; })) << "by itself";
  const auto start = steady_clock::now();
  const int before = server.idle;
  for (int i = 1; i <= 5; ++i) {
    qm::platform::setEvent(asked);
    ASSERT_TRUE(eventually([&] { return server.idle >= before + i; }));
    const PlainSocket client = PlainSocket::connected(server.GetPort());
    EXPECT_TRUE(client.write("hello\n"));
    EXPECT_EQ(client.line(), "hello\n");
  }
  EXPECT_LT(steady_clock::now() - start, 3s) << "ten waits of a second each otherwise";
  EXPECT_EQ(server.stop(), QMErrors::NoError);
}

TEST(CQMServerSocket, AnUnusableUserEventIsTold) {
  const HANDLE closed = qm::platform::createEvent(false, false);
  qm::platform::closeHandle(closed);
  LogCapture log(1);
  EchoServer server(0, closed);
  ASSERT_TRUE(server.begin());
  EXPECT_TRUE(eventually([&] { return server.idle > 0; }));
  EXPECT_TRUE(
      log.contains(" WARNING: CQMServerSocket::run(): failed waiting on m_hUserEventError: 6 "));
  EXPECT_EQ(server.stop(), QMErrors::NoError);
}

TEST(CQMServerSocket, StopsWithManyIdleClientsAndStartsAgain) {
  constexpr int kClients = 200;
  const LogCapture log(1);
  EchoServer server;
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(server.begin());
    std::vector<PlainSocket> clients;
    for (int i = 0; i < kClients; ++i) {
      clients.push_back(PlainSocket::connected(server.GetPort()));
      EXPECT_TRUE(clients.back().write("hello\n"));
    }
    for (const PlainSocket& client : clients) ASSERT_EQ(client.line(), "hello\n");
    EXPECT_EQ(server.living, kClients);
    const auto start = steady_clock::now();
    EXPECT_EQ(server.stop(), QMErrors::NoError);
    EXPECT_LT(steady_clock::now() - start, 2s);
    EXPECT_EQ(server.living, 0);
    EXPECT_EQ(server.stop(), QMErrors::NoError) << "nothing is left to be stopped";
    for (const PlainSocket& client : clients) EXPECT_EQ(client.read(), "");
  }
}

// A client that is dropped comes again at once; none may be served by a server that has stopped.
TEST(CQMServerSocket, StopsWhileClientsKeepComing) {
  const LogCapture log(1);
  for (int round = 0; round < 10; ++round) {
    EchoServer server;
    ASSERT_TRUE(server.begin());
    std::atomic<bool> enough{false};
    std::vector<std::thread> clients;
    for (int i = 0; i < 10; ++i) {
      clients.emplace_back([&, port = server.GetPort()] {
        while (!enough) {
          const PlainSocket client;
          if (client.connect(port) && client.write("hello\n")) (void)client.read();
        }
      });
    }
    ASSERT_TRUE(eventually([&] { return server.living >= 10; }));
    EXPECT_EQ(server.stop(), QMErrors::NoError);
    EXPECT_EQ(server.living, 0);
    enough = true;
    for (std::thread& client : clients) client.join();
  }
}

TEST(CQMServerSocket, ConnectionsEndInEveryWay) {
  LogCapture log(2);
  EchoServer server;
  ASSERT_TRUE(server.begin());
  const auto connect = [&] {
    PlainSocket client = PlainSocket::connected(server.GetPort());
    EXPECT_TRUE(client.write("hello\n"));
    EXPECT_EQ(client.line(), "hello\n");
    return client;
  };
  PlainSocket client = connect();
  client.reset();
  EXPECT_TRUE(eventually([&] { return server.living == 0; }));
  EXPECT_TRUE(log.contains("CQMServerConnection::run(): exiting with: Error: 10054 ("));

  client = connect();
  EXPECT_TRUE(client.write("leave\n"));
  EXPECT_EQ(client.read(), "");
  EXPECT_TRUE(eventually([&] { return server.living == 0; }));

  client = connect();
  EXPECT_TRUE(client.write("clean up\n"));
  EXPECT_EQ(client.read(), "") << "asked for on its own thread, it comes a little later";
  EXPECT_TRUE(eventually([&] { return server.living == 0; }));
  EXPECT_TRUE(log.contains("CQMServerConnection::run(): closing connection.\n"));

  client = connect();
  EXPECT_EQ(server.newest.load()->CleanUp(), QMErrors::NoError);
  EXPECT_EQ(server.living, 0);
  EXPECT_EQ(client.read(), "");

  // A connection that nobody has started yet goes with its socket.
  const PlainSocket listener = PlainSocket::listening();
  const PlainSocket peer = PlainSocket::connected(listener.port());
  const PlainSocket accepted = listener.accept();
  {
    const EchoServer::Connection unstarted(&server, static_cast<unsigned>(dup(accepted.number())));
  }
  EXPECT_EQ(server.living, 0);
}

}  // namespace
