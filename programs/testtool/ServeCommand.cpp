#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/platform/program.h"
#include "qmutils/transport/CQMServerConnection.h"
#include "qmutils/transport/CQMServerSocket.h"

namespace programs {
namespace {

constexpr DWORD kOpenMs = 10;          // between two looks whether the server listens
constexpr DWORD kStandstillMs = 2000;  // after which a client that reads nothing is dropped

/// Prints the lines of its clients, each with the number of the client.
class LineServerC : public CQMServerSocket {
 public:
  LineServerC(unsigned short port, bool echo, Console& console)
      : CQMServerSocket("testtool serve", port, nullptr, 0), m_Console(console), m_bEcho(echo) {}
  ~LineServerC() override { (void)stop(); }

  void sendToAll(const std::string& text);
  /// True when all clients have room for more. One that stands still is dropped before it keeps the
  /// others waiting for long.
  bool hasRoom();

 protected:
  QMErrors::QMErrorT Notify(ServerStateT) override { return QMErrors::NoError; }
  QMErrors::QMErrorT ServerIdle() override { return QMErrors::NoError; }
  QMErrors::QMErrorT CreateNewConnection(unsigned socket) override;

 private:
  class ConnectionC;

  Console& m_Console;
  const bool m_bEcho;
  int m_nClients = 0;  // the server's thread only
  std::mutex m_Mutex;
  std::map<int, ConnectionC*> m_Clients;  // by number, while their threads run; under the mutex
};

class LineServerC::ConnectionC : public CQMServerConnection {
 public:
  ConnectionC(LineServerC* server, unsigned socket, int number)
      : CQMServerConnection(server, socket, 0),
        m_Link(server->m_Console, std::to_string(number) + ": ", server->m_bEcho),
        m_Server(*server),
        m_nNumber(number) {}
  ~ConnectionC() override { (void)stop(); }

  TextQueue& outgoing() { return m_Link.outgoing; }
  void leave() { (void)NotifyEnd(); }

 protected:
  QMErrors::QMErrorT run() override {
    const std::string name = "client " + std::to_string(m_nNumber);
    {
      const std::lock_guard lock(m_Server.m_Mutex);
      m_Server.m_Clients[m_nNumber] = this;
    }
    m_Server.m_Console.note(name + " has come");
    const QMErrors::QMErrorT result = CQMServerConnection::run();
    {
      const std::lock_guard lock(m_Server.m_Mutex);
      m_Server.m_Clients.erase(m_nNumber);
    }
    m_Link.end();
    m_Server.m_Console.note(name + " has gone");
    return result;
  }

  QMErrors::QMErrorT ClientListen() override {
    return m_Link.step(*this, [this](char* buffer, DWORD size, DWORD& count, DWORD ms) {
      return Receive(buffer, size, count, ms);
    });
  }

 private:
  LineLink m_Link;
  LineServerC& m_Server;
  const int m_nNumber;
};

QMErrors::QMErrorT LineServerC::CreateNewConnection(unsigned socket) {
  return Begin(new ConnectionC(this, socket, ++m_nClients));
}

void LineServerC::sendToAll(const std::string& text) {
  const std::lock_guard lock(m_Mutex);
  for (auto& [number, client] : m_Clients) {
    if (!client->IsEndEventSignalled()) client->outgoing().add(text);
  }
}

bool LineServerC::hasRoom() {
  // Clients that wait for somebody to read what we print do not take anything either.
  if (m_Console.isFull()) return false;
  const std::lock_guard lock(m_Mutex);
  bool allHaveRoom = true;
  for (auto& [number, client] : m_Clients) {
    if (!client->outgoing().isFull() || client->IsEndEventSignalled()) continue;
    if (client->outgoing().hasStoodStill(kStandstillMs)) {
      m_Console.note("client " + std::to_string(number) + " does not read and is dropped");
      client->leave();
    } else {
      allHaveRoom = false;
    }
  }
  return allHaveRoom;
}

struct Options {
  unsigned short port = 0;
  unsigned level = 0;
  bool echo = false;
};

/// Takes the arguments; what is wrong with them, or an empty text.
std::string takeArguments(const Arguments& arguments, Options& options) {
  std::vector<std::string> given;
  std::string value;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--echo") {
      options.echo = true;
    } else if (arguments[i] == "--log") {
      if (!takeValue(arguments, i, value) || !parseLogLevel(value, options.level)) {
        return kLogLevelWanted;
      }
    } else if (arguments[i].starts_with("-")) {
      return "unknown argument '" + arguments[i] + "'";
    } else {
      given.push_back(arguments[i]);
    }
  }
  long long number = 0;
  if (given.size() != 1 || !parseNumber(given[0], 0LL, 65535LL, number)) {
    return "give one port, 1 to 65535, or 0 for any that is free";
  }
  options.port = static_cast<unsigned short>(number);
  return {};
}

/// Serves until an interrupt or the end of the server.
int serve(LineServerC& server, Console& console) {
  if (server.start() != QMErrors::NoError) return kFailure;
  while (console.goesOn() && server.IsAlive() && server.GetSocket() == LineServerC::kNoSocket) {
    (void)server.SleepEx(kOpenMs, false);
  }
  if (server.GetSocket() != LineServerC::kNoSocket) {
    console.note("listening on port " + std::to_string(server.GetPort()) + ", Ctrl-C ends");
  }
  while (console.goesOn() && server.IsAlive()) {
    server.sendToAll(sendable(console.step(server.hasRoom())));
  }
  return server.IsAlive() ? kSuccess : kFailure;
}

int run(const Arguments& arguments) {
  Options options;
  const std::string complaint = takeArguments(arguments, options);
  if (!complaint.empty()) return usageError(kServeCommand, complaint);
  showLogLines(options.level);
  qm::platform::noteInterrupts();
  Console console;
  int status;
  {
    LineServerC server(options.port, options.echo, console);
    status = serve(server, console);
    console.close();
    endThread(server);
  }
  console.finish();
  return status;
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
