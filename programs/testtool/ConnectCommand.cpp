#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/platform/program.h"
#include "qmutils/platform/standard_input.h"
#include "qmutils/transport/CQMClientSocket.h"

namespace programs {
namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD kListenMs = 20;  // between two looks at what there is to send
constexpr DWORD kInputMs = 50;

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
  LineClientC() : CQMClientSocket("testtool connect") {}
  ~LineClientC() override { (void)stop(); }

  TextQueue outgoing;
  std::atomic<bool> wasConnected{false};
  std::atomic<bool> lost{false};  ///< a connection that there was
  std::atomic<bool> sending{false};
  std::atomic<Clock::time_point> lastArrival{Clock::now()};

 protected:
  QMErrors::QMErrorT Notify(ClientStateT state) override {
    if (state == Connected) {
      wasConnected = true;
      m_bConnected = true;
      lastArrival = Clock::now();
      std::fputs("connected\n", stderr);
    } else if (m_bConnected) {
      m_bConnected = false;
      lost = true;
      const std::string rest = m_Lines.rest();
      if (!rest.empty()) printLine("", rest);
      if (!IsToldToStop()) std::fputs("the connection has ended\n", stderr);
    }
    return QMErrors::NoError;
  }

  QMErrors::QMErrorT ServerListen() override {
    sending = true;
    const std::string text = outgoing.take();
    const QMErrors::QMErrorT sent = Send(text.c_str());
    sending = false;
    if (sent != QMErrors::NoError) return sent;
    char piece[4096];
    DWORD count = 0;
    const QMErrors::QMErrorT received = Receive(piece, sizeof piece, count, kListenMs);
    if (count != 0) lastArrival = Clock::now();
    for (const std::string& line : m_Lines.add({piece, count})) printLine("", line);
    return received == QMErrors::CommandTimedOut ? QMErrors::NoError : received;
  }

 private:
  LineCollector m_Lines;
  bool m_bConnected = false;
};

/// Hands on what the user writes until there is a reason to leave.
void converse(LineClientC& client, const Options& options) {
  bool inputEnded = false;
  Clock::time_point end;
  while (!qm::platform::interrupted() && !outputHasFailed() && !(options.once && client.lost)) {
    if (inputEnded || client.outgoing.size() > kFullQueue) {
      (void)client.SleepEx(kInputMs, false);
    } else {
      char text[4096];
      const long count = qm::platform::readStandardInput(text, sizeof text, kInputMs);
      if (count > 0) {
        // A text ends at a NUL, so none is sent.
        std::replace(text, text + count, '\0', '?');
        client.outgoing.add({text, static_cast<std::size_t>(count)});
      }
      inputEnded = count == 0;
      end = Clock::now();
    }
    const bool allSent = client.outgoing.size() == 0 && !client.sending && client.wasConnected;
    if (!allSent) end = Clock::now();
    const Clock::time_point quiet = std::max(end, client.lastArrival.load());
    if (inputEnded && Clock::now() - quiet > std::chrono::milliseconds(options.lingerMs)) return;
  }
}

int run(const Arguments& arguments) {
  Options options;
  std::string value;
  long long number = 0;
  std::vector<std::string> given;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--once") {
      options.once = true;
    } else if (arguments[i] == "--linger") {
      if (!takeValue(arguments, i, value) || !parseNumber(value, 0LL, 86'400'000LL, number)) {
        return usageError(kConnectCommand, "--linger wants a time in milliseconds");
      }
      options.lingerMs = static_cast<unsigned>(number);
    } else if (arguments[i] == "--log") {
      if (!takeValue(arguments, i, value) || !parseNumber(value, 0LL, 99LL, number)) {
        return usageError(kConnectCommand, "--log wants a level, 0 to 99");
      }
      options.level = static_cast<unsigned>(number);
    } else if (arguments[i].starts_with("-")) {
      return usageError(kConnectCommand, "unknown argument '" + arguments[i] + "'");
    } else {
      given.push_back(arguments[i]);
    }
  }
  if (given.size() != 2) return usageError(kConnectCommand, "give a host and a port");
  if (!parseNumber(given[1], 1LL, 65535LL, number)) {
    return usageError(kConnectCommand, "a port is 1 to 65535");
  }
  showLogLines(options.level);
  qm::platform::noteInterrupts();
  LineClientC client;
  if (client.SetHost(given[0].c_str(), static_cast<unsigned>(number)) != QMErrors::NoError) {
    return kFailure;
  }
  converse(client, options);
  (void)client.stop();
  if (client.outgoing.size() != 0) {
    std::fputs("testtool connect: not all was sent\n", stderr);
    return kFailure;
  }
  return client.wasConnected ? kSuccess : kFailure;
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
