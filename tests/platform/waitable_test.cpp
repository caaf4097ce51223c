#include "qmutils/platform/waitable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qmutils/platform/error.h"
#include "qmutils/platform/thread.h"
#include "tests/support/FakeClock.h"

namespace qm::platform {
namespace {

constexpr DWORD kLong = 30000;  // a limit that a sound run never reaches

TEST(Waitable, StaleAndForeignHandlesFailAndNeverReachAnotherObject) {
  const HANDLE stale = createEvent(true, false);
  ASSERT_TRUE(closeHandle(stale));
  std::vector<HANDLE> fresh;
  for (int i = 0; i < 3000; ++i) fresh.push_back(createEvent(true, false));
  int local = 0;
  for (HANDLE bad : {stale, HANDLE(nullptr), HANDLE(&local), HANDLE(~0ull), HANDLE(8)}) {
    const bool live = std::find(fresh.begin(), fresh.end(), bad) != fresh.end();
    if (live) continue;
    setLastError(0);
    EXPECT_FALSE(setEvent(bad));
    EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(resetEvent(bad));
    EXPECT_FALSE(releaseMutex(bad));
    EXPECT_FALSE(releaseSemaphore(bad, 1, nullptr));
    EXPECT_FALSE(closeHandle(bad));
    EXPECT_EQ(wait(bad, 0), WAIT_FAILED);
    const HANDLE both[] = {fresh[0], bad};
    EXPECT_EQ(waitAny(both, 2, 0), WAIT_FAILED);
    EXPECT_EQ(waitAll(both, 2, 0), WAIT_FAILED);
  }
  for (HANDLE event : fresh) {
    EXPECT_EQ(wait(event, 0), WAIT_TIMEOUT) << "a stale handle set somebody else's event";
    EXPECT_TRUE(closeHandle(event));
  }
}

TEST(Waitable, OperationsOfAnotherKindOfObjectFail) {
  const HANDLE event = createEvent(false, false);
  const HANDLE mutex = createMutex(false);
  const HANDLE semaphore = createSemaphore(0, 1);
  EXPECT_FALSE(releaseMutex(event));
  EXPECT_FALSE(setEvent(mutex));
  EXPECT_FALSE(resetEvent(semaphore));
  EXPECT_FALSE(releaseSemaphore(event, 1, nullptr));
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(suspendThread(event), 0xFFFFFFFFu);
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
  for (HANDLE handle : {event, mutex, semaphore}) closeHandle(handle);
}

TEST(Waitable, EventsStaySetOrAreTakenOnce) {
  const HANDLE manual = createEvent(true, true);
  EXPECT_EQ(wait(manual, 0), WAIT_OBJECT_0);
  EXPECT_EQ(wait(manual, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(resetEvent(manual));
  EXPECT_EQ(wait(manual, 1), WAIT_TIMEOUT);

  const HANDLE automatic = createEvent(false, false);
  EXPECT_TRUE(setEvent(automatic));
  EXPECT_TRUE(setEvent(automatic));
  EXPECT_EQ(wait(automatic, 0), WAIT_OBJECT_0);
  EXPECT_EQ(wait(automatic, 0), WAIT_TIMEOUT);
  closeHandle(manual);
  closeHandle(automatic);
}

TEST(Waitable, SemaphoreCountsWithinItsBounds) {
  for (auto [initial, maximum] : {std::pair{-1, 1}, {2, 1}, {0, 0}}) {
    EXPECT_EQ(createSemaphore(initial, maximum), nullptr);
    EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER);
  }
  const HANDLE semaphore = createSemaphore(1, 3);
  LONG previous = -1;
  EXPECT_TRUE(releaseSemaphore(semaphore, 2, &previous));
  EXPECT_EQ(previous, 1);
  EXPECT_FALSE(releaseSemaphore(semaphore, 1, &previous));
  EXPECT_EQ(lastError(), ERROR_TOO_MANY_POSTS);
  EXPECT_FALSE(releaseSemaphore(semaphore, 0, nullptr));
  EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(wait(semaphore, 0), WAIT_OBJECT_0);
  EXPECT_EQ(wait(semaphore, 0), WAIT_TIMEOUT);
  closeHandle(semaphore);
}

TEST(Waitable, MutexIsRecursiveAndKnowsItsOwner) {
  const HANDLE mutex = createMutex(true);
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
  closeHandle(mutex);
}

TEST(Waitable, MutexOfAnEndedThreadIsAbandonedOnce) {
  const HANDLE mutex = createMutex(false);
  const HANDLE event = createEvent(true, true);
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
  const HANDLE both[] = {event, mutex};
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
  closeHandle(mutex);
  closeHandle(event);
}

TEST(Waitable, ClosingAnOwnedMutexLeavesNoTrace) {
  for (int i = 0; i < 100; ++i) {
    const HANDLE mutex = createMutex(true);
    EXPECT_TRUE(closeHandle(mutex));
    EXPECT_FALSE(releaseMutex(mutex));
  }
  HANDLE closedByOther = createMutex(false);
  std::thread owner([&] {
    wait(closedByOther, 0);
    std::thread([&] { EXPECT_TRUE(closeHandle(closedByOther)); }).join();
  });
  owner.join();  // the owner's end must cope with the closed mutex
  const HANDLE mutex = createMutex(true);
  EXPECT_TRUE(releaseMutex(mutex));
  closeHandle(mutex);
}

TEST(Waitable, AnyTakesTheLowestIndexAndOnlyThat) {
  HANDLE handles[4];
  for (HANDLE& handle : handles) handle = createEvent(false, false);
  setEvent(handles[3]);
  setEvent(handles[1]);
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
  for (HANDLE handle : handles) closeHandle(handle);
}

TEST(Waitable, AllTakesEverythingAtOneMomentOrNothing) {
  const HANDLE event = createEvent(false, true);
  const HANDLE semaphore = createSemaphore(0, 5);
  const HANDLE mutex = createMutex(false);
  const HANDLE handles[] = {event, semaphore, mutex};
  EXPECT_EQ(waitAll(handles, 3, 5), WAIT_TIMEOUT);
  EXPECT_EQ(wait(event, 0), WAIT_OBJECT_0) << "a wait that timed out must have taken nothing";

  std::atomic<DWORD> result{WAIT_FAILED};
  std::thread waiter([&] {
    result = waitAll(handles, 3, kLong);
    releaseMutex(mutex);
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
  for (HANDLE handle : handles) closeHandle(handle);
}

TEST(Waitable, WaitersOutliveTheClosingOfTheHandle) {
  const HANDLE event = createEvent(true, false);
  std::atomic<DWORD> result{0};
  std::thread waiter([&] { result = wait(event, 50); });
  sleep(10, false);
  EXPECT_TRUE(closeHandle(event));
  EXPECT_FALSE(setEvent(event));
  waiter.join();
  EXPECT_EQ(result, WAIT_TIMEOUT);
}

TEST(Waitable, LongTimeoutsFollowTheClockInForce) {
  qmtest::FakeClock clock;
  const HANDLE event = createEvent(true, false);
  std::atomic<DWORD> result{WAIT_FAILED};
  std::atomic<bool> waiting{false};
  std::thread waiter([&] {
    waiting = true;
    result = wait(event, 86'400'000);
  });
  while (!waiting) sleep(0, false);
  clock.advanceMs(86'399'000);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(result, WAIT_FAILED) << "the wait ended a second early";
  while (result == WAIT_FAILED) {
    clock.advanceMs(1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  waiter.join();
  EXPECT_EQ(result, WAIT_TIMEOUT);
  closeHandle(event);
}

TEST(WaitableStress, NoWakeUpIsLostBetweenTwoEvents) {
  const HANDLE ping = createEvent(false, false);
  const HANDLE pong = createEvent(false, false);
  constexpr int kRounds = 20000;
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      ASSERT_EQ(wait(ping, kLong), WAIT_OBJECT_0) << "round " << i;
      setEvent(pong);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    setEvent(ping);
    ASSERT_EQ(wait(pong, kLong), WAIT_OBJECT_0) << "round " << i;
  }
  other.join();
  closeHandle(ping);
  closeHandle(pong);
}

TEST(WaitableStress, EveryUnitOfASemaphoreIsTakenOnce) {
  const HANDLE semaphore = createSemaphore(0, 1'000'000);
  const HANDLE stop = createEvent(true, false);
  constexpr int kUnits = 30000;
  std::atomic<int> taken{0};
  std::vector<std::thread> takers;
  for (int t = 0; t < 4; ++t) {
    takers.emplace_back([&, t] {
      const HANDLE handles[] = {semaphore, stop};
      for (;;) {
        const DWORD result = t % 2 == 0 ? waitAny(handles, 2, kLong) : waitAny(handles, 2, 1);
        if (result == WAIT_OBJECT_0) ++taken;
        if (result == WAIT_OBJECT_0 + 1) return;
      }
    });
  }
  std::thread second([&] {
    for (int i = 0; i < kUnits; ++i) releaseSemaphore(semaphore, 1, nullptr);
  });
  for (int i = 0; i < kUnits / 3; ++i) releaseSemaphore(semaphore, 3, nullptr);
  second.join();
  while (taken < 2 * kUnits) sleep(1, false);
  setEvent(stop);
  for (std::thread& taker : takers) taker.join();
  EXPECT_EQ(taken, 2 * kUnits);
  EXPECT_EQ(wait(semaphore, 0), WAIT_TIMEOUT);
  closeHandle(semaphore);
  closeHandle(stop);
}

TEST(WaitableStress, PhilosophersTakeBothForksOrNone) {
  constexpr int kSeats = 5;
  HANDLE forks[kSeats];
  for (HANDLE& fork : forks) fork = createMutex(false);
  std::atomic<int> eating[kSeats] = {};
  std::vector<std::thread> philosophers;
  for (int seat = 0; seat < kSeats; ++seat) {
    philosophers.emplace_back([&, seat] {
      const int left = seat;
      const int right = (seat + 1) % kSeats;
      const HANDLE both[] = {forks[left], forks[right]};
      for (int meal = 0; meal < 1000; ++meal) {
        ASSERT_EQ(waitAll(both, 2, kLong), WAIT_OBJECT_0);
        ASSERT_EQ(eating[left]++, 0);
        ASSERT_EQ(eating[right]++, 0);
        --eating[left];
        --eating[right];
        releaseMutex(forks[left]);
        releaseMutex(forks[right]);
      }
    });
  }
  for (std::thread& philosopher : philosophers) philosopher.join();
  for (HANDLE fork : forks) closeHandle(fork);
}

TEST(WaitableStress, OneSetWakesEveryWaiterOfAManualEvent) {
  constexpr int kWaiters = 150;  // more than one batch of wake-ups
  const HANDLE event = createEvent(true, false);
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      if (wait(event, kLong) == WAIT_OBJECT_0) ++woken;
    });
  }
  sleep(30, false);
  setEvent(event);
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(woken, kWaiters);
  closeHandle(event);
}

}  // namespace
}  // namespace qm::platform
