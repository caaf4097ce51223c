#include "qmutils/platform/thread.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>

#include "qmutils/platform/error.h"
#include "tests/platform/Handles.h"

namespace qm::platform {
namespace {

class Thread : public Handles {};

/// A thread that counts until it is told to stop.
struct Counter {
  std::atomic<std::uint64_t> count{0};
  std::atomic<bool> stop{false};
  HANDLE thread = nullptr;

  Counter() {
    const auto run = [](void* self) -> DWORD {
      auto& counter = *static_cast<Counter*>(self);
      while (!counter.stop) ++counter.count;
      return 77;
    };
    thread = startThread(run, this, nullptr);
  }
  ~Counter() {
    stop = true;
    while (resumeThread(thread) > 0) {
    }
    wait(thread, kLong);
    closeHandle(thread);
  }
  bool advances() {
    const std::uint64_t before = count;
    sleep(5, false);
    return count != before;
  }
};

TEST_F(Thread, HandleIdentifierAndExitCode) {
  DWORD seenInside = 0;
  DWORD id = 0;
  const auto entry = [](void* seen) -> DWORD {
    *static_cast<DWORD*>(seen) = currentThreadId();
    return 0x80000001u;
  };
  const HANDLE thread = startThread(entry, &seenInside, &id);
  EXPECT_EQ(exitCodeOf(thread), 0x80000001u);
  EXPECT_EQ(wait(thread, 0), WAIT_OBJECT_0);
  EXPECT_EQ(seenInside, id);
  EXPECT_NE(id, currentThreadId());
  EXPECT_EQ(suspendThread(thread), kAllOnes);
  EXPECT_EQ(lastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(resumeThread(thread), 0u);
  EXPECT_TRUE(closeHandle(thread));
  EXPECT_FALSE(threadExitCode(thread, &id));
}

TEST_F(Thread, RunsOnWhenItsHandleIsClosed) {
  const HANDLE done = event(true, false);
  EXPECT_TRUE(closeHandle(thread([=] {
    sleep(20, false);
    setEvent(done);
    return 0;
  })));
  EXPECT_EQ(wait(done, kLong), WAIT_OBJECT_0);
}

TEST_F(Thread, StandsStillWhileItsSuspendCountIsAboveZero) {
  Counter counter;
  while (!counter.advances()) {
  }
  EXPECT_EQ(suspendThread(counter.thread), 0u);
  EXPECT_FALSE(counter.advances());
  EXPECT_EQ(suspendThread(counter.thread), 1u);
  EXPECT_EQ(resumeThread(counter.thread), 2u);
  EXPECT_FALSE(counter.advances());
  EXPECT_EQ(resumeThread(counter.thread), 1u);
  while (!counter.advances()) {
  }
  EXPECT_EQ(resumeThread(counter.thread), 0u);
  DWORD code = 0;
  EXPECT_TRUE(threadExitCode(counter.thread, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
}

TEST_F(Thread, AWaitSurvivesBeingSuspended) {
  const HANDLE awaited = event(false, false);
  const HANDLE waiter = thread([=] { return wait(awaited, kLong); });
  for (int i = 0; i < 50; ++i) {
    suspendThread(waiter);
    resumeThread(waiter);
  }
  suspendThread(waiter);
  setEvent(awaited);
  EXPECT_EQ(wait(waiter, 20), WAIT_TIMEOUT);
  resumeThread(waiter);
  EXPECT_EQ(exitCodeOf(waiter), WAIT_OBJECT_0);
}

// Threads hammer the library's internal lock while they are suspended: whoever suspends them must
// always get that lock.
TEST_F(Thread, SuspensionNeverStopsAThreadThatHoldsTheLibrarysLock) {
  std::atomic<bool> stop{false};
  HANDLE threads[2];
  for (HANDLE& hammer : threads) {
    hammer = thread([&stop, one = event(false, true), two = semaphore(1, 1)] {
      const HANDLE pair[] = {one, two};
      while (!stop) {
        waitAll(pair, 2, 0);
        setEvent(one);
        releaseSemaphore(two, 1, nullptr);
      }
      return 0;
    });
  }
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(suspendThread(threads[i % 2]), 0u);
    const HANDLE event = createEvent(false, false);  // takes the lock
    setEvent(event);
    EXPECT_EQ(wait(event, kLong), WAIT_OBJECT_0);
    closeHandle(event);
    ASSERT_EQ(resumeThread(threads[i % 2]), 1u);
  }
  stop = true;
  for (HANDLE thread : threads) EXPECT_EQ(exitCodeOf(thread), 0u);
}

TEST_F(Thread, ASuspendedThreadDoesNotTakeAWakeUpAlong) {
  const HANDLE there = event(false, false), back = event(false, false);
  std::atomic<bool> stop{false}, stopped{false};
  const HANDLE partner = thread([&] {
    while (wait(there, kLong) == WAIT_OBJECT_0 && !stopped) setEvent(back);
    return 0;
  });
  const HANDLE setter = thread([&] {
    while (!stop) {
      setEvent(there);
      wait(back, kLong);
    }
    stopped = true;
    setEvent(there);
    return 0;
  });
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(suspendThread(setter), 0u);
    // Whatever the setter has begun reaches its partner, who then waits again.
    for (int look = 0; wait(there, 0) == WAIT_OBJECT_0; ++look) {
      ASSERT_TRUE(setEvent(there));
      ASSERT_LT(look, 10000) << "the partner sleeps on a set event";
      sleep(0, false);
    }
    ASSERT_EQ(resumeThread(setter), 1u);
  }
  stop = true;
  for (HANDLE thread : {partner, setter}) EXPECT_EQ(exitCodeOf(thread), 0u);
}

TEST_F(Thread, IsSuspendedAlsoWhenItsStarterBlocksSignals) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  Counter counter;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(suspendThread(counter.thread), 0u);
  EXPECT_FALSE(counter.advances());
}

struct LateLocal {
  std::atomic<bool>* done;
  ~LateLocal() {
    sleep(20, false);
    *done = true;
  }
};

TEST_F(Thread, ItsEndIsSeenBehindEverythingItDoes) {
  for (const bool returns : {true, false}) {
    std::atomic<bool> done{false};
    const HANDLE ended = thread([&]() -> DWORD {
      thread_local LateLocal local{&done};
      if (returns || local.done->load()) return 0;
      pthread_exit(nullptr);
    });
    EXPECT_EQ(wait(ended, kLong), WAIT_OBJECT_0);
    EXPECT_TRUE(done);
  }
}

TEST_F(Thread, SuspendsItself) {
  std::atomic<HANDLE> own{nullptr};
  const HANDLE thread = this->thread([&] {
    while (own == nullptr) sleep(0, false);
    return suspendThread(own);
  });
  own = thread;
  EXPECT_EQ(wait(thread, 20), WAIT_TIMEOUT);
  while (resumeThread(thread) == 0 && wait(thread, 0) != WAIT_OBJECT_0) sleep(1, false);
  EXPECT_EQ(exitCodeOf(thread), 0u);
}

TEST_F(Thread, PrioritiesAreReportedAsGiven) {
  Counter counter;
  EXPECT_EQ(threadPriority(counter.thread), THREAD_PRIORITY_NORMAL);
  for (int priority : {-15, -2, -1, 0, 1, 2, 15}) {
    EXPECT_TRUE(setThreadPriority(counter.thread, priority));
    EXPECT_EQ(threadPriority(counter.thread), priority);
  }
  for (int priority : {-16, -3, 3, 14, 16}) {
    EXPECT_FALSE(setThreadPriority(counter.thread, priority));
    EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER);
  }
  EXPECT_FALSE(setThreadPriority(nullptr, 0));
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
}

TEST_F(Thread, AlertableSleepRunsQueuedCalls) {
  std::atomic<int> calls{0};
  const HANDLE ready = event(false, false);
  const HANDLE sleeper = thread([&] {
    setEvent(ready);
    sleep(20, false);  // not alertable: the call waits
    return calls == 0 ? sleep(kLong, true) : 0;
  });
  const auto count = [](void* counter) { ++*static_cast<std::atomic<int>*>(counter); };
  wait(ready, kLong);
  ASSERT_TRUE(queueAsyncCall(sleeper, count, &calls));
  EXPECT_EQ(exitCodeOf(sleeper), WAIT_IO_COMPLETION);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(queueAsyncCall(sleeper, count, &calls));
  EXPECT_EQ(sleep(1, true), 0u);
}

}  // namespace
}  // namespace qm::platform
