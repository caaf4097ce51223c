#include "qmutils/transport/CQMClientSocket.h"

#include <gtest/gtest.h>
#include <netinet/ip.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "tests/support/LogCapture.h"
#include "tests/transport/Loopback.h"

namespace {

using namespace std::chrono_literals;
using qmtest::eventually;
using qmtest::LogCapture;
using qmtest::PlainSocket;
using std::chrono::steady_clock;

QMErrors::QMErrorT systemError(int number) {
  return static_cast<QMErrors::QMErrorT>(number | 0x20000000);
}

/// Collects what it is told and what arrives.
class Client : public CQMClientSocket {
 public:
  using CQMClientSocket::CQMClientSocket;
  ~Client() override { (void)stop(); }

  std::vector<int> states() {
    const std::lock_guard lock(mutex_);
    return states_;
  }
  bool isOnline() const { return online_; }
  std::string received() {
    const std::lock_guard lock(mutex_);
    return received_;
  }
  DWORD exitCode() {
    DWORD code = 0;
    EXPECT_EQ(qm::platform::wait(GetThread(), 30000), WAIT_OBJECT_0);
    EXPECT_TRUE(qm::platform::threadExitCode(GetThread(), &code));
    return code;
  }

  std::atomic<int> answer{0};       ///< of Notify(), behind the first
  std::atomic<bool> listens{true};  ///< ServerListen() takes what arrives
  std::atomic<int> listenResult{0};

 protected:
  QMErrors::QMErrorT Notify(ClientStateT state) override {
    const std::lock_guard lock(mutex_);
    states_.push_back(state);
    online_ = state == Connected;
    return states_.size() == 1 ? QMErrors::NoError : static_cast<QMErrors::QMErrorT>(answer.load());
  }
  QMErrors::QMErrorT ServerListen() override {
    if (listenResult != 0) return static_cast<QMErrors::QMErrorT>(listenResult.load());
    if (!listens) {
      (void)SleepEx(1, false);
      return QMErrors::NoError;
    }
    char text[100];
    DWORD count = 0;
    const QMErrors::QMErrorT result = Receive(text, sizeof text, count, 50);
    const std::lock_guard lock(mutex_);
    received_.append(text, count);
    return result == QMErrors::CommandTimedOut ? QMErrors::NoError : result;
  }

 private:
  std::mutex mutex_;
  std::vector<int> states_;
  std::string received_;
  std::atomic<bool> online_{false};
};

TEST(CQMClientSocket, WithoutBodiesEndsAtOnce) {
  CQMClientSocket client;
  EXPECT_EQ(client.GetPort(), 4660);
  EXPECT_STREQ(client.GetSafeThreadName(), "CQMClientSocket");
  EXPECT_EQ(client.SetHost("127.0.0.1", 1), QMErrors::NoError);
  EXPECT_EQ(qm::platform::wait(client.GetThread(), 30000), WAIT_OBJECT_0);
  DWORD code = 0;
  EXPECT_TRUE(qm::platform::threadExitCode(client.GetThread(), &code));
  EXPECT_EQ(code, 2115u);
}

TEST(CQMClientSocket, ConnectsTalksAndConnectsAnew) {
  LogCapture log(11);
  const PlainSocket listener = PlainSocket::listening();
  Client client("talker");
  ASSERT_EQ(client.SetHost("localhost", listener.port()), QMErrors::NoError);
  PlainSocket peer = listener.accept();
  ASSERT_TRUE(eventually([&] { return client.isOnline(); }));
  EXPECT_EQ(client.states(), (std::vector<int>{0, 0, 1}));
  EXPECT_TRUE(client.IsConnected(nullptr));
  EXPECT_EQ(client.Send("load plate 7\n"), QMErrors::NoError);
  EXPECT_EQ(peer.line(), "load plate 7\n");
  EXPECT_TRUE(peer.write("ready"));
  EXPECT_TRUE(eventually([&] { return client.received() == "ready"; }));

  peer.close();
  peer = listener.accept();
  ASSERT_TRUE(eventually([&] { return client.states().size() == 6 && client.isOnline(); }));
  EXPECT_EQ(client.states(), (std::vector<int>{0, 0, 1, 0, 0, 1}));
  EXPECT_EQ(client.stop(), QMErrors::NoError);
  EXPECT_EQ(peer.read(), "") << "the connection is closed in order";
  EXPECT_EQ(client.GetSocket(), CQMClientSocket::kNoSocket);
  EXPECT_TRUE(log.contains(" INFO: CQMClientSocket::run(): Connected\n"));
  EXPECT_TRUE(log.contains(" INFO: CQMSocketCommon::Send(): sent: load plate 7\n"));
  EXPECT_TRUE(log.contains(" INFO: CQMClientSocket::run(): disconnecting\n"));
}

TEST(CQMClientSocket, ANotificationEndsAttemptsConnectionAndThread) {
  LogCapture log;
  const PlainSocket listener = PlainSocket::listening();
  Client client;
  ASSERT_EQ(client.SetHost("127.0.0.1", listener.port()), QMErrors::NoError);
  PlainSocket peer = listener.accept();
  ASSERT_TRUE(eventually([&] { return client.isOnline(); }));
  client.listenResult = 77;
  // A server that nobody listens to is not flooded with connections.
  const auto start = steady_clock::now();
  for (int i = 0; i < 2; ++i) peer = listener.accept();
  EXPECT_GE(steady_clock::now() - start, 900ms);
  client.answer = 42;
  EXPECT_EQ(client.exitCode(), 42u);
  EXPECT_TRUE(log.contains(" INFO: CQMClientSocket::run(): lost connection\n"));
}

TEST(CQMClientSocket, HostsThatAreUnknownOrRefuse) {
  LogCapture log(1);
  Client client;
  ASSERT_EQ(client.SetHost("no-such-host.invalid", 4660), QMErrors::NoError);
  ASSERT_TRUE(eventually([&] {
    return log.contains(
        " ERROR: CQMClientSocket::run(): gethostbyname(no-such-host.invalid ) failed with error: "
        "Error: 1100");
  }));
  EXPECT_EQ(client.SetHost(nullptr, 4660), QMErrors::NoError);
  const std::vector<int> twice = {0, 3, 0, 3};
  EXPECT_TRUE(eventually([&] {
    const std::vector<int> states = client.states();
    return std::ranges::search(states, twice).size() == twice.size();
  })) << "told at each attempt";
  EXPECT_TRUE(log.contains("gethostbyname( ) failed with error: Error: 11001 ("));

  // Taken by a socket that does not listen, so nobody else can be there.
  const PlainSocket bound = PlainSocket::bound();
  const unsigned short unused = bound.port();
  EXPECT_EQ(client.SetHost("127.0.0.1", unused), QMErrors::NoError);
  EXPECT_TRUE(eventually([&] {
    return log.contains(" ERROR: CQMClientSocket::run(): connect() failedError: 10061 (");
  }));
  EXPECT_EQ(client.SetHost("127.0.0.1", 65536u + unused), QMErrors::NoError);
  EXPECT_TRUE(eventually([&] { return log.contains("connect() failedError: 10049 ("); }))
      << "no such port";
}

TEST(CQMClientSocket, IsStoppedWhileAHostDoesNotAnswer) {
  // A full queue makes the system drop further attempts.
  const PlainSocket listener = PlainSocket::listening(0);
  const PlainSocket first = PlainSocket::connected(listener.port());
  LogCapture log(1);
  Client client;
  ASSERT_EQ(client.SetHost("127.0.0.1", listener.port()), QMErrors::NoError);
  ASSERT_TRUE(eventually([&] { return client.states().size() == 2; }));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(client.states().size(), 2u) << "it waits for the answer";
  const auto start = steady_clock::now();
  EXPECT_EQ(client.stop(), QMErrors::NoError);
  EXPECT_LT(steady_clock::now() - start, 2s);
  EXPECT_EQ(log.text(), "") << "being stopped is no failure";
}

TEST(CQMSocketCommon, SendingNothingOrToNobody) {
  LogCapture log;
  CQMClientSocket never;
  EXPECT_EQ(never.Send(nullptr), QMErrors::NoError);
  EXPECT_EQ(never.Send(""), QMErrors::NoError);
  EXPECT_EQ(log.text(), " INFO: CQMSocketCommon::Send(): sent: \n");
  EXPECT_EQ(never.Send("text"), systemError(10038));
  EXPECT_TRUE(
      log.contains(" ERROR: CQMSocketCommon::Send(): send returned error: Error: 10038 "
                   "(0x2736) The handle is not a socket.\n"));
  never.SetSocket(static_cast<unsigned>(PlainSocket().number()));  // closed again
  EXPECT_EQ(never.Send("text"), systemError(10038));
  never.SetSocket(static_cast<unsigned>(::socket(AF_INET, SOCK_STREAM, 0)));
  EXPECT_EQ(never.Send("text"), systemError(10057)) << "nobody is going to connect it";
}

TEST(CQMSocketCommon, WaitsForTheConnectionBeforeItSends) {
  const PlainSocket listener = PlainSocket::listening();
  Client client;
  ASSERT_EQ(client.SetHost("no-such-host.invalid", 1), QMErrors::NoError);
  ASSERT_TRUE(eventually([&] { return client.states().size() > 2; }));
  const int number = ::socket(AF_INET, SOCK_STREAM, 0);
  client.SetSocket(static_cast<unsigned>(number));
  std::thread sender([&] { EXPECT_EQ(client.Send("at last\n"), QMErrors::NoError); });
  std::this_thread::sleep_for(50ms);
  const PlainSocket own(dup(number));
  ASSERT_TRUE(own.connect(listener.port()));
  EXPECT_EQ(listener.accept().line(), "at last\n");
  sender.join();
}

TEST(CQMSocketCommon, TellsHowAConnectionEnded) {
  const PlainSocket listener = PlainSocket::listening();
  QMErrors::QMErrorT error = systemError(1);
  CQMClientSocket socket;
  EXPECT_EQ(socket.IsConnected(&error), 0);
  EXPECT_EQ(error, systemError(10038));

  const auto connect = [&] {
    socket.CloseConnection(socket.GetSocket());
    PlainSocket own = PlainSocket::connected(listener.port());
    socket.SetSocket(static_cast<unsigned>(dup(own.number())));
    return listener.accept();
  };
  PlainSocket peer = connect();
  EXPECT_NE(socket.IsConnected(&error), 0) << "nothing to read";
  EXPECT_TRUE(peer.write("x"));
  EXPECT_TRUE(eventually([&] { return socket.IsConnected(nullptr) != 0; }));
  char byte;
  EXPECT_EQ(recv(static_cast<int>(socket.GetSocket()), &byte, 1, 0), 1) << "and not taken";
  ::shutdown(peer.number(), SHUT_WR);
  EXPECT_TRUE(eventually([&] { return socket.IsConnected(&error) == 0; }));
  EXPECT_EQ(error, QMErrors::NoError) << "closed in order, if only by half";

  peer = connect();
  peer.reset();
  EXPECT_TRUE(eventually([&] { return socket.IsConnected(&error) == 0; }));
  EXPECT_EQ(error, systemError(10054));
  EXPECT_EQ(socket.Send("text"), systemError(10054));
}

TEST(CQMSocketCommon, OptionCopyAndText) {
  LogCapture log;
  CQMClientSocket socket("press", 1234, 4);
  EXPECT_EQ(socket.GetNoTCPDelay(), 4);
  EXPECT_EQ(socket.SetNoTCPDelay(0), systemError(10038));
  EXPECT_EQ(log.text(),
            " WARNING: CQMSocketCommon::SetNoTCPDelay(): Failed to disable TCP coalescing: "
            "Error: 10038 (0x2736) The handle is not a socket.\n");
  const int number = ::socket(AF_INET, SOCK_STREAM, 0);
  socket.SetSocket(static_cast<unsigned>(number));
  EXPECT_EQ(socket.SetNoTCPDelay(0), QMErrors::NoError);
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(number, 0, 1, &value, &size), 0);
  EXPECT_EQ(value, 4) << "the flag given at construction";
  EXPECT_EQ(socket.GetNoTCPDelay(), 4);

  class CommonC : public CQMSocketCommon {
   public:
    explicit CommonC(const CQMSocketCommon& other) : CQMSocketCommon(other) {}
  } copy(socket);
  std::stringstream text;
  text << copy;
  EXPECT_EQ(text.str(),
            "CQMSocketCommon = { m_pName=press, m_nSocket=none, m_nPort=1234, m_nNoDelay=4 }");
  EXPECT_EQ(copy.InitialiseSocketUsage(), QMErrors::NoError);
}

TEST(CQMSocketCommon, ThoseWhoTestTheConnectionDoNotKeepItFromClosing) {
  const PlainSocket listener = PlainSocket::listening();
  Client client;
  ASSERT_EQ(client.SetHost("127.0.0.1", listener.port()), QMErrors::NoError);
  PlainSocket peer = listener.accept();
  ASSERT_TRUE(eventually([&] { return client.isOnline(); }));
  std::atomic<bool> enough{false};
  std::vector<std::thread> pollers;
  for (int i = 0; i < 8; ++i) {
    pollers.emplace_back([&] {
      while (!enough) (void)client.IsConnected(nullptr);
    });
  }
  const auto start = steady_clock::now();
  peer.close();
  EXPECT_TRUE(eventually([&] { return client.states().size() > 3; }));
  EXPECT_LT(steady_clock::now() - start, 5s);
  EXPECT_EQ(client.stop(), QMErrors::NoError);
  enough = true;
  for (std::thread& poller : pollers) poller.join();
}

TEST(CQMSocketCommon, SendsOfSeveralThreadsDoNotMix) {
  const LogCapture log(1);
  const PlainSocket listener = PlainSocket::listening();
  Client client;
  ASSERT_EQ(client.SetHost("127.0.0.1", listener.port()), QMErrors::NoError);
  const PlainSocket peer = listener.accept();
  ASSERT_TRUE(eventually([&] { return client.isOnline(); }));
  constexpr int kTexts = 20;
  constexpr std::size_t kLength = 300000;
  std::vector<std::thread> senders;
  for (char c : {'a', 'b', 'c'}) {
    senders.emplace_back([&client, c] {
      const std::string text(kLength, c);
      for (int i = 0; i < kTexts; ++i) EXPECT_EQ(client.Send(text.c_str()), QMErrors::NoError);
    });
  }
  for (int i = 0; i < 3 * kTexts; ++i) {
    const std::string text = peer.read(kLength);
    ASSERT_EQ(text, std::string(kLength, text.empty() ? '?' : text[0]));
  }
  for (std::thread& sender : senders) sender.join();
}

TEST(CQMSocketCommon, AStuckSendEndsWithTheThreadAndHoldsNobodyUp) {
  const PlainSocket listener = PlainSocket::listening();
  const std::string large(100'000'000, 'x');
  for (const bool stopped : {true, false}) {
    LogCapture log(1);
    Client client;
    client.listens = false;
    ASSERT_EQ(client.SetHost("127.0.0.1", listener.port()), QMErrors::NoError);
    PlainSocket peer = listener.accept();
    ASSERT_TRUE(eventually([&] { return client.isOnline(); }));
    std::atomic<bool> returned{false};
    std::thread sender([&] {
      const QMErrors::QMErrorT sent = client.Send(large.c_str());
      EXPECT_EQ(sent, stopped ? QMErrors::NoError : systemError(10054));
      returned = true;
    });
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(returned);
    EXPECT_NE(client.GetSocket(), CQMClientSocket::kNoSocket);
    EXPECT_NE(client.IsConnected(nullptr), 0);
    const auto start = steady_clock::now();
    if (stopped) {
      EXPECT_EQ(client.stop(), QMErrors::NoError);
    } else {
      client.listenResult = 5;  // the client leaves the connection by itself
    }
    sender.join();
    EXPECT_LT(steady_clock::now() - start, 2s);
    EXPECT_EQ(log.text().empty(), stopped);
  }
}

}  // namespace
