// One event to ten listeners. The peer makes the same ten virtual calls under a
// std::recursive_mutex. What counts is the ratio of the two.
//
// A second thread exists and sleeps, as in every program that needs a lock: without one the C
// library locks without atomic operations. The calls stay calls: with one class of listeners in
// sight the compiler would put their bodies in their place.
#include <benchmark/benchmark.h>

#include <array>
#include <future>
#include <mutex>
#include <thread>

#include "qmutils/concurrency/QMEventMulticasterC.h"

namespace {

class IListener {
 public:
  virtual ~IListener() = default;
  virtual void OnEvent(IQMEventBase& event) = 0;
};

class CounterC : public IListener {
 public:
  [[gnu::noinline]] void OnEvent(IQMEventBase& event) override {
    benchmark::DoNotOptimize(seen = &event);
  }
  IQMEventBase* seen = nullptr;
};

using Listeners = std::array<CounterC, 10>;

void fireEvent(benchmark::State& state) {
  Listeners listeners;
  QMEventMulticasterC<IListener> multicaster;
  for (CounterC& listener : listeners) multicaster.AddListener(listener);
  IQMEventBase event;
  for (auto _ : state) benchmark::DoNotOptimize(multicaster.FireEvent(event));
}

void virtualCallsUnderMutex(benchmark::State& state) {
  Listeners listeners;
  std::array<IListener*, 10> calls;
  for (std::size_t i = 0; i < calls.size(); ++i) calls[i] = &listeners[i];
  benchmark::DoNotOptimize(calls);
  std::recursive_mutex mutex;
  IQMEventBase event;
  for (auto _ : state) {
    const std::lock_guard guard(mutex);
    for (IListener* listener : calls) listener->OnEvent(event);
  }
}

BENCHMARK(fireEvent);
BENCHMARK(virtualCallsUnderMutex);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::promise<void> end;
  std::thread sleeper([&end] { end.get_future().wait(); });
  benchmark::RunSpecifiedBenchmarks();
  end.set_value();
  sleeper.join();
}
