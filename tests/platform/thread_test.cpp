#include "qmutils/platform/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "qmutils/platform/error.h"
#include "qmutils/platform/suspension_deferral.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {
namespace {

constexpr DWORD kLong = 30000;
constexpr DWORD kAllOnes = 0xFFFFFFFFu;

/// A thread that counts until it is told to stop.
struct Counter {
  std::atomic<std::uint64_t> count{0};
  std::atomic<bool> stop{false};
  HANDLE thread = nullptr;
  DWORD id = 0;

  Counter() {
    thread = startThread(
        [](void* self) -> DWORD {
          auto& counter = *static_cast<Counter*>(self);
          while (!counter.stop) ++counter.count;
          return 77;
        },
        this, &id);
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

TEST(Thread, HandleIdentifierAndExitCode) {
  DWORD seenInside = 0;
  DWORD id = 0;
  const HANDLE thread = startThread(
      [](void* seen) -> DWORD {
        *static_cast<DWORD*>(seen) = currentThreadId();
        return 0x80000001u;
      },
      &seenInside, &id);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
  EXPECT_EQ(wait(thread, 0), WAIT_OBJECT_0);
  EXPECT_EQ(seenInside, id);
  EXPECT_NE(id, currentThreadId());
  DWORD code = 0;
  EXPECT_TRUE(threadExitCode(thread, &code));
  EXPECT_EQ(code, 0x80000001u);
  EXPECT_EQ(suspendThread(thread), kAllOnes);
  EXPECT_EQ(lastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(resumeThread(thread), 0u);
  EXPECT_TRUE(closeHandle(thread));
  EXPECT_FALSE(threadExitCode(thread, &code));
}

TEST(Thread, RunsOnWhenItsHandleIsClosed) {
  const HANDLE done = createEvent(true, false);
  const HANDLE thread = startThread(
      [](void* event) -> DWORD {
        sleep(20, false);
        setEvent(event);
        return 0;
      },
      done, nullptr);
  EXPECT_TRUE(closeHandle(thread));
  EXPECT_EQ(wait(done, kLong), WAIT_OBJECT_0);
  closeHandle(done);
}

TEST(Thread, StandsStillWhileItsSuspendCountIsAboveZero) {
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

TEST(Thread, AWaitSurvivesBeingSuspended) {
  const HANDLE event = createEvent(false, false);
  const HANDLE thread =
      startThread([](void* waitedFor) -> DWORD { return wait(waitedFor, kLong); }, event, nullptr);
  for (int i = 0; i < 50; ++i) {
    suspendThread(thread);
    resumeThread(thread);
  }
  suspendThread(thread);
  setEvent(event);
  EXPECT_EQ(wait(thread, 20), WAIT_TIMEOUT);
  resumeThread(thread);
  EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
  DWORD code = 1;
  threadExitCode(thread, &code);
  EXPECT_EQ(code, WAIT_OBJECT_0);
  closeHandle(thread);
  closeHandle(event);
}

// Threads hammer the library's internal lock while they are suspended: whoever suspends them must
// always get that lock.
TEST(Thread, SuspensionNeverStopsAThreadThatHoldsTheLibrarysLock) {
  std::atomic<bool> stop{false};
  const auto hammer = [](void* stopFlag) -> DWORD {
    const HANDLE pair[] = {createEvent(false, true), createSemaphore(1, 1)};
    while (!static_cast<std::atomic<bool>*>(stopFlag)->load()) {
      waitAll(pair, 2, 0);
      setEvent(pair[0]);
      releaseSemaphore(pair[1], 1, nullptr);
    }
    closeHandle(pair[0]);
    closeHandle(pair[1]);
    return 0;
  };
  const HANDLE first = startThread(hammer, &stop, nullptr);
  const HANDLE second = startThread(hammer, &stop, nullptr);
  for (int i = 0; i < 500; ++i) {
    const HANDLE victim = i % 2 == 0 ? first : second;
    ASSERT_EQ(suspendThread(victim), 0u);
    const HANDLE event = createEvent(false, false);  // takes the lock
    setEvent(event);
    EXPECT_EQ(wait(event, kLong), WAIT_OBJECT_0);
    closeHandle(event);
    ASSERT_EQ(resumeThread(victim), 1u);
  }
  stop = true;
  for (HANDLE thread : {first, second}) {
    EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
    closeHandle(thread);
  }
}

TEST(Thread, ASuspendedThreadDoesNotTakeAWakeUpAlong) {
  struct Pair {
    HANDLE there = createEvent(false, false);
    HANDLE back = createEvent(false, false);
    std::atomic<bool> stop{false};
  } pair;
  const auto partner = [](void* argument) -> DWORD {
    auto& p = *static_cast<Pair*>(argument);
    while (wait(p.there, kLong) == WAIT_OBJECT_0 && !p.stop) setEvent(p.back);
    return 0;
  };
  const auto setter = [](void* argument) -> DWORD {
    auto& p = *static_cast<Pair*>(argument);
    while (!p.stop) {
      setEvent(p.there);
      wait(p.back, kLong);
    }
    setEvent(p.there);
    return 0;
  };
  const HANDLE threads[] = {startThread(partner, &pair, nullptr),
                            startThread(setter, &pair, nullptr)};
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(suspendThread(threads[1]), 0u);
    // Whatever the setter has begun reaches its partner, who then waits again.
    for (int look = 0; wait(pair.there, 0) == WAIT_OBJECT_0; ++look) {
      ASSERT_TRUE(setEvent(pair.there));
      ASSERT_LT(look, 10000) << "the partner sleeps on a set event";
      sleep(0, false);
    }
    ASSERT_EQ(resumeThread(threads[1]), 1u);
  }
  pair.stop = true;
  for (HANDLE thread : threads) {
    EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
    closeHandle(thread);
  }
  closeHandle(pair.there);
  closeHandle(pair.back);
}

TEST(Thread, IsSuspendedAlsoWhenItsStarterBlocksSignals) {
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

TEST(Thread, ItsEndIsSeenBehindEverythingItDoes) {
  std::atomic<bool> done{false};
  const ThreadEntry entries[] = {
      [](void* flag) -> DWORD {
        thread_local LateLocal local{static_cast<std::atomic<bool>*>(flag)};
        return local.done->load() ? 1 : 0;
      },
      [](void* flag) -> DWORD {
        thread_local LateLocal local{static_cast<std::atomic<bool>*>(flag)};
        if (local.done->load()) return 1;
        pthread_exit(nullptr);
      }};
  for (const ThreadEntry entry : entries) {
    done = false;
    const HANDLE thread = startThread(entry, &done, nullptr);
    EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
    EXPECT_TRUE(done);
    closeHandle(thread);
  }
}

TEST(Thread, SuspendsItself) {
  static std::atomic<HANDLE> own{nullptr};
  own = nullptr;
  const HANDLE thread = startThread(
      [](void*) -> DWORD {
        while (own == nullptr) sleep(0, false);
        return suspendThread(own);
      },
      nullptr, nullptr);
  own = thread;
  EXPECT_EQ(wait(thread, 20), WAIT_TIMEOUT);
  while (resumeThread(thread) == 0 && wait(thread, 0) != WAIT_OBJECT_0) sleep(1, false);
  EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
  DWORD code = kAllOnes;
  threadExitCode(thread, &code);
  EXPECT_EQ(code, 0u);
  closeHandle(thread);
}

TEST(Thread, PrioritiesAreReportedAsGiven) {
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

TEST(Thread, AlertableSleepRunsQueuedCalls) {
  static std::atomic<int> calls{0};
  calls = 0;
  const HANDLE ready = createEvent(false, false);
  const HANDLE thread = startThread(
      [](void* event) -> DWORD {
        setEvent(event);
        sleep(20, false);  // not alertable: the call waits
        const int before = calls;
        return before == 0 ? sleep(kLong, true) : 0;
      },
      ready, nullptr);
  wait(ready, kLong);
  ASSERT_TRUE(queueAsyncCall(
      thread, [](void*) { ++calls; }, nullptr));
  EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
  DWORD code = 0;
  threadExitCode(thread, &code);
  EXPECT_EQ(code, WAIT_IO_COMPLETION);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(queueAsyncCall(
      thread, [](void*) {}, nullptr));
  EXPECT_EQ(sleep(1, true), 0u);
  closeHandle(thread);
  closeHandle(ready);
}

}  // namespace
}  // namespace qm::platform
