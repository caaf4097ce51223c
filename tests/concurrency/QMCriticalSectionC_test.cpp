#include "qmutils/concurrency/QMCriticalSectionC.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

#include "qmutils/concurrency/QMCriticalSection.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace qm::platform;
using User = QMCriticalSectionC::QMCriticalSectionUserC;
using QMErrors::NoError;

constexpr const char* kEnter = " ERROR: QMCriticalSectionC::EnterCriticalSection(): ";
constexpr const char* kRollback =
    "QMCriticalSectionC::QMCriticalSectionUserC::RollbackLockCount(): ";

/// Holds a section on a thread of its own until it is told to let go.
class Holder {
 public:
  explicit Holder(QMCriticalSectionC& section) {
    thread_ = std::thread([&] {
      User user(&section);
      EXPECT_EQ(user.EnterCriticalSection("Holder", 0), NoError);
      setEvent(held_);
      wait(release_, INFINITE);
    });
    wait(held_, INFINITE);
  }
  ~Holder() { letGo(); }
  void letGo() {
    setEvent(release_);
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::thread thread_;
  void* const held_ = createEvent(true, false);
  void* const release_ = createEvent(true, false);
};

std::string stateOf(const QMCriticalSectionC& section) {
  std::ostringstream text;
  text << section;
  return text.str();
}

TEST(QMCriticalSectionC, CountsEntriesOfItsOwner) {
  qmtest::LogCapture log;
  QMCriticalSectionC section;
  User user(&section);
  for (unsigned depth = 1; depth <= 3; ++depth) {
    EXPECT_EQ(user.EnterCriticalSection("depth", 0), NoError);
    EXPECT_EQ(section.GetLockCount(), depth);
    EXPECT_EQ(section.GetOwnerTID(), currentThreadId());
  }
  EXPECT_STREQ(section.GetSafeOwnerName(), "depth");
  for (unsigned depth = 3; depth > 0; --depth) {
    EXPECT_EQ(user.LeaveCriticalSection("depth"), NoError);
    EXPECT_EQ(section.GetLockCount(), depth - 1);
  }
  EXPECT_EQ(section.GetOwnerTID(), 0u);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(user.LeaveCriticalSection("once more"), QMErrors::e_CriticalSection_TooManyUnlocks);
  EXPECT_EQ(
      log.text(),
      " WARNING: QMCriticalSectionC::LeaveCriticalSection():  - leave attempted with zero lock "
      "count : depth\n"
      " ERROR: QMCriticalSectionC::LeaveCriticalSection(): locker: once more, too many attempts "
      "to unlock, last locked by: depth\n");
}

TEST(QMCriticalSectionC, OnlyTheOwnerLeaves) {
  QMCriticalSectionC section;
  Holder holder(section);
  qmtest::LogCapture log;
  User other(&section);
  EXPECT_EQ(other.LeaveCriticalSection("other"), QMErrors::e_CriticalSection_NonOwnerLeave);
  EXPECT_EQ(section.GetLockCount(), 1u);
  EXPECT_NE(section.GetOwnerTID(), currentThreadId());
  EXPECT_EQ(log.text(),
            " WARNING: QMCriticalSectionC::LeaveCriticalSection():  - leave attempted by non-owner "
            ": Holder\n");
  holder.letGo();
  EXPECT_EQ(other.LeaveCriticalSection("other"), QMErrors::e_CriticalSection_NonOwnerLeave)
      << "the last owner was another thread";
}

TEST(QMCriticalSectionC, WaitingEndsByTimeOutKillEventOrRelease) {
  QMCriticalSectionC section;
  Holder holder(section);
  qmtest::LogCapture log;
  User user(&section);
  EXPECT_EQ(user.EnterCriticalSection("late", 20), QMErrors::e_CriticalSection_TimeOut);
  EXPECT_EQ(log.text(), std::string(kEnter) +
                            ", locker: late, timed out waiting to obtain critical section, already "
                            "owned by thread ID:" +
                            std::to_string(section.GetOwnerTID()) + ", owner name: Holder\n");
  log.clear();

  void* const kill = createEvent(true, false);
  std::thread killer([&] {
    sleep(20, false);
    setEvent(kill);
  });
  EXPECT_EQ(user.EnterCriticalSection("killed", kill, INFINITE),
            QMErrors::e_CriticalSection_KillSignalled);
  killer.join();
  EXPECT_EQ(log.text(), std::string(kEnter) + ", locker: killed, kill event signalled:\n");
  log.clear();

  resetEvent(kill);
  std::thread releaser([&] {
    sleep(20, false);
    holder.letGo();
  });
  EXPECT_EQ(user.EnterCriticalSection("patient", kill, INFINITE), NoError);
  EXPECT_STREQ(section.GetSafeOwnerName(), "patient");
  releaser.join();
  EXPECT_EQ(user.LeaveCriticalSection("patient"), NoError);
  EXPECT_EQ(log.text(), "");
  closeHandle(kill);
}

TEST(QMCriticalSectionC, AWakeUpLostToAnotherThreadDoesNotProlongTheTimeOut) {
  qmtest::FakeClock clock;
  qmtest::LogCapture log;
  QMCriticalSectionC section;
  Holder holder(section);
  const std::string state = stateOf(section);
  const auto semaphore = std::stoull(state.substr(state.find("0x")), nullptr, 16);
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = User(&section).EnterCriticalSection("waiter", 60000); });
  // Each second a wake-up for the waiter, which finds the section taken again.
  for (int second = 0; second < 70 && result == -1; ++second) {
    clock.advanceMs(1000);
    releaseSemaphore(reinterpret_cast<void*>(semaphore), 1, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(result, QMErrors::e_CriticalSection_TimeOut);
  holder.letGo();
  waiter.join();
}

TEST(QMCriticalSectionC, AScopeUndoesWhatItLeftLocked) {
  qmtest::LogCapture log;
  QMCriticalSectionC section;
  {
    User outer(&section);
    EXPECT_EQ(outer.EnterCriticalSection("outer", 0), NoError);
    {
      User inner(&section);
      for (int i = 0; i < 3; ++i) EXPECT_EQ(inner.EnterCriticalSection("inner", 0), NoError);
      User nested(&section);
      EXPECT_EQ(section.GetLockCount(), 4u);
    }
    EXPECT_EQ(section.GetLockCount(), 1u);
  }
  EXPECT_EQ(section.GetLockCount(), 0u);
  EXPECT_EQ(section.GetOwnerTID(), 0u);
  { User idle(&section); }
  EXPECT_EQ(section.GetLockCount(), 0u);
  EXPECT_EQ(log.text(), std::string(" ERROR: ") + kRollback +
                            "Critcal Section was not locked but nLockCount is: 4\n")
      << "only the user that never entered, inside a locked scope, is reported";
}

TEST(QMCriticalSectionC, DestructionOfAHeldSectionIsReportedWithItsState) {
  qmtest::LogCapture log;
  QMCriticalSectionC* cell = nullptr;
  ASSERT_EQ(QMInitializeCriticalSectionEx(&cell, 0), NoError);
  EXPECT_EQ(QMEnterCriticalSectionEx(&cell, "leaver", 7, 0), NoError);
  EXPECT_EQ(QMEnterCriticalSectionEx(&cell, "leaver", 7, 0), NoError);
  const std::string state = stateOf(*cell);
  std::ostringstream text;
  text << *cell << 255 << ' ' << std::hex << currentThreadId();
  EXPECT_EQ(QMDeleteCriticalSection(&cell), NoError);
  EXPECT_EQ(cell, nullptr);
  const std::string owner = text.str().substr(text.str().rfind(' ') + 1);
  EXPECT_TRUE(text.str().starts_with(state + "255 "));
  EXPECT_TRUE(state.starts_with("QMCriticalSectionC = {m_dwCurrentOwnerTID = " + owner +
                                ", m_hSemaphore = 0x"));
  EXPECT_TRUE(state.ends_with(", m_nLockCount = 2, m_pOwnerName = leaver, }")) << state;
  EXPECT_EQ(
      log.text(),
      " ERROR: QMCriticalSectionC::~QMCriticalSectionC(): Critical section being deleted with "
      "imbalanced lock count: " +
          state + "\n");
}

TEST(QMCriticalSectionC, HandlesWorkForCodeWithoutClasses) {
  qmtest::LogCapture log;
  QMCriticalSectionC** const cell = QMCreateCriticalSection(0);
  ASSERT_NE(cell, nullptr);
  EXPECT_EQ(QMEnterCriticalSectionEx(cell, "c", 1, 0), NoError);
  EXPECT_EQ((*cell)->GetLockCount(), 1u);
  EXPECT_EQ(QMLeaveCriticalSectionEx(cell, "c", 1), NoError);

  char text[64];
  std::memset(text, '#', sizeof text);
  const unsigned length = QMCriticalSectionToString(cell, text, sizeof text);
  EXPECT_EQ(std::strlen(text) + 1, length);
  EXPECT_TRUE(std::string(text).starts_with("0x"));
  std::memset(text, '#', sizeof text);
  EXPECT_EQ(QMCriticalSectionToString(nullptr, text, 7), 24u);
  EXPECT_EQ(std::string(text, 8), "Invalid#");
  EXPECT_EQ(QMCriticalSectionToString(nullptr, nullptr, 0), 24u);
  EXPECT_EQ(QMDestroyCriticalSection(cell), NoError);

  QMCriticalSectionC* empty = nullptr;
  EXPECT_EQ(QMEnterCriticalSectionEx(nullptr, "c", 1, 0), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(QMEnterCriticalSectionEx(&empty, "c", 1, 0), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(QMLeaveCriticalSectionEx(&empty, "c", 1), QMErrors::BadCommandLineArguments);
  User user(nullptr);
  EXPECT_EQ(user.EnterCriticalSection("x", 0), QMErrors::e_CriticalSectionUser_InvalidSection);
  EXPECT_EQ(user.LeaveCriticalSection("x"), QMErrors::e_CriticalSectionUser_InvalidSection);
  EXPECT_EQ(log.text(), "");
}

std::string boxes;

TEST(QMCriticalSectionC, ReportsThroughMessageBoxesWhenAskedTo) {
  qmtest::LogCapture log;
  boxes.clear();
  const auto former = setPromptHook([](const char* text, const char* caption, UINT style) -> int {
    boxes += std::string(caption) + "|" + text + "|" + std::to_string(style) + "\n";
    return IDOK;
  });
  QMCriticalSectionC** const cell = QMCreateCriticalSection(1);
  EXPECT_EQ(QMLeaveCriticalSectionEx(cell, "c", 1), QMErrors::e_CriticalSection_NonOwnerLeave);
  QMDestroyCriticalSection(cell);
  setPromptHook(former);
  EXPECT_EQ(
      boxes,
      "QMCriticalSectionC::LogWarning(): |QMCriticalSectionC::LeaveCriticalSection():  - leave "
      "attempted with zero lock count : unknown|8192\n"
      "QMCriticalSectionC::LogWarning(): |QMCriticalSectionC::LeaveCriticalSection():  - leave "
      "attempted by non-owner : unknown|8192\n");
  EXPECT_EQ(log.text(), "");
}

TEST(QMCriticalSectionC, MayBeDestroyedByTheNextOwner) {
  for (int round = 0; round < 2000; ++round) {
    auto* const section = new QMCriticalSectionC;
    std::atomic<bool> held{false};
    std::thread first([&] {
      User user(section);
      EXPECT_EQ(user.EnterCriticalSection("first", 30000), NoError);
      held = true;
    });
    while (!held) std::this_thread::yield();
    EXPECT_EQ(User(section).EnterCriticalSection("next", 30000), NoError);
    delete section;
    first.join();
  }
}

void contend(int threadCount) {
  QMCriticalSectionC section;
  constexpr int kRounds = 50000;
  long counter = 0;  // plain on purpose: only the section guards it
  std::atomic<int> running{threadCount};
  qmtest::LogCapture log;
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        User user(&section);
        // A lost wake-up would let the last waiter sleep until its time is up.
        EXPECT_EQ(user.EnterCriticalSection("adder", 30000), NoError);
        EXPECT_EQ(user.EnterCriticalSection("again", 30000), NoError);
        ++counter;
      }
      --running;
    });
  }
  long impatient = 0;
  for (DWORD timeoutMs = 0; running != 0; timeoutMs ^= 1) {
    User user(&section);
    if (user.EnterCriticalSection("impatient", timeoutMs) == NoError) ++counter, ++impatient;
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, threadCount * kRounds + impatient);
}

TEST(QMCriticalSectionC, ExcludesThreadsAndLosesNoWakeUp) {
  contend(2);
  contend(4);
}

}  // namespace
