// Locks and waits against their single-purpose peers, in one run:
//   lock scopes          std::recursive_timed_mutex
//   events, any of three a condition variable
//   semaphores           sem_t
#include <benchmark/benchmark.h>
#include <semaphore.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/platform/waitable.h"

namespace {

using namespace qm::platform;
using User = QMCriticalSectionC::QMCriticalSectionUserC;

// --- lock scopes --------------------------------------------------------------------------------

QMCriticalSectionC section;
std::recursive_timed_mutex timedMutex;
long guarded = 0;

void scopes(benchmark::State& state, DWORD timeoutMs) {
  for (auto _ : state) {
    User user(&section);
    benchmark::DoNotOptimize(user.EnterCriticalSection("bench", timeoutMs));
    benchmark::DoNotOptimize(++guarded);
  }
}

void BM_LockScopeForever(benchmark::State& state) { scopes(state, INFINITE); }
void BM_LockScopeTimed(benchmark::State& state) { scopes(state, 60000); }
BENCHMARK(BM_LockScopeForever);
BENCHMARK(BM_LockScopeTimed);
BENCHMARK(BM_LockScopeTimed)->Threads(2)->UseRealTime();

void BM_PeerTimedMutex(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(timedMutex.try_lock_for(std::chrono::seconds(60)));
    benchmark::DoNotOptimize(++guarded);
    timedMutex.unlock();
  }
}
BENCHMARK(BM_PeerTimedMutex);
BENCHMARK(BM_PeerTimedMutex)->Threads(2)->UseRealTime();

// --- events -------------------------------------------------------------------------------------

/// A partner thread that answers each signal with one of its own; the round trip is two wake-ups.
template <class Signal>
void roundTrips(benchmark::State& state, Signal& there, Signal& back) {
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      there.await();
      if (stop) return;
      back.set();
    }
  });
  for (auto _ : state) {
    there.set();
    back.await();
  }
  stop = true;
  there.set();
  partner.join();
}

struct Event {
  HANDLE handle = createEvent(false, false);
  ~Event() { closeHandle(handle); }
  void set() { setEvent(handle); }
  void await() { wait(handle, 60000); }
};

struct AnyOfThree : Event {
  HANDLE others[2] = {createEvent(false, false), createEvent(true, false)};
  ~AnyOfThree() {
    for (HANDLE other : others) closeHandle(other);
  }
  void await() {
    const HANDLE handles[] = {others[0], handle, others[1]};
    waitAny(handles, 3, 60000);
  }
};

struct Condition {
  std::mutex mutex;
  std::condition_variable changed;
  bool signalled = false;
  void set() {
    {
      const std::lock_guard guard(mutex);
      signalled = true;
    }
    changed.notify_one();
  }
  void await() {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(60), [this] { return signalled; });
    signalled = false;
  }
};

template <class Signal>
void BM_RoundTrip(benchmark::State& state) {
  Signal there;
  Signal back;
  roundTrips(state, there, back);
}
BENCHMARK(BM_RoundTrip<Event>)->UseRealTime();
BENCHMARK(BM_RoundTrip<AnyOfThree>)->UseRealTime();
BENCHMARK(BM_RoundTrip<Condition>)->UseRealTime();

// --- semaphores ---------------------------------------------------------------------------------

void BM_Semaphore(benchmark::State& state) {
  const HANDLE semaphore = createSemaphore(0, 1000);
  for (auto _ : state) {
    releaseSemaphore(semaphore, 1, nullptr);
    benchmark::DoNotOptimize(wait(semaphore, INFINITE));
  }
  closeHandle(semaphore);
}
BENCHMARK(BM_Semaphore);

void BM_PeerSemaphore(benchmark::State& state) {
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  for (auto _ : state) {
    sem_post(&semaphore);
    sem_wait(&semaphore);
  }
  sem_destroy(&semaphore);
}
BENCHMARK(BM_PeerSemaphore);

}  // namespace

BENCHMARK_MAIN();
