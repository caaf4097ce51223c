#include "qmutils/platform/waitable.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "qmutils/platform/error.h"
#include "tests/platform/Handles.h"
#include "tests/support/FakeClock.h"

namespace qm::platform {
namespace {

class Waitable : public Handles {};
class WaitableStress : public Handles {};

void join(std::vector<std::thread>& threads) {
  for (std::thread& thread : threads) thread.join();
}

TEST_F(Waitable, StaleAndForeignHandlesFailAndNeverReachAnotherObject) {
  const HANDLE stale = createEvent(true, false);
  ASSERT_TRUE(closeHandle(stale));
  std::vector<HANDLE> fresh;
  for (int i = 0; i < 3000; ++i) fresh.push_back(event(true, false));
  int local = 0;
  for (HANDLE bad : {stale, HANDLE(nullptr), HANDLE(&local), HANDLE(~0ull), HANDLE(8)}) {
    if (std::ranges::count(fresh, bad) != 0) continue;
    setLastError(0);
    EXPECT_FALSE(setEvent(bad));
    EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(resetEvent(bad) || releaseMutex(bad) || releaseSemaphore(bad, 1, nullptr));
    EXPECT_FALSE(closeHandle(bad));
    EXPECT_EQ(wait(bad, 0), WAIT_FAILED);
    const HANDLE both[] = {fresh[0], bad};
    EXPECT_EQ(waitAny(both, 2, 0), WAIT_FAILED);
    EXPECT_EQ(waitAll(both, 2, 0), WAIT_FAILED);
  }
  for (HANDLE event : fresh) {
    EXPECT_EQ(wait(event, 0), WAIT_TIMEOUT) << "a stale handle set somebody else's event";
  }

  const HANDLE event = fresh[0];
  EXPECT_FALSE(releaseMutex(event) || setEvent(mutex(false)) || resetEvent(semaphore(0, 1)));
  EXPECT_FALSE(releaseSemaphore(event, 1, nullptr));
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE) << "an object of another kind";
  setLastError(0);
  EXPECT_EQ(suspendThread(event), kAllOnes);
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
}

// The copy has one thread; whatever the others held or waited for must not trap it.
TEST_F(Waitable, AForkedCopyForgetsTheOtherThreads) {
  const HANDLE held = event(true, false), waitedFor = event(false, false);
  const HANDLE others = mutex(false), own = mutex(true);
  const HANDLE holder = thread([&]() -> DWORD {
    wait(others, kLong);
    setEvent(held);
    return wait(waitedFor, kLong);
  });
  ASSERT_EQ(wait(held, kLong), WAIT_OBJECT_0);
  const pid_t child = fork();
  if (child == 0) {
    bool sound = wait(holder, 0) == WAIT_OBJECT_0;
    sound = sound && wait(others, 0) == WAIT_ABANDONED && releaseMutex(others);
    sound = sound && releaseMutex(own);
    // Nobody is left to take the event.
    sound = sound && setEvent(waitedFor) && wait(waitedFor, 0) == WAIT_OBJECT_0;
    std::_Exit(sound ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  setEvent(waitedFor);
  EXPECT_EQ(exitCodeOf(holder), WAIT_OBJECT_0);
}

TEST_F(Waitable, SemaphoreCountsWithinItsBounds) {
  for (auto [initial, maximum] : {std::pair{-1, 1}, {2, 1}, {0, 0}}) {
    EXPECT_EQ(createSemaphore(initial, maximum), nullptr);
    EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER);
  }
  const HANDLE semaphore = this->semaphore(1, 3);
  LONG previous = -1;
  EXPECT_TRUE(releaseSemaphore(semaphore, 2, &previous));
  EXPECT_EQ(previous, 1);
  EXPECT_FALSE(releaseSemaphore(semaphore, 1, &previous));
  EXPECT_EQ(lastError(), ERROR_TOO_MANY_POSTS);
  EXPECT_FALSE(releaseSemaphore(semaphore, 0, nullptr));
  EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(wait(semaphore, 0), WAIT_OBJECT_0);
  EXPECT_EQ(wait(semaphore, 0), WAIT_TIMEOUT);
}

TEST_F(Waitable, MutexIsRecursiveAndKnowsItsOwner) {
  const HANDLE mutex = this->mutex(true);
  EXPECT_EQ(wait(mutex, 0), WAIT_OBJECT_0);
  std::thread([&] {
    EXPECT_EQ(wait(mutex, 0), WAIT_TIMEOUT);
    EXPECT_FALSE(releaseMutex(mutex));
    EXPECT_EQ(lastError(), ERROR_NOT_OWNER);
  }).join();
  EXPECT_TRUE(releaseMutex(mutex));
  std::thread([&] { EXPECT_EQ(wait(mutex, 0), WAIT_TIMEOUT); }).join();
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_FALSE(releaseMutex(mutex));
  std::thread([&] {
    EXPECT_EQ(wait(mutex, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(releaseMutex(mutex));
  }).join();
}

TEST_F(Waitable, MutexOfAnEndedThreadIsAbandonedOnce) {
  const HANDLE mutex = this->mutex(false);
  const auto takeAndEnd = [&] {
    std::thread([&] {
      EXPECT_EQ(wait(mutex, 0) & ~WAIT_ABANDONED, WAIT_OBJECT_0);
      EXPECT_EQ(wait(mutex, 0), WAIT_OBJECT_0);
    }).join();
  };
  takeAndEnd();
  EXPECT_EQ(wait(mutex, kLong), WAIT_ABANDONED);
  EXPECT_EQ(wait(mutex, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_TRUE(releaseMutex(mutex));
  takeAndEnd();
  const HANDLE both[] = {event(true, true), mutex};
  EXPECT_EQ(waitAll(both, 2, kLong), WAIT_ABANDONED_0);
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_EQ(wait(mutex, 0), WAIT_OBJECT_0);
  releaseMutex(mutex);

  // A waiter that is already asleep learns it too.
  std::atomic<bool> taken{false};
  std::thread owner([&] {
    wait(mutex, 0);
    taken = true;
    sleep(20, false);
  });
  while (!taken) sleep(0, false);
  EXPECT_EQ(wait(mutex, kLong), WAIT_ABANDONED);
  owner.join();
}

TEST_F(Waitable, ClosingAnOwnedMutexLeavesNoTrace) {
  for (int i = 0; i < 100; ++i) {
    const HANDLE mutex = createMutex(true);
    EXPECT_TRUE(closeHandle(mutex));
    EXPECT_FALSE(releaseMutex(mutex));
  }
  HANDLE closedByOther = createMutex(false);
  std::thread([&] {
    wait(closedByOther, 0);
    std::thread([&] { EXPECT_TRUE(closeHandle(closedByOther)); }).join();
  }).join();  // the owner's end must cope with the closed mutex
  EXPECT_TRUE(releaseMutex(mutex(true)));
}

TEST_F(Waitable, AnyTakesTheLowestIndexAndOnlyThat) {
  HANDLE handles[4];
  for (HANDLE& handle : handles) handle = event(false, false);
  for (int i : {3, 1, 1}) EXPECT_TRUE(setEvent(handles[i]));
  EXPECT_EQ(waitAny(handles, 4, kLong), WAIT_OBJECT_0 + 1);
  EXPECT_EQ(waitAny(handles, 4, kLong), WAIT_OBJECT_0 + 3);
  EXPECT_EQ(waitAny(handles, 4, 1), WAIT_TIMEOUT);
  EXPECT_EQ(waitAny(handles, 0, 0), WAIT_FAILED);
  EXPECT_EQ(waitAny(handles, 65, 0), WAIT_FAILED);

  // The same object twice in one wait is one object.
  const HANDLE twice[] = {handles[0], handles[0]};
  std::thread setter([&] {
    sleep(20, false);
    setEvent(handles[0]);
  });
  EXPECT_EQ(waitAny(twice, 2, kLong), WAIT_OBJECT_0);
  setter.join();
  EXPECT_EQ(wait(handles[0], 0), WAIT_TIMEOUT);
  EXPECT_EQ(waitAll(twice, 2, 0), WAIT_FAILED);
}

TEST_F(Waitable, AllTakesEverythingAtOneMomentOrNothing) {
  const HANDLE handles[] = {event(false, true), semaphore(0, 5), mutex(false)};
  const auto [event, semaphore, mutex] = handles;
  EXPECT_EQ(waitAll(handles, 3, 5), WAIT_TIMEOUT);
  EXPECT_EQ(wait(event, 0), WAIT_OBJECT_0) << "a wait that timed out must have taken nothing";

  std::atomic<DWORD> result{WAIT_FAILED};
  std::thread waiter([&] {
    result = waitAll(handles, 3, kLong);
    releaseMutex(handles[2]);
  });
  setEvent(event);
  sleep(20, false);
  EXPECT_EQ(wait(event, 0), WAIT_OBJECT_0) << "the incomplete set must stay free for others";
  releaseSemaphore(semaphore, 1, nullptr);
  sleep(5, false);
  EXPECT_EQ(result, WAIT_FAILED);
  setEvent(event);
  waiter.join();
  EXPECT_EQ(result, WAIT_OBJECT_0);
  EXPECT_EQ(wait(event, 0), WAIT_TIMEOUT);
  EXPECT_EQ(wait(semaphore, 0), WAIT_TIMEOUT);
}

TEST_F(Waitable, WaitersOutliveTheClosingOfTheHandle) {
  const HANDLE event = createEvent(true, false);
  const HANDLE waiter = thread([=] { return wait(event, 50); });
  sleep(10, false);
  EXPECT_TRUE(closeHandle(event));
  EXPECT_FALSE(setEvent(event));
  EXPECT_EQ(exitCodeOf(waiter), WAIT_TIMEOUT);
}

TEST_F(Waitable, LongTimeoutsFollowTheClockInForce) {
  qmtest::FakeClock clock;
  std::atomic<DWORD> result{WAIT_FAILED};
  const unsigned looks = clock.looks();
  std::thread waiter([&, event = event(true, false)] { result = wait(event, 86'400'000); });
  while (clock.looks() == looks) sleep(0, false);
  clock.advanceMs(86'399'000);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(result, WAIT_FAILED) << "the wait ended a second early";
  while (result == WAIT_FAILED) {
    clock.advanceMs(1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  waiter.join();
  EXPECT_EQ(result, WAIT_TIMEOUT);
}

TEST_F(WaitableStress, NoWakeUpIsLostBetweenTwoEvents) {
  const HANDLE ping = event(false, false), pong = event(false, false);
  const auto rounds = [](HANDLE set, HANDLE awaited, bool first) {
    for (int i = 0; i < 20000; ++i) {
      if (first) setEvent(set);
      ASSERT_EQ(wait(awaited, kLong), WAIT_OBJECT_0) << "round " << i;
      if (!first) setEvent(set);
    }
  };
  std::thread other(rounds, pong, ping, false);
  rounds(ping, pong, true);
  other.join();
}

TEST_F(WaitableStress, EveryUnitOfASemaphoreIsTakenOnce) {
  const HANDLE handles[] = {semaphore(0, 1'000'000), event(true, false)};
  constexpr int kUnits = 30000;
  std::atomic<int> taken{0};
  std::vector<std::thread> takers;
  for (const DWORD timeout : {kLong, DWORD{1}, kLong, DWORD{1}}) {
    takers.emplace_back([&, timeout] {
      DWORD result;
      while ((result = waitAny(handles, 2, timeout)) != WAIT_OBJECT_0 + 1) {
        if (result == WAIT_OBJECT_0) ++taken;
      }
    });
  }
  std::thread second([&] {
    for (int i = 0; i < kUnits; ++i) releaseSemaphore(handles[0], 1, nullptr);
  });
  for (int i = 0; i < kUnits / 3; ++i) releaseSemaphore(handles[0], 3, nullptr);
  second.join();
  while (taken < 2 * kUnits) sleep(1, false);
  setEvent(handles[1]);
  join(takers);
  EXPECT_EQ(taken, 2 * kUnits);
  EXPECT_EQ(wait(handles[0], 0), WAIT_TIMEOUT);
}

TEST_F(WaitableStress, PhilosophersTakeBothForksOrNone) {
  constexpr int kSeats = 5;
  HANDLE forks[kSeats];
  for (HANDLE& fork : forks) fork = mutex(false);
  std::atomic<int> eating[kSeats] = {};
  std::vector<std::thread> philosophers;
  for (int seat = 0; seat < kSeats; ++seat) {
    philosophers.emplace_back([&, left = seat, right = (seat + 1) % kSeats] {
      const HANDLE both[] = {forks[left], forks[right]};
      for (int meal = 0; meal < 1000; ++meal) {
        ASSERT_EQ(waitAll(both, 2, kLong), WAIT_OBJECT_0);
        for (int side : {left, right}) ASSERT_EQ(eating[side]++, 0);
        for (int side : {left, right}) --eating[side];
        for (HANDLE fork : both) releaseMutex(fork);
      }
    });
  }
  join(philosophers);
}

TEST_F(WaitableStress, OneSetWakesEveryWaiterOfAManualEvent) {
  constexpr int kWaiters = 150;  // more than one batch of wake-ups
  const HANDLE event = this->event(true, false);
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] { woken += wait(event, kLong) == WAIT_OBJECT_0 ? 1 : 0; });
  }
  sleep(30, false);
  setEvent(event);
  join(waiters);
  EXPECT_EQ(woken, kWaiters);
  EXPECT_TRUE(resetEvent(event));
  EXPECT_EQ(wait(event, 1), WAIT_TIMEOUT);
}

}  // namespace
}  // namespace qm::platform
