#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/platform/program.h"
#include "qmutils/platform/standard_input.h"
#include "qmutils/transport/CQMServerConnection.h"
#include "qmutils/transport/CQMServerSocket.h"

namespace programs {
namespace {

constexpr DWORD kListenMs = 20;  // between two looks at what there is to send
constexpr DWORD kInputMs = 50;

/// Prints the lines of its clients, each with the number of the client.
class LineServerC : public CQMServerSocket {
 public:
  LineServerC(unsigned short port, bool echo)
      : CQMServerSocket("testtool serve", port, nullptr, 0), m_bEcho(echo) {}
  ~LineServerC() override { (void)stop(); }

  /// What the connections are to send, by the number of the client.
  void sendToAll(std::string_view text) {
    const std::lock_guard lock(m_Mutex);
    for (auto& [number, queue] : m_Outgoing) queue->add(text);
  }
  /// The longest of the texts that wait to be sent.
  std::size_t waiting() {
    const std::lock_guard lock(m_Mutex);
    std::size_t most = 0;
    for (auto& [number, queue] : m_Outgoing) most = std::max(most, queue->size());
    return most;
  }

 protected:
  QMErrors::QMErrorT Notify(ServerStateT) override { return QMErrors::NoError; }
  QMErrors::QMErrorT ServerIdle() override { return QMErrors::NoError; }
  QMErrors::QMErrorT CreateNewConnection(unsigned socket) override;

 private:
  class ConnectionC;

  const bool m_bEcho;
  int m_nClients = 0;  // the server's thread only
  std::mutex m_Mutex;
  std::map<int, std::shared_ptr<TextQueue>> m_Outgoing;  // under the mutex
};

class LineServerC::ConnectionC : public CQMServerConnection {
 public:
  ConnectionC(LineServerC* server, unsigned socket, int number)
      : CQMServerConnection(server, socket, 0),
        m_Server(*server),
        m_nNumber(number),
        m_pOutgoing(std::make_shared<TextQueue>()) {
    const std::lock_guard lock(m_Server.m_Mutex);
    m_Server.m_Outgoing[m_nNumber] = m_pOutgoing;
  }
  ~ConnectionC() override { (void)stop(); }

 protected:
  QMErrors::QMErrorT run() override {
    const std::string prefix = std::to_string(m_nNumber) + ": ";
    std::fprintf(stderr, "client %d has come\n", m_nNumber);
    const QMErrors::QMErrorT result = CQMServerConnection::run();
    const std::string rest = m_Lines.rest();
    if (!rest.empty()) printLine(prefix, rest);
    std::fprintf(stderr, "client %d has gone\n", m_nNumber);
    const std::lock_guard lock(m_Server.m_Mutex);
    m_Server.m_Outgoing.erase(m_nNumber);
    return result;
  }

  QMErrors::QMErrorT ClientListen() override {
    const std::string text = m_pOutgoing->take();
    const QMErrors::QMErrorT sent = Send(text.c_str());
    if (sent != QMErrors::NoError) return sent;
    char piece[4096];
    DWORD count = 0;
    const QMErrors::QMErrorT received = Receive(piece, sizeof piece, count, kListenMs);
    for (const std::string& line : m_Lines.add({piece, count})) {
      printLine(std::to_string(m_nNumber) + ": ", line);
      if (m_Server.m_bEcho) m_pOutgoing->add(line.substr(0, line.find('\0')) + "\n");
    }
    return received == QMErrors::CommandTimedOut ? QMErrors::NoError : received;
  }

 private:
  LineServerC& m_Server;
  const int m_nNumber;
  const std::shared_ptr<TextQueue> m_pOutgoing;
  LineCollector m_Lines;
};

QMErrors::QMErrorT LineServerC::CreateNewConnection(unsigned socket) {
  auto connection = std::make_unique<ConnectionC>(this, socket, ++m_nClients);
  const QMErrors::QMErrorT started = connection->start();
  if (started == QMErrors::NoError) (void)connection.release();  // the server's from here on
  return started;
}

/// Hands on what the user writes, until an interrupt or the end of the server.
void converse(LineServerC& server) {
  bool inputEnded = false;
  while (!qm::platform::interrupted() && !outputHasFailed() && server.IsAlive()) {
    if (inputEnded || server.waiting() > kFullQueue) {
      (void)server.SleepEx(kInputMs, false);
      continue;
    }
    char text[4096];
    const long count = qm::platform::readStandardInput(text, sizeof text, kInputMs);
    if (count > 0) {
      // A text ends at a NUL, so none is sent.
      std::replace(text, text + count, '\0', '?');
      server.sendToAll({text, static_cast<std::size_t>(count)});
    }
    inputEnded = count == 0;
  }
}

int run(const Arguments& arguments) {
  bool echo = false;
  unsigned level = 0;
  std::string port;
  std::string value;
  long long number = 0;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--echo") {
      echo = true;
    } else if (arguments[i] == "--log") {
      if (!takeValue(arguments, i, value) || !parseNumber(value, 0LL, 99LL, number)) {
        return usageError(kServeCommand, "--log wants a level, 0 to 99");
      }
      level = static_cast<unsigned>(number);
    } else if (port.empty() && !arguments[i].starts_with("-")) {
      port = arguments[i];
    } else {
      return usageError(kServeCommand, "unknown argument '" + arguments[i] + "'");
    }
  }
  if (!parseNumber(port, 0LL, 65535LL, number)) {
    return usageError(kServeCommand, "a port is 1 to 65535, or 0 for any that is free");
  }
  showLogLines(level);
  qm::platform::noteInterrupts();
  LineServerC server(static_cast<unsigned short>(number), echo);
  if (server.start() != QMErrors::NoError) return kFailure;
  while (server.IsAlive() && server.GetSocket() == LineServerC::kNoSocket) {
    (void)server.SleepEx(1, false);
  }
  if (!server.IsAlive()) return kFailure;
  std::fprintf(stderr, "listening on port %u, Ctrl-C ends\n", unsigned{server.GetPort()});
  converse(server);
  const bool failed = !server.IsAlive();
  (void)server.stop();
  return failed ? kFailure : kSuccess;
}

}  // namespace

const Command kServeCommand = {
    "serve", "be a server that clients send lines to",
    "usage: testtool serve PORT [--echo] [--log LEVEL]\n"
    "Listens on a TCP port and prints the lines that clients send, with the number of the client "
    "before\n"
    "each. What stands in standard input goes to all clients that are there. Ctrl-C ends. Port 0 "
    "takes\n"
    "any that is free, and tells which.\n"
    "  --echo       send each line back\n"
    "  --log LEVEL  print the library's log lines up to this level (0: errors and warnings)\n",
    run};

}  // namespace programs
