#include "qmutils/comms/QMCommObjectC.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qmutils/comms/QMCommObjectPtrC.h"
#include "tests/platform/Handles.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

namespace qm::platform {
namespace {

constexpr auto kOk = QMErrors::NoError;
constexpr auto kGone = QMErrors::fromOsError(6);
constexpr auto kFormerOwnerEnded = QMErrors::fromOsError(105);
const std::string kGoneText = " waiting on mutex: Error: 6 (0x6) The handle is invalid.\n";

class SharedC : public QMCommObjectC {
 public:
  explicit SharedC(const char* name) : QMCommObjectC(name, true) { ++alive; }
  ~SharedC() override { --alive; }
  static inline std::atomic<int> alive{0};
  int guarded = 0;  // by the lock
};

std::string textOf(const QMCommObjectC& object) {
  std::ostringstream os;
  os << std::hex << object;
  return os.str();
}

bool shows(const QMCommObjectC& object, const std::string& part) {
  return textOf(object).find(part) != std::string::npos;
}

template <class Body>
void onAnotherThread(Body body) {
  std::thread(body).join();
}

class SharedObject : public Handles {
 protected:
  ~SharedObject() override { EXPECT_EQ(SharedC::alive, 0); }
  qmtest::LogCapture log;
};

TEST_F(SharedObject, ShowsItselfAlikeOnBothKindsOfStream) {
  QMCommObjectC object("Queue", true);
  ASSERT_EQ(object.Lock("Spooler", 0, nullptr), kOk);
  const std::string text = textOf(object);
  log.clear();
  QMLogStreamC(nullptr, nullptr, nullptr, nullptr) << "" << object;
  EXPECT_EQ(log.text(), text + "\n");
  const std::string locked =
      "QMCommObjectC(\"Queue\") = { m_pCurrentOwnerName=Spooler, m_nRefCount=0 m_hMutex=0x";
  EXPECT_EQ(text.find(locked), 0u);
  EXPECT_NE(text.find(" m_bAutoDelete=true }", locked.size() + 8), std::string::npos);
  EXPECT_EQ(textOf(QMCommObjectC()),
            "QMCommObjectC(\"<unknown>\") = { m_pCurrentOwnerName=<unknown>, m_nRefCount=0 "
            "m_hMutex=0x00000000 m_bAutoDelete=false }");
}

TEST_F(SharedObject, ALockEndsByUnlockingTimeOutOrKillEvent) {
  QMCommObjectC object("Queue");
  const HANDLE kill = event(true, true);
  EXPECT_EQ(object.Unlock(), kGone) << "there is no mutex yet";
  EXPECT_EQ(object.Lock("Spooler", 0, kill), kOk) << "the first lock never waits";
  log.clear();
  EXPECT_EQ(object.Lock("Display", 0, nullptr), kOk) << "recursive";
  EXPECT_EQ(log.text(),
            " INFO: QMCommObjectC::Lock(b): previous owner=Spooler, " + textOf(object) + "\n");
  EXPECT_EQ(log.lines().back().level, 15u);
  log.clear();
  onAnotherThread([&] {
    EXPECT_EQ(object.Lock("late", 1, nullptr), QMErrors::CommandTimedOut);
    EXPECT_EQ(object.Lock(kLong, kill), QMErrors::TheWaitWasForcedToExit);
    EXPECT_EQ(object.Lock(kLong, &object), kGone) << "no handle";
    EXPECT_EQ(object.Unlock(), QMErrors::fromOsError(288));
  });
  const std::string lock = " ERROR: QMCommObjectC::Lock(a): object: Queue";
  EXPECT_EQ(log.text(), lock + "Timeout waiting on object already locked by: Display\n" + lock +
                            kGoneText +
                            " ERROR: QMCommObjectC::Unlock(): object: Queue releasing mutex: "
                            "Error: 288 (0x120) The mutex is not owned by the caller.\n");
  EXPECT_EQ(object.Unlock(), kOk);
  onAnotherThread([&] { EXPECT_EQ(object.Lock(0, nullptr), QMErrors::CommandTimedOut); });
  EXPECT_EQ(object.Unlock(), kOk);
  EXPECT_TRUE(shows(object, "m_pCurrentOwnerName=<unknown>"));
  onAnotherThread([&] { EXPECT_EQ(object.Lock(0, kill), kOk); });
}

TEST_F(SharedObject, TheLastReferenceDeletesAnObjectMadeSo) {
  auto* const object = new SharedC("Queue");
  QMCommObjectPtrC first, second;
  EXPECT_EQ(first.Attach(object), kOk);
  EXPECT_EQ(first.Attach(object), QMErrors::AlreadyAttachedToObject);
  EXPECT_TRUE(log.contains(" ERROR: QMCommObjectPtrC::Attach(): Already attached to :QMCommO"));
  EXPECT_TRUE(shows(*object, "m_nRefCount=1 "));
  EXPECT_EQ(second.Attach(object), kOk);
  const QMCommObjectPtrC copy = second;
  EXPECT_TRUE(shows(copy.GetObject(), "m_nRefCount=2 "));
  EXPECT_EQ(second.Detach(), kOk);
  log.clear();
  EXPECT_EQ(first.Detach(), kOk);
  EXPECT_EQ(SharedC::alive, 0);
  EXPECT_TRUE(log.contains(" INFO: QMCommObjectC::DecrementReference(): About to delete: QMCommO"));
  EXPECT_TRUE(log.contains(" INFO: QMCommObjectC::~QMCommObjectC(): deleting shared object: QMC"));

  EXPECT_EQ(first.Detach(), kOk) << "nothing is held";
  EXPECT_EQ(&copy.GetObject(), &first.GetObject()) << "the copy's object is gone";
  EXPECT_EQ(QMCommObjectPtrC(copy).Detach(), kGone);

  QMCommObjectC lasting;
  EXPECT_EQ(first.Attach(&lasting), kOk);
  EXPECT_EQ(first.Detach(), kOk);
  EXPECT_TRUE(shows(lasting, "m_nRefCount=0 "));
  // One that is too many, here by one dropped too often, counts all the same.
  first.Attach(&lasting);
  for (int extra = 0; extra < 3; ++extra) EXPECT_EQ(QMCommObjectPtrC(first).Detach(), kOk);
  EXPECT_EQ(second.Attach(&lasting), QMErrors::TooManyObjectReferences);
  EXPECT_TRUE(
      log.contains(" ERROR: QMCommObjectC::IncrementReference(): object: <unknown> too "
                   "many references to object\n"));
  EXPECT_EQ(second.Detach(), kOk);
  EXPECT_EQ(first.Attach(nullptr), kOk);
  EXPECT_EQ(first.Detach(), kOk);
  EXPECT_TRUE(shows(lasting, "m_nRefCount=4294967294 "));
}

/// Counts the threads that have begun to wait: each looks at the clock for its deadline.
class WaitCount : public qmtest::FakeClock {
 public:
  std::int64_t monotonicNanoseconds() noexcept override {
    thread_local bool counted = false;
    if (!std::exchange(counted, true)) ++threads;
    return FakeClock::monotonicNanoseconds();
  }
  std::atomic<int> threads{0};
};

TEST_F(SharedObject, WaitersLeaveWhenTheObjectGoes) {
  for (const bool byReference : {true, false}) {
    auto* const object = new SharedC("Queue");
    QMCommObjectPtrC holder;
    holder.Attach(object);
    for (int depth = 0; depth < 3; ++depth) object->Lock("owner", 0, nullptr);
    const HANDLE kill = event(true, false);
    WaitCount waiting;
    std::vector<std::thread> waiters;
    for (int i = 0; i < 6; ++i) {
      waiters.emplace_back([=] { EXPECT_EQ(object->Lock("w", kLong, i % 2 ? kill : 0), kGone); });
    }
    while (waiting.threads < 6) sleep(0, false);
    byReference ? void(holder.Detach()) : delete object;
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(SharedC::alive, 0);
  }
}

TEST_F(SharedObject, AFailedLockCostsNoReference) {
  auto* const object = new SharedC("Queue");
  QMCommObjectPtrC holder, late;
  holder.Attach(object);
  const auto abandon = [&] { onAnotherThread([&] { object->Lock("ended", 0, nullptr); }); };
  abandon();
  EXPECT_EQ(object->Lock("next", kLong, nullptr), kFormerOwnerEnded);
  EXPECT_TRUE(shows(*object, "m_pCurrentOwnerName=<unknown>"));
  abandon();  // which proves that the lock was let go again
  EXPECT_EQ(late.Attach(object), kFormerOwnerEnded);
  EXPECT_EQ(&late.GetObject(), object);
  EXPECT_EQ(QMCommObjectPtrC(late).Detach(), kOk);
  EXPECT_TRUE(shows(*object, "m_nRefCount=1 ")) << "what was not taken is not dropped";
  abandon();
  EXPECT_EQ(holder.Detach(), kOk);
  EXPECT_NE(&late.GetObject(), object) << "which is gone";

  qmtest::FailingAllocation next(1);
  QMCommObjectC poor("Poor", true);
  ASSERT_TRUE(next.hasFailed());
  log.clear();
  EXPECT_EQ(late.Attach(&poor), QMErrors::fromOsError(8));
  EXPECT_EQ(log.text(), " ERROR: QMCommObjectC::Lock(a): object: PoorFailed to create mutex\n");
  EXPECT_EQ(late.Attach(&poor), QMErrors::AlreadyAttachedToObject);
  EXPECT_EQ(late.Detach(), kOk);
  EXPECT_EQ(poor.Unlock(), kGone);
}

TEST_F(SharedObject, ThreadsAtRandomMeetOneLockAndOneDeletion) {
  constexpr int kThreads = 4;
  log.setDebugLevel(0);
  for (int round = 0; round < 100; ++round) {
    auto* const object = new SharedC("Queue");
    std::atomic<int> additions{0};
    std::barrier all(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        std::mt19937 random(static_cast<unsigned>(round * kThreads + i));
        QMCommObjectPtrC own;
        all.arrive_and_wait();  // all make the first lock
        EXPECT_EQ(own.Attach(object), kOk);
        all.arrive_and_wait();
        for (int step = 0; step < 20; ++step) {
          QMCommObjectPtrC other;
          EXPECT_EQ(random() % 2 == 0 ? other.Attach(object) : other.Detach(), kOk);
          EXPECT_TRUE(random() % 2 == 0 || shows(*object, "(\"Queue\")"));
          EXPECT_EQ(own.GetObject().Lock(i % 2 ? "odd" : "even", kLong, nullptr), kOk);
          EXPECT_EQ(++object->guarded, ++additions);
          EXPECT_EQ(object->Unlock(), kOk);
        }
        EXPECT_EQ(own.Detach(), kOk);
      });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(SharedC::alive, 0);
  }
}

}  // namespace
}  // namespace qm::platform
