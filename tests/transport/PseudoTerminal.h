// A pseudo-terminal: one end is the serial port under test, the other the device at its far end.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "qmutils/transport/QMSerialCommsC.h"

namespace qmtest {

class PseudoTerminal {
 public:
  PseudoTerminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_TRUE(master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0);
    char name[64];
    EXPECT_EQ(ptsname_r(master_, name, sizeof name), 0);
    name_ = name;
  }
  ~PseudoTerminal() { unplug(); }
  PseudoTerminal(const PseudoTerminal&) = delete;
  PseudoTerminal& operator=(const PseudoTerminal&) = delete;

  const std::string& name() const { return name_; }
  QMSerialCommsC::QMSerialCommSpecC settings(unsigned stopBits = 0, unsigned flow = 0,
                                             unsigned baud = 9600) const {
    return {name_.c_str(), baud, 8, 0, stopBits, flow, 4096, 4096};
  }

  void send(const std::string& text) const {
    EXPECT_EQ(write(master_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string receive(std::size_t size) const {
    std::string text(size, '\0');
    for (std::size_t got = 0; got < size;) {
      const ssize_t n = read(master_, text.data() + got, size - got);
      if (n <= 0) return text.substr(0, got);
      got += static_cast<std::size_t>(n);
    }
    return text;
  }
  void unplug() {
    if (master_ >= 0) close(master_);
    master_ = -1;
  }

 private:
  int master_;
  std::string name_;
};

}  // namespace qmtest
