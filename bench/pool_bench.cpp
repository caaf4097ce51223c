// Messages between two processes: there and back, and one way as fast as they go. The peers are a
// pair of POSIX message queues and a Boost.Interprocess message queue of the pool's measures.
//
// What counts is the ratio to the peer, on two processors and on one. Left to itself the system
// flips between the two, and waking another process costs 2 us or 20, so the two processes are
// placed: each on a processor of its own where two are allowed. Compare interleaved medians:
//   pool_bench --benchmark_enable_random_interleaving=true --benchmark_repetitions=15
//   taskset -c 0 pool_bench ...
#include <benchmark/benchmark.h>
#include <mqueue.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

#include "qmutils/comms/SvComms.h"

namespace {

constexpr char kText[] = "3;135;1;4096;C:\\Jobs\\page 117.txt;";
constexpr char kQuit[] = "quit";
constexpr std::size_t kTextSize = 256;
constexpr unsigned kSlots = 200;
constexpr DWORD kLongMs = 10'000;
constexpr unsigned short kNear = 1, kFar = 2, kAbsent = 3;

std::string uniqueName(const char* what) {
  return "/qmutils-bench-" + std::to_string(::getpid()) + what;
}

/// Keeps the calling process on the `which`-th (from 0) of the processors it was allowed at start;
/// on the only one when there is no other.
void stayOnProcessor(int which) {
  static const cpu_set_t allowed = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    ::sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  which %= CPU_COUNT(&allowed);
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (!CPU_ISSET(processor, &allowed) || which-- > 0) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    ::sched_setaffinity(0, sizeof one, &one);
    return;
  }
}

/// Runs `body` in another process until it returns.
class FarProcess {
 public:
  explicit FarProcess(const std::function<void()>& body) : pid_(::fork()) {
    if (pid_ == 0) {
      stayOnProcessor(1);
      body();
      ::_exit(0);
    }
  }
  ~FarProcess() { ::waitpid(pid_, nullptr, 0); }
  FarProcess(const FarProcess&) = delete;
  FarProcess& operator=(const FarProcess&) = delete;

 private:
  pid_t pid_;
};

/// A flag that both processes see.
class SharedFlag {
 public:
  SharedFlag() {
    void* memory = ::mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    flag_ = new (memory) std::atomic<bool>(false);
  }
  ~SharedFlag() { ::munmap(flag_, sizeof *flag_); }
  SharedFlag(const SharedFlag&) = delete;
  SharedFlag& operator=(const SharedFlag&) = delete;

  void set() { *flag_ = true; }
  bool isSet() const { return flag_->load(std::memory_order_relaxed); }

 private:
  std::atomic<bool>* flag_;
};

void joinPool(unsigned short identifier) {
  ::setenv("QMUTILS_OBJECT_PREFIX", uniqueName("-").substr(1).c_str(), 1);
  if (SvOpenComms(identifier) != 0) std::abort();
}

void roundTripPool(benchmark::State& state) {
  joinPool(kNear);
  {
    FarProcess echo([] {
      if (SvOpenComms(kFar) != 0) std::abort();
      char text[kTextSize];
      while (SvReceiveMessage(text, sizeof text, kLongMs) == 0 && std::strcmp(text, kQuit) != 0) {
        SvSendMessage(text, kLongMs, kNear);
      }
    });
    char text[kTextSize];
    // The first one may come before the other process has joined, who then discards it.
    do {
      SvSendMessage(kText, kLongMs, kFar);
    } while (SvReceiveMessage(text, sizeof text, 20) != 0);
    for (std::int64_t i = 0; i < state.range(0); ++i) SvSendMessage(kText, 0, kAbsent);
    for (auto _ : state) {
      SvSendMessage(kText, kLongMs, kFar);
      if (SvReceiveMessage(text, sizeof text, kLongMs) != 0) state.SkipWithError("no answer");
    }
    SvSendMessage(kQuit, kLongMs, kFar);
  }
  SvCloseComms();
}

/// A POSIX queue, opened before the fork and used on both sides.
class PosixQueue {
 public:
  explicit PosixQueue(const char* what) : name_(uniqueName(what)) {
    mq_attr attributes = {};
    attributes.mq_maxmsg = 10;
    attributes.mq_msgsize = kTextSize;
    queue_ = ::mq_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, &attributes);
    if (queue_ == static_cast<mqd_t>(-1)) std::abort();
  }
  ~PosixQueue() {
    ::mq_close(queue_);
    ::mq_unlink(name_.c_str());
  }
  PosixQueue(const PosixQueue&) = delete;
  PosixQueue& operator=(const PosixQueue&) = delete;

  void send(const char* text) { ::mq_send(queue_, text, std::strlen(text) + 1, 0); }
  void receive(char* text) { ::mq_receive(queue_, text, kTextSize, nullptr); }

 private:
  std::string name_;
  mqd_t queue_;
};

void roundTripPosixQueues(benchmark::State& state) {
  PosixQueue there("there"), back("back");
  FarProcess echo([&] {
    char text[kTextSize];
    for (there.receive(text); std::strcmp(text, kQuit) != 0; there.receive(text)) back.send(text);
  });
  char text[kTextSize];
  for (auto _ : state) {
    there.send(kText);
    back.receive(text);
  }
  there.send(kQuit);
}

void streamPool(benchmark::State& state) {
  joinPool(kNear);
  SharedFlag stop;
  {
    FarProcess sender([&] {
      if (SvOpenComms(kFar) != 0) std::abort();
      while (!stop.isSet()) SvSendMessage(kText, 100, kNear);
    });
    char text[kTextSize];
    for (auto _ : state) {
      if (SvReceiveMessage(text, sizeof text, kLongMs) != 0) state.SkipWithError("no message");
    }
    stop.set();
  }
  SvCloseComms();
}

void streamBoostQueue(benchmark::State& state) {
  using boost::interprocess::message_queue;
  const std::string name = uniqueName("stream").substr(1);
  message_queue queue(boost::interprocess::create_only, name.c_str(), kSlots, kTextSize);
  SharedFlag stop;
  {
    FarProcess sender([&] {
      while (!stop.isSet()) {
        const auto until = boost::posix_time::microsec_clock::universal_time() +
                           boost::posix_time::milliseconds(100);
        queue.timed_send(kText, sizeof kText, 0, until);
      }
    });
    char text[kTextSize];
    message_queue::size_type size;
    unsigned priority;
    for (auto _ : state) queue.receive(text, sizeof text, size, priority);
    stop.set();
  }
  message_queue::remove(name.c_str());
}

void sendAndReceiveAlone(benchmark::State& state) {
  joinPool(kNear);
  char text[kTextSize];
  for (auto _ : state) {
    SvSendMessage(kText, kLongMs, kNear);
    SvReceiveMessage(text, sizeof text, kLongMs);
  }
  SvCloseComms();
}

void openAndClose(benchmark::State& state) {
  joinPool(kNear);
  SvCloseComms();
  for (auto _ : state) {
    SvOpenComms(kNear);
    SvCloseComms();
  }
}

// The argument: messages for an absent third that lie in the pool.
BENCHMARK(roundTripPool)->Arg(0)->Arg(10)->UseRealTime();
BENCHMARK(roundTripPosixQueues)->UseRealTime();
BENCHMARK(streamPool)->UseRealTime();
BENCHMARK(streamBoostQueue)->UseRealTime();
BENCHMARK(sendAndReceiveAlone);
BENCHMARK(openAndClose);

}  // namespace

int main(int argc, char** argv) {
  stayOnProcessor(0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
