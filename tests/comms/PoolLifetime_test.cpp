// The life of the shared objects: who opens while others close or die must end up in one pool with
// them, never in a stale or a second one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "qmutils/comms/SvComms.h"
#include "tests/comms/PoolFixture.h"
#include "tests/support/FakeClock.h"

using qm::platform::Deadline;
using qmtest::Child;
using qmtest::OpenObjects;
using qmtest::pause;
using qmtest::receive;

namespace {

using PoolLifetime = qmtest::PoolTest;

/// Opens and closes until it is killed.
int churn(unsigned short identifier) {
  while (SvOpenComms(identifier) == 0) SvCloseComms();
  return 1;
}

constexpr unsigned short kAsker = 1, kAnswerer = 2;

int ask() {
  if (SvOpenComms(kAsker) != 0) return 1;
  std::string answer = "2013";
  for (int i = 0; i < 500 && answer == "2013"; ++i) {
    SvSendMessage("ping", 1000, kAnswerer);
    answer = receive(20);
  }
  return answer == "pong" ? 0 : 2;
}

int answer() {
  if (SvOpenComms(kAnswerer) != 0) return 1;
  if (receive(10'000) != "ping") return 3;
  return SvSendMessage("pong", 1000, kAsker) == 0 ? 0 : 4;
}

TEST_F(PoolLifetime, WhoOpensWhileOthersDieMeetsTheRest) {
  std::mt19937 random(77);
  Child churners[3];
  const auto start = [&](unsigned i) {
    churners[i] = Child([i] { return churn(static_cast<unsigned short>(10 + i)); });
  };
  for (unsigned i = 0; i < 3; ++i) start(i);
  int deaths = 0;
  const auto kill = [&](unsigned i) {
    churners[i].kill();
    ASSERT_EQ(churners[i].wait(), 128 + 9) << "a process could not open the pool";
    ++deaths;
  };
  for (int round = 0; round < 150; ++round) {
    Child answerer(answer);
    Child asker(ask);
    for (int i = 0; i < 8; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
      const unsigned victim = random() % 3;
      kill(victim);
      start(victim);
    }
    // Now and then all die at one moment.
    if (round % 3 == 0) {
      for (Child& churner : churners) churner.kill();
      for (unsigned i = 0; i < 3; ++i) {
        kill(i);
        start(i);
      }
    }
    ASSERT_EQ(asker.wait(), 0) << "round " << round;
    ASSERT_EQ(answerer.wait(), 0) << "round " << round;
  }
  for (unsigned i = 0; i < 3; ++i) kill(i);
  EXPECT_GT(deaths, 1000);
  ASSERT_EQ(SvOpenComms(5), 0);
  EXPECT_EQ(SvGetCommsOSError(), 0u) << "not a new section, though all its users are dead";
}

TEST_F(PoolLifetime, TheMutexIsRecursiveAndNoticesDeadOwnersUntilRepaired) {
  OpenObjects objects;
  ASSERT_TRUE(objects.open());
  ASSERT_EQ(objects.take(), WAIT_OBJECT_0);
  ASSERT_EQ(objects.take(), WAIT_OBJECT_0);
  objects.leave();
  std::thread([&] { EXPECT_EQ(objects.tryAcquire(), WAIT_TIMEOUT); }).join();
  objects.leave();

  // Each of these dies owning it; only the last but one repairs first.
  for (int death = 0; death < 4; ++death) {
    Child child([death] {
      // Ends by _exit(), so that nothing closes.
      OpenObjects& mine = *new OpenObjects;
      mine.openMutex(Deadline::after(20'000));
      if (mine.take() != (death == 0 || death == 3 ? WAIT_OBJECT_0 : WAIT_ABANDONED)) return 1;
      if (death != 2) return 0;
      mine.declareRepaired();
      mine.leave();
      return mine.take() == WAIT_OBJECT_0 ? 0 : 2;
    });
    EXPECT_EQ(child.wait(), 0) << "death " << death;
    if (death < 2) continue;
    EXPECT_EQ(objects.take(), WAIT_ABANDONED);
    objects.declareRepaired();
    objects.leave();
  }
  EXPECT_EQ(objects.take(), WAIT_OBJECT_0);
  objects.leave();
}

TEST_F(PoolLifetime, TwoGroupsOfOneProcessAreTwoUsers) {
  auto first = std::make_unique<OpenObjects>();
  OpenObjects second;
  ASSERT_TRUE(first->open());
  ASSERT_TRUE(second.open());
  EXPECT_TRUE(second.list().isBlank());
  first->list().initialise();
  EXPECT_TRUE(second.list().hasMagic());
  ASSERT_EQ(first->tryAcquire(), WAIT_OBJECT_0);
  std::thread([&] { EXPECT_EQ(second.tryAcquire(), WAIT_TIMEOUT); }).join();
  first->leave();
  first.reset();
  // Still open, and still the mutex that it was.
  ASSERT_EQ(second.tryAcquire(), WAIT_OBJECT_0);
  second.leave();
  EXPECT_TRUE(second.list().hasMagic());
  EXPECT_EQ(sharedObjects().size(), 5u);
  second.close(false);
  EXPECT_TRUE(sharedObjects().empty());
}

TEST_F(PoolLifetime, AProgramThatEndsWithoutClosingLeavesNothing) {
  for (const bool othersAreThere : {false, true}) {
    ASSERT_EQ(SvOpenComms(othersAreThere ? 5 : 0), 0);
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
    const double delay = qmtest::medianOf(5, [&] {
      const auto number = static_cast<std::uint16_t>(sleeper);
      EXPECT_EQ(objects.take(), WAIT_OBJECT_0);
      const std::uint32_t expectation = objects.expectRing(number);
      objects.leave();
      std::thread thread([&] {
        sleeper == kEvent ? objects.waitEvent(100) : objects.waitRing(number, expectation, 100);
      });
      pause(10);
      return qmtest::secondsOf([&] {
        EXPECT_EQ(objects.take(), WAIT_OBJECT_0);
        objects.wakeEverybody();
        objects.leave();
        thread.join();
      });
    });
    EXPECT_LT(delay, 0.04) << "sleeper " << sleeper;
  }
}

TEST_F(PoolLifetime, LongTimeOutsFollowTheClock) {
  OpenObjects objects;
  ASSERT_TRUE(objects.open());
  qmtest::FakeClock clock;
  const auto passesAfter = [&](DWORD timeoutMs, const auto& call) {
    std::atomic<bool> done{false};
    DWORD result = 0;
    const unsigned looks = clock.looks();
    std::thread caller([&] {
      result = call();
      done = true;
    });
    while (clock.looks() == looks) pause(1);
    clock.advanceMs(timeoutMs - 1);
    pause(20);
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
  const int gate = ::open(pathOf("Users").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(gate, 0);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_len = 1;
  ASSERT_EQ(::fcntl(gate, F_OFD_SETLK, &lock), 0);
  EXPECT_EQ(passesAfter(20'000, [] { return static_cast<DWORD>(SvOpenComms(5)); }), 2013u);
  ::close(gate);
  ASSERT_EQ(SvOpenComms(5), 0);
  const auto receiveForADay = [] { return receive(86'400'000) == "2013" ? 2013u : 0u; };
  EXPECT_EQ(passesAfter(86'400'000, receiveForADay), 2013u);
  ASSERT_EQ(SvSendMessage("for another", 0, 7), 0);
  EXPECT_EQ(passesAfter(86'400'000, receiveForADay), 2013u);
}

}  // namespace
