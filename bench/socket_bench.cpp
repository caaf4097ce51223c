// Texts over loopback connections, clients that come and go. The peers use the system's calls
// directly: a send loop on a blocking socket, and an accept loop with a thread for each client.
// What counts is the ratio of the two.
//
// sendText...: how many bytes a second one connection takes from Send() while the other end reads.
// clientArrives...: from connecting until the thread of the client's connection runs.
// twoHundredClients...: all connect, send a hundred lines each in turn, and leave; counted until
// every line has arrived and every connection has ended.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/transport/CQMClientSocket.h"
#include "qmutils/transport/CQMServerConnection.h"
#include "qmutils/transport/CQMServerSocket.h"

namespace {

constexpr int kClients = 200;
constexpr int kLines = 100;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::abort();
}

sockaddr_in loopback(unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

int connectTo(unsigned short port) {
  const int number = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = loopback(port);
  if (connect(number, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("connect");
  }
  return number;
}

/// Listens, and reads away what comes over the first connection.
class Drain {
 public:
  Drain() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in any = loopback(0);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) fail("bind");
    listen(listener_, 5);
    thread_ = std::thread([this] {
      const int connection = accept(listener_, nullptr, nullptr);
      std::vector<char> buffer(1 << 18);
      while (recv(connection, buffer.data(), buffer.size(), 0) > 0) {
      }
      close(connection);
    });
  }
  ~Drain() {
    thread_.join();
    close(listener_);
  }
  unsigned short port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }

 private:
  int listener_;
  std::thread thread_;
};

class SenderC : public CQMClientSocket {
 public:
  ~SenderC() override { (void)stop(); }
  std::atomic<bool> connected{false};

 protected:
  QMErrors::QMErrorT Notify(ClientStateT state) override {
    connected = state == Connected;
    return QMErrors::NoError;
  }
  QMErrors::QMErrorT ServerListen() override {
    // Nobody sends anything to it; the wait ends with the thread.
    char byte;
    DWORD count;
    return Receive(&byte, 1, count, INFINITE);
  }
};

void sendTextOurs(benchmark::State& state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
  const Drain drain;
  SenderC sender;
  if (sender.SetHost("127.0.0.1", drain.port()) != QMErrors::NoError) fail("SetHost");
  while (!sender.connected) std::this_thread::yield();
  for (auto _ : state) {
    if (sender.Send(text.c_str()) != QMErrors::NoError) fail("Send");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
  (void)sender.stop();
}

void sendTextPlain(benchmark::State& state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
  const Drain drain;
  const int connection = connectTo(drain.port());
  for (auto _ : state) {
    const char* bytes = text.c_str();
    for (std::size_t left = std::char_traits<char>::length(bytes); left != 0;) {
      const ssize_t sent = send(connection, bytes, left, MSG_NOSIGNAL);
      if (sent < 0) fail("send");
      bytes += sent;
      left -= static_cast<std::size_t>(sent);
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
  close(connection);
}

/// What the connections of either server report.
struct Tally {
  std::atomic<int> begun{0}, ended{0}, lines{0};
  void count(const char* text, long length) {
    lines += static_cast<int>(std::count(text, text + length, '\n'));
  }
};

class OurServerC : public CQMServerSocket {
 public:
  class ConnectionC : public CQMServerConnection {
   public:
    ConnectionC(OurServerC* server, unsigned socket)
        : CQMServerConnection(server, socket, 0), m_Tally(server->tally) {}
    ~ConnectionC() override { (void)stop(); }

   protected:
    QMErrors::QMErrorT run() override {
      ++m_Tally.begun;
      const QMErrors::QMErrorT result = CQMServerConnection::run();
      ++m_Tally.ended;
      return result;
    }
    QMErrors::QMErrorT ClientListen() override {
      char text[4096];
      DWORD count = 0;
      const QMErrors::QMErrorT result = Receive(text, sizeof text, count, 0);
      m_Tally.count(text, count);
      return result == QMErrors::CommandTimedOut ? QMErrors::NoError : result;
    }

   private:
    Tally& m_Tally;
  };

  OurServerC() : CQMServerSocket("Bench", 0, nullptr, 0) {
    if (start() != QMErrors::NoError) fail("start");
    while (GetSocket() == kNoSocket) std::this_thread::yield();
  }
  ~OurServerC() override { (void)stop(); }
  unsigned short port() const { return GetPort(); }
  QMErrors::QMErrorT Notify(ServerStateT) override { return QMErrors::NoError; }
  Tally tally;

 protected:
  QMErrors::QMErrorT CreateNewConnection(unsigned socket) override {
    return Begin(new ConnectionC(this, socket));
  }
};

class PlainServer {
 public:
  PlainServer() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in any = loopback(0);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) fail("bind");
    listen(listener_, 100);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
      for (int client; (client = accept(listener_, nullptr, nullptr)) >= 0;) {
        clients_.emplace_back([this, client] {
          ++tally.begun;
          char text[4096];
          for (ssize_t count; (count = recv(client, text, sizeof text, 0)) > 0;) {
            tally.count(text, count);
          }
          close(client);
          ++tally.ended;
        });
      }
    });
  }
  ~PlainServer() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    for (std::thread& client : clients_) client.join();
    close(listener_);
  }
  unsigned short port() const { return port_; }
  Tally tally;

 private:
  int listener_;
  unsigned short port_ = 0;
  std::thread thread_;
  std::vector<std::thread> clients_;
};

void await(const std::atomic<int>& value, int least) {
  while (value < least) std::this_thread::yield();
}

template <class Server>
void clientArrives(benchmark::State& state) {
  Server server;
  int clients = 0;
  for (auto _ : state) {
    const int client = connectTo(server.port());
    await(server.tally.begun, ++clients);
    state.PauseTiming();
    close(client);
    await(server.tally.ended, clients);
    state.ResumeTiming();
  }
}

template <class Server>
void twoHundredClients(benchmark::State& state) {
  Server server;
  int rounds = 0;
  const std::string line = "status of plate 4711: exposed\n";
  for (auto _ : state) {
    ++rounds;
    std::vector<int> clients;
    for (int i = 0; i < kClients; ++i) clients.push_back(connectTo(server.port()));
    for (int i = 0; i < kLines; ++i) {
      for (const int client : clients) {
        if (send(client, line.data(), line.size(), MSG_NOSIGNAL) < 0) fail("send");
      }
    }
    for (const int client : clients) close(client);
    await(server.tally.ended, rounds * kClients);
    if (server.tally.lines != rounds * kClients * kLines) fail("lines were lost");
  }
}

BENCHMARK(sendTextOurs)->Arg(64)->Arg(65536)->UseRealTime();
BENCHMARK(sendTextPlain)->Arg(64)->Arg(65536)->UseRealTime();
BENCHMARK(clientArrives<OurServerC>)->Name("clientArrivesOurs")->UseRealTime();
BENCHMARK(clientArrives<PlainServer>)->Name("clientArrivesPlain")->UseRealTime();
BENCHMARK(twoHundredClients<OurServerC>)->Name("twoHundredClientsOurs")->UseRealTime();
BENCHMARK(twoHundredClients<PlainServer>)->Name("twoHundredClientsPlain")->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // As in a program that logs errors only.
  const QMLogStreamC hooks([](unsigned, int, char*) {}, nullptr, nullptr, [] { return 1u; });
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
