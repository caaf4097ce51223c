#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/platform/program.h"
#include "qmutils/transport/CQMClientSocket.h"

namespace programs {
namespace {

struct Options {
  std::string host;
  unsigned port = 0;
  unsigned lingerMs = 1000;
  unsigned level = 0;
  bool once = false;
};

/// Prints the lines that arrive and sends what it is given.
class LineClientC : public CQMClientSocket {
 public:
  explicit LineClientC(Console& console)
      : CQMClientSocket("testtool connect"), link(console, "", false), m_Console(console) {}
  ~LineClientC() override { (void)stop(); }

  LineLink link;
  std::atomic<bool> wasConnected{false};
  std::atomic<bool> lost{false};  ///< a connection that there was
  std::atomic<Clock::time_point> lastArrival{Clock::now()};

 protected:
  QMErrors::QMErrorT Notify(ClientStateT state) override {
    if (state == Connected) {
      wasConnected = true;
      m_bConnected = true;
      lastArrival = Clock::now();
      link.begin();
      m_Console.note("connected");
    } else if (m_bConnected) {
      m_bConnected = false;
      link.end();
      if (!IsToldToStop()) m_Console.note("the connection has ended");
      lost = true;
    }
    return QMErrors::NoError;
  }

  QMErrors::QMErrorT ServerListen() override {
    return link.step(*this, [this](char* buffer, DWORD size, DWORD& count, DWORD ms) {
      const QMErrors::QMErrorT received = Receive(buffer, size, count, ms);
      if (count != 0) lastArrival = Clock::now();
      return received;
    });
  }

 private:
  Console& m_Console;
  bool m_bConnected = false;
};

/// Hands on what the user writes until there is a reason to leave.
void converse(LineClientC& client, Console& console, const Options& options) {
  Clock::time_point end = Clock::now();
  while (console.goesOn() && !(options.once && client.lost)) {
    client.link.outgoing.add(sendable(console.step(!client.link.outgoing.isFull())));
    const bool allDone = console.inputHasEnded() && client.wasConnected && client.link.isIdle() &&
                         console.hasWrittenAll();
    if (!allDone) end = Clock::now();
    const Clock::time_point quiet = std::max(end, client.lastArrival.load());
    if (allDone && Clock::now() - quiet > std::chrono::milliseconds(options.lingerMs)) return;
  }
}

/// Takes the arguments; what is wrong with them, or an empty text.
std::string takeArguments(const Arguments& arguments, Options& options) {
  std::vector<std::string> given;
  std::string value;
  long long number = 0;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--once") {
      options.once = true;
    } else if (arguments[i] == "--linger") {
      if (!takeValue(arguments, i, value) || !parseNumber(value, 0LL, 86'400'000LL, number)) {
        return "--linger wants a time in milliseconds";
      }
      options.lingerMs = static_cast<unsigned>(number);
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
  if (given.size() != 2) return "give a host and a port";
  if (!parseNumber(given[1], 1LL, 65535LL, number)) return "a port is 1 to 65535";
  options.host = given[0];
  options.port = static_cast<unsigned>(number);
  return {};
}

int run(const Arguments& arguments) {
  Options options;
  const std::string complaint = takeArguments(arguments, options);
  if (!complaint.empty()) return usageError(kConnectCommand, complaint);
  showLogLines(options.level);
  qm::platform::noteInterrupts();
  Console console;
  int status;
  {
    LineClientC client(console);
    if (client.SetHost(options.host.c_str(), options.port) != QMErrors::NoError) return kFailure;
    converse(client, console, options);
    console.close();
    endThread(client);
    const bool allSent = client.link.isIdle() && !client.link.hasLost();
    if (!allSent) console.note("testtool connect: not all was sent");
    status = allSent && client.wasConnected ? kSuccess : kFailure;
  }
  console.finish();
  return status;
}

}  // namespace

const Command kConnectCommand = {
    "connect", "talk to a server, line by line",
    "usage: testtool connect HOST PORT [--once] [--linger MS] [--log LEVEL]\n"
    "Sends what stands in standard input to a TCP server and prints the lines that come back. "
    "While "
    "the\n"
    "server cannot be reached it tries again once a second. Ctrl-C ends; so does the end of the "
    "input,\n"
    "once all is sent and nothing has come for a while.\n"
    "  --once       do not connect again when the connection has ended\n"
    "  --linger MS  how long nothing must come after the end of the input (1000)\n"
    "  --log LEVEL  print the library's log lines up to this level (0: errors and warnings)\n",
    run};

}  // namespace programs
