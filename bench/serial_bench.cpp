// Bytes over a pseudo-terminal pair, read one at a time, against libserialport's blocking read of
// one byte in the same run. What counts is the ratio of the two.
//
// readByte...: a thread writes at the other end as fast as it can, in pieces of 1 kB.
// waitTwoSeconds: nothing comes; the processor time of the two seconds is what counts (the column
// "cpu").
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libserialport.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/transport/QMSerialCommsC.h"

namespace {

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::abort();
}

/// The two ends of a line: a name to open, and a descriptor to write to.
class Line {
 public:
  Line() : master_(posix_openpt(O_RDWR | O_NOCTTY)) {
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) fail("posix_openpt");
    termios settings;
    tcgetattr(master_, &settings);
    cfmakeraw(&settings);
    tcsetattr(master_, TCSANOW, &settings);
    fcntl(master_, F_SETFL, O_NONBLOCK);
  }
  ~Line() { close(master_); }
  std::string name() const { return ptsname(master_); }
  int master() const { return master_; }

 private:
  int master_;
};

/// Keeps a line full while it lives.
class Writer {
 public:
  explicit Writer(const Line& line) {
    thread_ = std::thread([this, &line] {
      const std::string piece(1024, 'x');
      while (!stop_) {
        if (write(line.master(), piece.data(), piece.size()) < 0) std::this_thread::yield();
      }
    });
  }
  ~Writer() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class OurPort {
 public:
  explicit OurPort(const Line& line) {
    QMSerialCommsC::QMSerialCommSpecC settings(line.name().c_str(), 115200, 8, 0, 0, 0, 4096, 4096);
    if (port_.open(settings) != QMErrors::NoError) fail("open");
  }
  bool read(DWORD timeoutMs) {
    int byte;
    return port_.getTimed(byte, timeoutMs, nullptr) == QMErrors::NoError;
  }

 private:
  QMSerialCommsC port_;
};

class PeerPort {
 public:
  explicit PeerPort(const Line& line) {
    if (sp_get_port_by_name(line.name().c_str(), &port_) != SP_OK ||
        sp_open(port_, SP_MODE_READ_WRITE) != SP_OK) {
      fail("sp_open");
    }
  }
  ~PeerPort() {
    sp_close(port_);
    sp_free_port(port_);
  }
  bool read(DWORD timeoutMs) {
    char byte;
    return sp_blocking_read(port_, &byte, 1, timeoutMs) == 1;
  }

 private:
  sp_port* port_ = nullptr;
};

template <class Port>
void readByte(benchmark::State& state) {
  const Line line;
  Port port(line);
  const Writer writer(line);
  for (auto _ : state) {
    if (!port.read(1000)) fail("read");
  }
  state.SetBytesProcessed(state.iterations());
}

template <class Port>
void waitTwoSeconds(benchmark::State& state) {
  const Line line;
  Port port(line);
  for (auto _ : state) {
    if (port.read(2000)) fail("a byte from nowhere");
  }
}

BENCHMARK(readByte<OurPort>)->Name("readByteOurs")->UseRealTime();
BENCHMARK(readByte<PeerPort>)->Name("readBytePeer")->UseRealTime();
BENCHMARK(waitTwoSeconds<OurPort>)->Name("waitTwoSecondsOurs")->Iterations(1)->UseRealTime();
BENCHMARK(waitTwoSeconds<PeerPort>)->Name("waitTwoSecondsPeer")->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // As in a program that logs errors only.
  const QMLogStreamC hooks([](unsigned, int, char*) {}, nullptr, nullptr, [] { return 1u; });
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
