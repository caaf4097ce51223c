// The test tool's commands that talk over sockets and serial lines, as a user calls them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "programs/testtool/LineExchange.h"
#include "tests/support/Program.h"
#include "tests/support/TempFolder.h"
#include "tests/transport/Loopback.h"
#include "tests/transport/PseudoTerminal.h"

namespace {

using qmtest::PlainSocket;
using qmtest::Program;
using qmtest::PseudoTerminal;

/// A server on a port of the system's choice.
struct Server {
  explicit Server(const std::string& options) : program(TESTTOOL " serve 0 " + options) {
    EXPECT_TRUE(program.awaitText(", Ctrl-C ends"));
    const std::string text = program.errors();
    const std::size_t at = text.find("port ") + 5;
    port = text.substr(at, text.find(',', at) - at);
  }
  unsigned short number() const { return static_cast<unsigned short>(std::stoi(port)); }
  Program program;
  std::string port;
};

/// A named pipe that this test holds at both ends.
struct Pipe {
  Pipe() : name(folder.file("pipe")) {
    EXPECT_EQ(mkfifo(name.c_str(), 0600), 0);
    end = open(name.c_str(), O_RDWR | O_CLOEXEC);
  }
  ~Pipe() { close(end); }
  bool isFull() const {
    pollfd look{end, POLLOUT, 0};
    return poll(&look, 1, 0) == 0;
  }
  qmtest::TempFolder folder;
  std::string name;
  int end = -1;
};

/// Lines of eight characters that tell their number.
std::string numberedLines(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += std::to_string(10'000'000 + i).substr(1) + "\n";
  return text;
}

Program command(const std::string& line) { return Program(TESTTOOL " " + line); }

TEST(ServeAndConnect, ExchangeLines) {
  Server server("--echo");
  const auto connect = [&](const std::string& input) {
    Program client("sh -c \"printf '" + input + "' | " TESTTOOL " connect localhost " +
                   server.port + " --linger 500\"");
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(client.errors(), "connected\n");
    return client.output();
  };
  EXPECT_EQ(connect("hello\\r\\nworld\\n"), "hello\nworld\n");
  EXPECT_EQ(connect("not ended"), "") << "no line yet";
  EXPECT_TRUE(server.program.awaitText("client 2 has gone"));
  EXPECT_EQ(server.program.output(), "1: hello\n1: world\n2: not ended\n");

  Program second = command("serve " + server.port);
  EXPECT_EQ(second.wait(), 1);
  EXPECT_NE(second.errors().find("Failed [ bind() ] with error: Error: 10048 "), std::string::npos);
}

TEST(ServeAndConnect, EndWhenAsked) {
  Server server("");
  Program client = command("connect --once --linger 60000 127.0.0.1 " + server.port);
  ASSERT_TRUE(client.awaitText("connected\n"));
  server.program.signal(SIGINT);
  EXPECT_EQ(server.program.wait(), 0);
  EXPECT_EQ(client.wait(), 0);
  EXPECT_EQ(client.errors(), "connected\nthe connection has ended\n");

  // Nobody is there any more.
  Program waiting = command("connect 127.0.0.1 " + server.port);
  ASSERT_TRUE(waiting.awaitText("connect() failedError: 10061 "));
  waiting.signal(SIGINT);
  EXPECT_EQ(waiting.wait(), 1);

  for (const char* wrong :
       {"serve", "serve 65536", "serve 1 2", "serve --log", "connect", "connect a", "connect a 0",
        "connect a 1 --linger x", "serial", "serial a b", "serial a --baud 0",
        "serial a --parity some", "serial a --nothing 1", "serve '' 5000", "serial '' a"}) {
    EXPECT_EQ(command(wrong).wait(), 2) << wrong;
  }
}

TEST(ServeAndConnect, EndWhileNobodyReadsWhatTheyPrint) {
  const Pipe served, connected;
  const std::string text = numberedLines(400'000);
  qmtest::writeFile(served.folder.file("text"), text);
  Server echo("--echo");
  Server server(">" + served.name);
  const std::string input = " --linger 60000 <" + served.folder.file("text");
  Program talker = command("connect 127.0.0.1 " + server.port + input);
  Program client = command("connect 127.0.0.1 " + echo.port + input + " >" + connected.name);
  ASSERT_TRUE(qmtest::await([&] { return served.isFull() && connected.isFull(); }));
  const auto begin = std::chrono::steady_clock::now();
  for (Program* program : {&server.program, &client}) {
    program->signal(SIGTERM);
    EXPECT_GE(program->wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  }
}

TEST(ServeAndConnect, ConnectTellsThatTextWasLostAndGoesOnWithAWholeLine) {
  const qmtest::TempFolder folder;
  const std::string text = numberedLines(3'000'000);
  qmtest::writeFile(folder.file("text"), text);
  const PlainSocket listener = PlainSocket::listening();
  const std::string line = "connect 127.0.0.1 " + std::to_string(listener.port()) + " <" +
                           folder.file("text") + " --linger 0 ";
  Program once = command(line + "--once");
  PlainSocket lost = listener.accept();
  EXPECT_EQ(lost.read(1), "0");
  lost.reset();
  EXPECT_EQ(once.wait(), 1);
  EXPECT_NE(once.errors().find("testtool connect: not all was sent\n"), std::string::npos);

  Program again = command(line);
  PlainSocket first = listener.accept();
  ASSERT_EQ(first.read(100'001).size(), 100'001U);
  first.reset();
  const std::string rest = listener.accept().read();
  ASSERT_GT(rest.size(), 8U);
  EXPECT_EQ(rest.find('\n'), 7U) << rest.substr(0, 8);
  EXPECT_TRUE(text.ends_with(rest));
  EXPECT_EQ(again.wait(), 1);
  EXPECT_NE(again.errors().find("testtool connect: not all was sent\n"), std::string::npos);
}

TEST(ServeAndConnect, AClientThatDoesNotReadHoldsUpNobody) {
  const Pipe input;
  Server server("<" + input.name);
  const PlainSocket deaf = PlainSocket::connected(server.number());
  ASSERT_TRUE(server.program.awaitText("client 1 has come"));
  const PlainSocket client = PlainSocket::connected(server.number());
  ASSERT_TRUE(server.program.awaitText("client 2 has come"));
  const std::string text = numberedLines(100'000);
  while (server.program.errors().find("client 1 does not read and is dropped\n") ==
         std::string::npos) {
    ASSERT_EQ(write(input.end, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ASSERT_TRUE(client.read(text.size()) == text) << "what others get is whole";
  }
  EXPECT_TRUE(server.program.awaitText("client 1 has gone\n"));
}

TEST(ServeAndConnect, LongLinesAreCutAndComeBackAsTheyWere) {
  constexpr std::size_t longest = 65'536;
  const std::string full(longest, 'a'), more(longest + 1, 'b'), two(2 * longest, 'c');
  const std::string text = full + "\r\n" + more + "\n\n" + two + "\n" + full + "\rx\n";
  programs::LineCollector collector;
  std::string seen;
  for (const char c : text) {
    for (const auto& line : collector.add({&c, 1})) {
      seen += std::to_string(line.text.size()) + (line.ended ? ". " : "+ ");
    }
  }
  EXPECT_EQ(seen, "65536. 65536+ 1. 0. 65536+ 65536. 65536+ 2. ");

  Server server("--echo");
  const PlainSocket client = PlainSocket::connected(server.number());
  const std::string sent = std::string("a\0b", 3) + "\n" + full + "\n" + more + "\n";
  const std::string expected = "a?b\n" + full + "\n" + more + "\n";
  EXPECT_TRUE(client.write(sent));
  EXPECT_TRUE(client.read(expected.size()) == expected);
}

TEST(SerialCommand, ExchangesBytesUntilTheInputEndsOrTheDeviceGoes) {
  auto line = std::make_unique<PseudoTerminal>();
  Program first("sh -c \"printf 'PING\\\\r' | " TESTTOOL " serial " + line->name() +
                " --baud 250000 --linger 500\"");
  ASSERT_TRUE(first.awaitText(": Baud = 250000, Parity = 0, Data bits = 8, "));
  line->send("PONG");
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(first.output(), "PONG");
  EXPECT_EQ(line->receive(5), "PING\r");

  Program second = command("serial --linger 60000 " + line->name());
  ASSERT_TRUE(second.awaitText("Ctrl-C ends"));
  Program third = command("serial " + line->name());
  EXPECT_EQ(third.wait(), 1);
  EXPECT_NE(third.errors().find("Error: 5 (0x5) Access is denied."), std::string::npos);
  Program watch = command("serial /dev/null --watch");
  EXPECT_EQ(watch.wait(), 1);
  line.reset();
  EXPECT_EQ(second.wait(), 1);
  EXPECT_NE(second.errors().find("testtool serial: the device has gone\n"), std::string::npos);
}

}  // namespace
