#include "qmutils/concurrency/QMThreadC.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace qm::platform;
using QMErrors::NoError;

/// By the true clock.
void pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// A thread whose body is given by the test.
class BodyThread : public QMThreadC {
 public:
  using Body = std::function<QMErrors::QMErrorT(BodyThread&)>;
  explicit BodyThread(Body body, QMThreadC* parent = nullptr, const char* name = "body",
                      DWORD stopTimeoutMs = INFINITE, int autoDelete = 0)
      : QMThreadC(name, parent, stopTimeoutMs, autoDelete), body_(std::move(body)) {}
  ~BodyThread() override { stop(); }
  QMErrors::QMErrorT run() override { return body_(*this); }
  using QMThreadC::NotifyEnd;

 private:
  Body body_;
};

QMErrors::QMErrorT untilTold(BodyThread& self) {
  while (self.Sleep(1) == 0) {
  }
  return NoError;
}

void awaitTrue(const auto& condition) {
  while (!condition()) pause(1);
}

DWORD exitCodeOf(const QMThreadC& thread) {
  wait(thread.GetThread(), 30000);
  DWORD code = 0;
  threadExitCode(thread.GetThread(), &code);
  return code;
}

TEST(QMThreadC, WithoutABodyItEndsWithItsCode) {
  qmtest::LogCapture log;
  QMThreadC thread("idle", nullptr, INFINITE, 0);
  EXPECT_FALSE(thread.IsAlive());
  EXPECT_FALSE(thread.IsDead());
  EXPECT_EQ(thread.start(), NoError);
  EXPECT_EQ(exitCodeOf(thread), DWORD{QMErrors::NoThreadBodyCode});
  EXPECT_TRUE(thread.IsDead());
  EXPECT_TRUE(log.contains(" ERROR: QMThreadC::runNo thread body for: idle\n"));
  EXPECT_EQ(thread.stop(), NoError);
  EXPECT_EQ(thread.GetThread(), nullptr);
  EXPECT_FALSE(thread.IsDead());
}

TEST(QMThreadC, StartsAndStopsAgainButNotByItself) {
  qmtest::LogCapture log;
  std::atomic<DWORD> seenId{0};
  std::atomic<void*> seenHandle{nullptr};
  BodyThread thread([&](BodyThread& self) {
    seenHandle = self.GetThread();
    EXPECT_EQ(self.stop(), NoError);
    EXPECT_FALSE(self.IsEndEventSignalled());
    seenId = self.GetThreadID();
    return untilTold(self);
  });
  for (int round = 0; round < 3; ++round) {
    log.clear();
    seenId = 0;
    EXPECT_EQ(thread.start(), NoError);
    EXPECT_FALSE(thread.IsEndEventSignalled());
    awaitTrue([&] { return seenId != 0; });
    EXPECT_EQ(seenId, thread.GetThreadID());
    EXPECT_EQ(seenHandle, thread.GetThread()) << "the body must find its own handle";
    EXPECT_TRUE(thread.IsAlive());
    EXPECT_TRUE(log.contains(
        " INFO: QMThreadC::start(): _beginthreadex() succeeded for Thread: body, id = 0x"));
    EXPECT_TRUE(log.contains(
        " WARNING: QMThreadC::stop(): Cannot stop() thread from within itself ignoring "
        "request\n"));
    EXPECT_EQ(thread.stop(), NoError);
    EXPECT_FALSE(thread.IsAlive());
    EXPECT_FALSE(thread.IsEndEventSignalled()) << "the end event is reset for the next start";
  }
}

TEST(QMThreadC, AThousandStartsAndStopsLeaveNothingBehind) {
  qmtest::LogCapture log(1);
  for (int i = 0; i < 500; ++i) {
    BodyThread thread(untilTold);
    ASSERT_EQ(thread.start(), NoError);
    ASSERT_EQ(thread.stop(), NoError);
    ASSERT_EQ(thread.start(), NoError);
  }
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(QMThreadC::stopAll(), NoError);
}

TEST(QMThreadC, AParentsStopSignalsAllChildrenBeforeItWaits) {
  qmtest::LogCapture log(1);
  std::atomic<int> ended{0};
  int endedBeforeParent = 0;
  BodyThread* second = nullptr;
  BodyThread parent([&](BodyThread& self) {
    untilTold(self);
    endedBeforeParent = ended;
    return NoError;
  });
  // The first child ends only after the second has been signalled: that is possible only if both
  // are signalled before either is waited for.
  BodyThread first(
      [&](BodyThread& self) {
        untilTold(self);
        awaitTrue([&] { return second->IsEndEventSignalled(); });
        ++ended;
        return NoError;
      },
      &parent);
  const auto endAfterFirst = [&](BodyThread& self) {
    untilTold(self);
    awaitTrue([&] { return !first.IsAlive(); });
    ++ended;
    return NoError;
  };
  BodyThread secondChild(endAfterFirst, &parent);
  second = &secondChild;
  BodyThread grandChild(endAfterFirst, &secondChild);
  BodyThread* const all[] = {&parent, &first, &secondChild, &grandChild};
  for (BodyThread* thread : all) thread->start();
  EXPECT_EQ(parent.FindChild(nullptr), &first);
  EXPECT_EQ(parent.FindChild(&first), &secondChild);
  EXPECT_EQ(parent.FindChild(&secondChild), nullptr);
  EXPECT_EQ(QMThreadC::stopAll(), NoError);
  EXPECT_EQ(endedBeforeParent, 3);
  for (BodyThread* thread : all) EXPECT_FALSE(thread->IsAlive());
}

TEST(QMThreadC, AChildThatWasNeverStartedIsReportedByItsParentsStop) {
  qmtest::LogCapture log;
  BodyThread parent(untilTold);
  auto* const removed = new BodyThread(untilTold, &parent);
  BodyThread child(untilTold, &parent);
  EXPECT_EQ(removed->RemoveThread(0), NoError);
  EXPECT_EQ(parent.FindChild(nullptr), &child);
  EXPECT_EQ(removed->RemoveThread(1), NoError) << "a second removal finds nothing to do";
  parent.start();
  EXPECT_EQ(parent.stop(), QMErrors::ResourceAllocationFailed);
  EXPECT_FALSE(parent.IsAlive());
  EXPECT_TRUE(
      log.contains(" ERROR: QMThreadC::NotifyEnd(): m_hEndEvent = 0x00000000, invalid handle.\n"));
}

TEST(QMThreadC, StopGivesUpOnAThreadThatDoesNotListen) {
  qmtest::LogCapture log;
  qmtest::FakeClock clock;
  std::atomic<bool> release{false};
  std::atomic<bool> stopped{false};
  BodyThread thread(
      [&](BodyThread&) {
        awaitTrue([&] { return release.load(); });
        return NoError;
      },
      nullptr, "deaf", 500);
  thread.start();
  std::thread stopper([&] {
    EXPECT_EQ(thread.stop(), NoError);
    stopped = true;
  });
  for (int i = 0; i < 4; ++i) {
    clock.advanceMs(100);
    pause(5);
  }
  EXPECT_FALSE(stopped) << "gave up before the stop time-out";
  while (!stopped) {
    clock.advanceMs(100);
    pause(2);
  }
  stopper.join();
  EXPECT_TRUE(log.contains(
      "QMThreadC::stop(): ERROR: Could not stop thread. Thread being killed, this could leave "
      "dangling resources.\nQMThreadC::stop(): DON'T KNOW HOW TO KILL THREADS!!!!!!!\n"));
  EXPECT_EQ(thread.GetThread(), nullptr);
  release = true;
  pause(20);
}

TEST(QMThreadC, AStopWithoutTimeStillWaitsOneStep) {
  qmtest::LogCapture log;
  BodyThread thread(untilTold, nullptr, "quick", 0);
  thread.start();
  EXPECT_EQ(thread.stop(), NoError);
  EXPECT_FALSE(log.contains("DON'T KNOW HOW"));
}

TEST(QMThreadC, AutoDeletedThreadsAreGoneAfterRun) {
  qmtest::LogCapture log;
  static std::atomic<int> destroyed{0};
  struct SelfDeleting : QMThreadC {
    explicit SelfDeleting(bool waits)
        : QMThreadC("fleeting", nullptr, INFINITE, 1), waits_(waits) {}
    ~SelfDeleting() override { ++destroyed; }
    QMErrors::QMErrorT run() override {
      while (waits_ && Sleep(1) == 0) {
      }
      return NoError;
    }
    const bool waits_;
  };
  constexpr int kRounds = 100;
  for (const bool waits : {false, true}) {
    destroyed = 0;
    for (int i = 0; i < kRounds; ++i) {
      // start() must not touch an object that is already gone when it returns.
      ASSERT_EQ((new SelfDeleting(waits))->start(), NoError);
      EXPECT_EQ(waits ? QMThreadC::stopAll() : NoError, NoError);
    }
    awaitTrue([&] { return destroyed == kRounds; });
  }
  EXPECT_TRUE(log.contains(
      " INFO: QMThreadC::ThreadWrapper(): automatically deleting thread object: fleeting\n"));
}

TEST(QMThreadC, WaitsReportTheEndEventBehindTheObjects) {
  void* const event = createEvent(false, false);
  void* const other = createEvent(false, false);
  BodyThread thread([&](BodyThread& self) {
    void* const handles[] = {event, other};
    EXPECT_EQ(self.WaitForSingleObject(event, 1), WAIT_TIMEOUT);
    EXPECT_EQ(self.WaitForMultipleObjects(2, handles, true, 1), WAIT_TIMEOUT);
    setEvent(event);
    setEvent(other);
    EXPECT_EQ(self.WaitForMultipleObjects(2, handles, true, 30000), WAIT_OBJECT_0);
    setEvent(other);
    EXPECT_EQ(self.WaitForMultipleObjects(2, handles, false, 30000), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(self.WaitForMultipleObjects(2, handles, false, INFINITE), 2u);  // ended by stop()
    EXPECT_EQ(self.WaitForMultipleObjects(2, handles, true, INFINITE), 1u);
    return static_cast<QMErrors::QMErrorT>(self.WaitForSingleObject(event, INFINITE));
  });
  thread.start();
  pause(30);
  EXPECT_EQ(thread.NotifyEnd(), NoError);
  EXPECT_EQ(exitCodeOf(thread), 1u);
  closeHandle(event);
  closeHandle(other);
}

TEST(QMThreadC, WaitsAreTracedAtLevelTwenty) {
  qmtest::LogCapture log;
  void* const event = createEvent(true, true);
  BodyThread thread(untilTold);
  EXPECT_EQ(thread.WaitForMultipleObjects(1, &event, false, 5), WAIT_OBJECT_0);
  resetEvent(event);
  EXPECT_EQ(thread.WaitForMultipleObjects(1, &event, true, 1), WAIT_TIMEOUT);
  const std::string handle(qm::PointerText(event).view());
  const std::string any = " INFO: QMThreadC::WaitForMultipleObjects( ANY ): body, id=0x0 ";
  const std::string all = " INFO: QMThreadC::WaitForMultipleObjects( ALL ): body, id=0x0 ";
  std::string expected = any + "waiting on 1 objects[" + handle + "], timeout = 5\n";
  expected += any + "returning:  Object 0 was signalled \n";
  expected += all + "waiting on 1 objects: " + handle + ", timeout = 1\n";
  expected += all + "returning:  Timed out \n";
  EXPECT_EQ(log.text(), expected);
  closeHandle(event);
}

TEST(QMThreadC, LongSleepsNoticeTheEndEventAfterEachSlice) {
  qmtest::FakeClock clock;
  std::atomic<DWORD> result{0};
  std::atomic<unsigned> looks{~0u};  // at the clock, before it sleeps
  BodyThread thread([&](BodyThread& self) {
    looks = clock.looks();
    result = self.SleepEx(25000, false);
    return NoError;
  });
  thread.start();
  awaitTrue([&] { return looks != ~0u && clock.looks() > looks; });
  thread.NotifyEnd();
  clock.advanceMs(9000);
  pause(10);
  EXPECT_TRUE(thread.IsAlive()) << "a slice is not cut short";
  clock.advanceMs(1500);
  EXPECT_EQ(wait(thread.GetThread(), 30000), WAIT_OBJECT_0);
  EXPECT_EQ(result, 0xFFFFFFFFu);
}

TEST(QMThreadC, StopResumesASuspendedThread) {
  qmtest::LogCapture log;
  BodyThread thread(untilTold);
  EXPECT_EQ(thread.SuspendThread(), 0xFFFFFFFFu);
  EXPECT_EQ(thread.ResumeThread(), 0xFFFFFFFFu);
  EXPECT_TRUE(log.contains(
      " ERROR: QMThreadC::SuspendThread(): suspend failed on thread: body Reason: Error: 6 (0x6)"));
  EXPECT_TRUE(log.contains(" ERROR: QMThreadC::ResumeThread(): resume failed on thread: body"));
  EXPECT_EQ(thread.SetThreadPriority(1), 0);
  EXPECT_TRUE(
      log.contains(" ERROR: QMThreadC::SetThreadPriority(): SetThreadPriority failed on "
                   "thread: body, Reason: Error: 6 (0x6)"));
  thread.start();
  for (DWORD count = 0; count < 3; ++count) EXPECT_EQ(thread.SuspendThread(), count);
  EXPECT_EQ(thread.stop(), NoError);
  EXPECT_TRUE(log.contains(" INFO: QMThreadC::NotifyEnd(): suspendCount for :body is: 3\n"));
  EXPECT_TRUE(log.contains(" INFO: QMThreadC::NotifyEnd(): suspendCount for :body is: 2\n"));
}

// start() does not wait for the thread, so all of these may come before the thread has begun.
TEST(QMThreadC, AThreadThatWasJustStartedCanBeAskedAndHeld) {
  const qmtest::LogCapture log(1);
  for (int round = 0; round < 200; ++round) {
    BodyThread thread(untilTold);
    ASSERT_EQ(thread.start(), NoError);
    ASSERT_EQ(thread.SuspendThread(), 0u);
    EXPECT_NE(thread.GetThreadID(), 0u);
    EXPECT_NE(thread.SetThreadPriority(THREAD_PRIORITY_BELOW_NORMAL), 0);
    EXPECT_EQ(threadPriority(thread.GetThread()), THREAD_PRIORITY_BELOW_NORMAL);
    EXPECT_TRUE(thread.IsAlive());
    EXPECT_EQ(thread.stop(), NoError) << "resumed, signalled and waited for";
  }
  BodyThread thread(untilTold);
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(thread.start(), NoError);
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);  // the copy has no such thread, and must not wait for it
      (void)thread.GetThreadID();
      std::_Exit(!thread.IsAlive() && thread.stop() == NoError ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(thread.stop(), NoError);
  }
}

TEST(QMThreadC, StartsAndStopsFromSeveralThreadsLeaveTheLastWordToStop) {
  qmtest::LogCapture log(0);
  BodyThread thread(untilTold);
  std::atomic<bool> done{false};
  std::thread stopper([&] {
    while (!done) EXPECT_EQ(thread.stop(), NoError);
  });
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(thread.start(), NoError);
  done = true;
  stopper.join();
  EXPECT_EQ(thread.stop(), NoError);
  EXPECT_FALSE(thread.IsAlive());
  EXPECT_EQ(thread.start(), NoError);
  EXPECT_TRUE(thread.IsAlive()) << "no stop is left over";
}

TEST(QMThreadC, BadArgumentsAreRefused) {
  qmtest::LogCapture log;
  BodyThread parent(untilTold);
  BodyThread child(untilTold, &parent);
  parent.SetParent(&child);
  child.SetParent(&child);
  EXPECT_EQ(parent.GetParent(), nullptr);
  EXPECT_EQ(child.GetParent(), &parent);
  auto gone = std::make_unique<BodyThread>(untilTold);
  parent.SetParent(gone.get());
  gone.reset();
  child.SetParent(&parent);  // whose parent is not looked at any more
  void* const event = createEvent(true, true);
  const std::vector<void*> many(65, event);
  for (const DWORD count : {65u, 0xFFFFFFFFu}) {
    EXPECT_EQ(parent.WaitForMultipleObjects(count, many.data(), false, 0), WAIT_FAILED);
  }
  EXPECT_EQ(parent.WaitForMultipleObjects(65, many.data(), true, 0), WAIT_OBJECT_0);
  for (const bool all : {false, true}) {
    EXPECT_EQ(parent.WaitForMultipleObjects(1, nullptr, all, 0), WAIT_FAILED);
  }
  parent.start();
  EXPECT_EQ(parent.WaitForMultipleObjects(0, nullptr, false, 0), DWORD{WAIT_TIMEOUT});
  closeHandle(event);
}

TEST(QMThreadC, RunningOutOfMemoryGivesACode) {
  qmtest::LogCapture log;
  bool alwaysStarted = false;
  for (int n = 1; !alwaysStarted && n < 100; ++n) {
    QMThreadC* thread = nullptr;
    QMErrors::QMErrorT started;
    {
      const qmtest::FailingAllocation nth(n);
      thread = new (std::nothrow) QMThreadC("starved", nullptr, INFINITE, 0);
      if (thread == nullptr) continue;
      started = thread->start();
      alwaysStarted = !nth.hasFailed();
    }
    EXPECT_TRUE(started == NoError || started == QMErrors::ResourceAllocationFailed) << started;
    EXPECT_EQ(thread->stop(), NoError);
    {
      const qmtest::FailingAllocation first(1);
      const QMErrors::QMErrorT stopped = QMThreadC::stopAll();
      EXPECT_TRUE(stopped == NoError || stopped == QMErrors::MemoryAllocationFailed) << stopped;
    }
    delete thread;
  }
  EXPECT_TRUE(alwaysStarted);
}

}  // namespace
