// Plain sockets on the loopback interface, as the other side of what is tested.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace qmtest {

constexpr std::chrono::seconds kPatience{30};  // a sound run never needs that long

/// True as soon as the condition is; false when it does not become so.
inline bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

class PlainSocket {
 public:
  PlainSocket() : number_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) { setPatience(); }
  explicit PlainSocket(int number) : number_(number) { setPatience(); }
  PlainSocket(PlainSocket&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  PlainSocket& operator=(PlainSocket&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~PlainSocket() { close(); }

  int number() const { return number_; }
  void close() {
    if (number_ >= 0) ::close(std::exchange(number_, -1));
  }
  /// The peer sees a reset instead of an orderly end.
  void reset() {
    const linger now{1, 0};
    setsockopt(number_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close();
  }

  /// On a port of the system's choice.
  static PlainSocket bound() {
    PlainSocket socket;
    const sockaddr_in address = loopback(0);
    EXPECT_EQ(bind(socket.number_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
  }
  static PlainSocket listening(int backlog = 100) {
    PlainSocket listener = bound();
    EXPECT_EQ(listen(listener.number_, backlog), 0);
    return listener;
  }
  unsigned short port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(number_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }
  PlainSocket accept() const { return PlainSocket(::accept(number_, nullptr, nullptr)); }
  static PlainSocket connected(unsigned short port) {
    PlainSocket client;
    EXPECT_TRUE(client.connect(port));
    return client;
  }
  bool connect(unsigned short port) const {
    const sockaddr_in address = loopback(port);
    return ::connect(number_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  bool write(const std::string& text) const {
    return ::send(number_, text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
  }
  /// Up to and with the next line feed, or what there is before the end of the connection.
  std::string line() const {
    std::string text;
    char c;
    while (::recv(number_, &c, 1, 0) == 1) {
      text += c;
      if (c == '\n') break;
    }
    return text;
  }
  /// What comes until the end of the connection, or so many bytes.
  std::string read(std::size_t most = SIZE_MAX) const {
    std::string text;
    char buffer[65536];
    while (text.size() < most) {
      const ssize_t count = ::recv(number_, buffer, std::min(sizeof buffer, most - text.size()), 0);
      if (count <= 0) break;
      text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  static sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
  }
  void setPatience() const {
    const timeval limit{kPatience.count(), 0};
    setsockopt(number_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }

  int number_;
};

}  // namespace qmtest
