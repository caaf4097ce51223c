// The test tool's commands that talk over sockets and serial lines, as a user calls them.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>

#include "tests/programs/Program.h"
#include "tests/transport/PseudoTerminal.h"

namespace {

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
  Program program;
  std::string port;
};

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
        "serial a --parity some", "serial a --nothing 1"}) {
    EXPECT_EQ(command(wrong).wait(), 2) << wrong;
  }
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
