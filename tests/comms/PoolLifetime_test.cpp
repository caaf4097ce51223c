// The life of the shared objects: who opens while others close or die must end up in one pool with
// them, never in a stale or a second one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/comms/PoolList.h"
#include "qmutils/comms/PoolNames.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/named_objects.h"
#include "tests/comms/PoolFixture.h"
#include "tests/support/FakeClock.h"

using qm::platform::Deadline;
using qmtest::Child;
using qmtest::OpenObjects;

namespace {

using PoolLifetime = qmtest::PoolTest;

/// Opens and closes until it is killed.
int churn(unsigned short identifier) {
  for (;;) {
    const int code = SvOpenComms(identifier);
    if (code != 0) return 1;
    SvCloseComms();
  }
}

constexpr unsigned short kAsker = 1, kAnswerer = 2;

int ask() {
  if (SvOpenComms(kAsker) != 0) return 1;
  char text[256];
  for (int i = 0; i < 500; ++i) {
    SvSendMessage("ping", 1000, kAnswerer);
    if (SvReceiveMessage(text, sizeof text, 20) == 0) return std::strcmp(text, "pong") == 0 ? 0 : 2;
  }
  return 3;
}

int answer() {
  if (SvOpenComms(kAnswerer) != 0) return 1;
  char text[256];
  if (SvReceiveMessage(text, sizeof text, 10'000) != 0) return 3;
  return SvSendMessage("pong", 1000, kAsker) == 0 ? 0 : 4;
}

TEST_F(PoolLifetime, WhoOpensWhileOthersDieMeetsTheRest) {
  std::mt19937 random(77);
  const auto startChurner = [](int i) {
    return Child([i] { return churn(static_cast<unsigned short>(10 + i)); });
  };
  std::vector<Child> churners;
  for (int i = 0; i < 3; ++i) churners.push_back(startChurner(i));
  int deaths = 0;
  const auto killChurner = [&](std::size_t i) {
    churners[i].kill();
    ASSERT_EQ(churners[i].wait(), 128 + 9) << "a process could not open the pool";
    ++deaths;
  };
  for (int round = 0; round < 150; ++round) {
    Child answerer(answer);
    Child asker(ask);
    for (int i = 0; i < 8; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
      const std::size_t victim = random() % churners.size();
      killChurner(victim);
      churners[victim] = startChurner(static_cast<int>(victim));
    }
    // Now and then all die at one moment.
    if (round % 3 == 0) {
      for (Child& churner : churners) churner.kill();
      for (std::size_t i = 0; i < churners.size(); ++i) {
        killChurner(i);
        churners[i] = startChurner(static_cast<int>(i));
      }
    }
    ASSERT_EQ(asker.wait(), 0) << "round " << round;
    ASSERT_EQ(answerer.wait(), 0) << "round " << round;
  }
  for (std::size_t i = 0; i < churners.size(); ++i) killChurner(i);
  EXPECT_GT(deaths, 1000);
  ASSERT_EQ(SvOpenComms(5), 0);
}

TEST_F(PoolLifetime, TheMutexIsRecursiveAndNoticesDeadOwnersUntilRepaired) {
  OpenObjects objects;
  ASSERT_TRUE(objects.open());
  const auto take = [&] { return objects.acquire(Deadline::after(5000)); };
  ASSERT_EQ(take(), WAIT_OBJECT_0);
  ASSERT_EQ(take(), WAIT_OBJECT_0);
  objects.leave();
  std::thread([&] { EXPECT_EQ(objects.tryAcquire(), WAIT_TIMEOUT); }).join();
  objects.leave();

  // Each of these dies owning it; only the last but one repairs first.
  for (int death = 0; death < 4; ++death) {
    Child child([death] {
      // Ends by _exit(), so that nothing closes.
      OpenObjects& mine = *new OpenObjects;
      mine.openMutex(Deadline::after(20'000));
      const DWORD result = mine.acquire(Deadline::after(5000));
      if (result != (death == 0 || death == 3 ? WAIT_OBJECT_0 : WAIT_ABANDONED)) return 1;
      if (death == 2) {
        mine.declareRepaired();
        mine.leave();
        return mine.acquire(Deadline::after(5000)) == WAIT_OBJECT_0 ? 0 : 2;
      }
      return 0;
    });
    EXPECT_EQ(child.wait(), 0) << "death " << death;
    if (death == 2) {
      EXPECT_EQ(take(), WAIT_ABANDONED);
      objects.declareRepaired();
      objects.leave();
    }
  }
  EXPECT_EQ(take(), WAIT_ABANDONED);
  objects.declareRepaired();
  objects.leave();
  EXPECT_EQ(take(), WAIT_OBJECT_0);
  objects.leave();
}

TEST_F(PoolLifetime, TwoGroupsOfOneProcessAreTwoUsers) {
  auto first = std::make_unique<OpenObjects>();
  OpenObjects second;
  ASSERT_TRUE(first->open());
  ASSERT_TRUE(second.open());
  qm::PoolList pool(*static_cast<qm::PoolSection*>(second.section()));
  EXPECT_TRUE(pool.isBlank());
  qm::PoolList(*static_cast<qm::PoolSection*>(first->section())).initialise();
  EXPECT_TRUE(pool.hasMagic());
  ASSERT_EQ(first->tryAcquire(), WAIT_OBJECT_0);
  std::thread([&] { EXPECT_EQ(second.tryAcquire(), WAIT_TIMEOUT); }).join();
  first->leave();
  first.reset();
  // Still open, and still the mutex that it was.
  ASSERT_EQ(second.tryAcquire(), WAIT_OBJECT_0);
  second.leave();
  EXPECT_TRUE(pool.hasMagic());
  EXPECT_EQ(sharedObjects().size(), 5u);
  second.close(false);
  EXPECT_TRUE(sharedObjects().empty());
}

TEST_F(PoolLifetime, AProgramThatEndsWithoutClosingLeavesNothing) {
  for (const bool othersAreThere : {false, true}) {
    if (othersAreThere) {
      ASSERT_EQ(SvOpenComms(5), 0);
    }
    Child child([]() -> int {
      if (SvOpenComms(6) != 0) return 1;
      std::exit(0);
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(sharedObjects().size(), othersAreThere ? 5u : 0u);
  }
  EXPECT_EQ(SvSendMessage("still there", 1000, 5), 0);
}

TEST_F(PoolLifetime, NoRingIsMissed) {
  // Each side waits for the other's ring without any look of its own: one missed ring, and a round
  // takes 100 ms.
  OpenObjects objects;
  ASSERT_TRUE(objects.open());
  constexpr int kRounds = 20'000;
  // A busy machine may hold up a thread for that long now and then.
  constexpr int kTolerated = 20;
  int turn = 0;
  std::atomic<int> timeOuts{0};
  const auto play = [&](int side) {
    for (int round = 0; round < kRounds && timeOuts < kTolerated; ++round) {
      for (;;) {
        ASSERT_EQ(objects.acquire(Deadline::after(INFINITE)), WAIT_OBJECT_0);
        if (turn == side) break;
        const auto number = static_cast<std::uint16_t>(side);
        const std::uint32_t expectation = objects.expectRing(number);
        objects.leave();
        const Deadline deadline = Deadline::after(100);
        objects.waitRing(number, expectation, 100);
        if (deadline.passed() && ++timeOuts >= kTolerated) return;
      }
      turn = 1 - side;
      objects.ring(static_cast<std::uint16_t>(turn));
      objects.leave();
    }
  };
  std::thread other(play, 1);
  play(0);
  other.join();
  EXPECT_LT(timeOuts, kTolerated);
}

TEST_F(PoolLifetime, ARepairWakesEverySleeper) {
  OpenObjects objects;
  ASSERT_TRUE(objects.open());
  constexpr int kEvent = -1;
  for (const int sleeper : {kEvent, 0, 1, 1022, 1023, 65535}) {
    std::vector<double> delays;
    for (int i = 0; i < 5; ++i) {
      const auto number = static_cast<std::uint16_t>(sleeper);
      ASSERT_EQ(objects.acquire(Deadline::after(5000)), WAIT_OBJECT_0);
      const std::uint32_t expectation = objects.expectRing(number);
      objects.leave();
      std::chrono::steady_clock::time_point awake;
      std::thread thread([&] {
        sleeper == kEvent ? objects.waitEvent(100) : objects.waitRing(number, expectation, 100);
        awake = std::chrono::steady_clock::now();
      });
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      const auto start = std::chrono::steady_clock::now();
      ASSERT_EQ(objects.acquire(Deadline::after(5000)), WAIT_OBJECT_0);
      objects.wakeEverybody();
      objects.leave();
      thread.join();
      delays.push_back(std::chrono::duration<double>(awake - start).count());
    }
    std::sort(delays.begin(), delays.end());
    EXPECT_LT(delays[2], 0.04) << "sleeper " << sleeper;
  }
}

TEST_F(PoolLifetime, LongTimeOutsFollowTheClock) {
  OpenObjects objects;
  ASSERT_TRUE(objects.open());
  qmtest::FakeClock clock;
  const auto passesAfter = [&](DWORD timeoutMs, const auto& call) {
    std::atomic<bool> done{false};
    DWORD result = 0;
    std::thread caller([&] {
      result = call();
      done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    clock.advanceMs(timeoutMs - 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(done);
    clock.advanceMs(1);
    caller.join();
    return result;
  };
  ASSERT_EQ(objects.tryAcquire(), WAIT_OBJECT_0);
  EXPECT_EQ(passesAfter(20'000, [&] { return objects.acquire(Deadline::after(20'000)); }),
            WAIT_TIMEOUT);
  objects.leave();

  // Somebody who stands still in the middle of joining.
  const int gate = ::open(pathOf(qm::kPoolObjectNames.users).c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(gate, 0);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_len = 1;
  ASSERT_EQ(::fcntl(gate, F_OFD_SETLK, &lock), 0);
  EXPECT_EQ(passesAfter(20'000, [] { return static_cast<DWORD>(SvOpenComms(5)); }), 2013u);
  ::close(gate);
  ASSERT_EQ(SvOpenComms(5), 0);
  EXPECT_EQ(
      passesAfter(86'400'000,
                  [] {
                    char text[256];
                    return static_cast<DWORD>(SvReceiveMessage(text, sizeof text, 86'400'000));
                  }),
      2013u);
}

}  // namespace
