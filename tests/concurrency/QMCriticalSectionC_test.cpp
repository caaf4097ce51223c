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
      id_ = qm::platform::currentThreadId();
      qm::platform::setEvent(held_);
      qm::platform::wait(release_, INFINITE);
    });
    qm::platform::wait(held_, INFINITE);
  }
  ~Holder() { letGo(); }
  void letGo() {
    qm::platform::setEvent(release_);
    if (thread_.joinable()) thread_.join();
  }
  DWORD id() const { return id_; }

 private:
  std::thread thread_;
  std::atomic<DWORD> id_{0};
  void* held_ = qm::platform::createEvent(true, false);
  void* release_ = qm::platform::createEvent(true, false);
};

TEST(QMCriticalSectionC, CountsEntriesOfItsOwner) {
  qmtest::LogCapture log;
  QMCriticalSectionC section;
  User user(&section);
  const DWORD self = qm::platform::currentThreadId();
  for (unsigned depth = 1; depth <= 3; ++depth) {
    EXPECT_EQ(user.EnterCriticalSection("depth", 0), NoError);
    EXPECT_EQ(section.GetLockCount(), depth);
    EXPECT_EQ(section.GetOwnerTID(), self);
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
  {
    User other(&section);
    EXPECT_EQ(other.LeaveCriticalSection("other"), QMErrors::e_CriticalSection_NonOwnerLeave);
    EXPECT_EQ(section.GetLockCount(), 1u);
    EXPECT_EQ(section.GetOwnerTID(), holder.id());
    EXPECT_EQ(
        log.text(),
        " WARNING: QMCriticalSectionC::LeaveCriticalSection():  - leave attempted by non-owner "
        ": Holder\n");
    holder.letGo();
    EXPECT_EQ(other.LeaveCriticalSection("other"), QMErrors::e_CriticalSection_NonOwnerLeave)
        << "the last owner was another thread";
  }
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
                            std::to_string(holder.id()) + ", owner name: Holder\n");
  log.clear();

  void* const kill = qm::platform::createEvent(true, false);
  std::thread killer([&] {
    qm::platform::sleep(20, false);
    qm::platform::setEvent(kill);
  });
  EXPECT_EQ(user.EnterCriticalSection("killed", kill, INFINITE),
            QMErrors::e_CriticalSection_KillSignalled);
  killer.join();
  EXPECT_EQ(log.text(), std::string(kEnter) + ", locker: killed, kill event signalled:\n");
  log.clear();

  qm::platform::resetEvent(kill);
  std::thread releaser([&] {
    qm::platform::sleep(20, false);
    holder.letGo();
  });
  EXPECT_EQ(user.EnterCriticalSection("patient", kill, INFINITE), NoError);
  EXPECT_STREQ(section.GetSafeOwnerName(), "patient");
  releaser.join();
  EXPECT_EQ(user.LeaveCriticalSection("patient"), NoError);
  EXPECT_EQ(log.text(), "");
  qm::platform::closeHandle(kill);
}

TEST(QMCriticalSectionC, AWakeUpLostToAnotherThreadDoesNotProlongTheTimeOut) {
  qmtest::FakeClock clock;
  qmtest::LogCapture log;
  QMCriticalSectionC section;
  Holder holder(section);
  std::atomic<int> result{-1};
  std::thread waiter([&] {
    User user(&section);
    result = user.EnterCriticalSection("waiter", 60000);
  });
  // Time passes, and meanwhile the section changes hands without the waiter getting it.
  for (int second = 0; second < 61 && result == -1; ++second) {
    clock.advanceMs(1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  while (result == -1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(result, QMErrors::e_CriticalSection_TimeOut);
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

TEST(QMCriticalSectionC, AUserWithoutASectionSaysSo) {
  User user(nullptr);
  EXPECT_EQ(user.EnterCriticalSection("x", 0), QMErrors::e_CriticalSectionUser_InvalidSection);
  EXPECT_EQ(user.LeaveCriticalSection("x"), QMErrors::e_CriticalSectionUser_InvalidSection);
}

TEST(QMCriticalSectionC, DestructionOfAHeldSectionIsReportedWithItsState) {
  qmtest::LogCapture log;
  std::string state;
  {
    QMCriticalSectionC* cell = nullptr;
    ASSERT_EQ(QMInitializeCriticalSectionEx(&cell, 0), NoError);
    EXPECT_EQ(QMEnterCriticalSectionEx(&cell, "leaver", 7, 0), NoError);
    EXPECT_EQ(QMEnterCriticalSectionEx(&cell, "leaver", 7, 0), NoError);
    std::ostringstream text;
    text << *cell << 255;
    state = text.str();
    EXPECT_EQ(QMDeleteCriticalSection(&cell), NoError);
    EXPECT_EQ(cell, nullptr);
  }
  std::ostringstream owner;
  owner << std::hex << qm::platform::currentThreadId();
  EXPECT_EQ(state.find("QMCriticalSectionC = {m_dwCurrentOwnerTID = " + owner.str() +
                       ", m_hSemaphore = 0x"),
            0u)
      << state;
  EXPECT_NE(state.find(", m_nLockCount = 2, m_pOwnerName = leaver, }255"), std::string::npos)
      << state;
  state.resize(state.size() - 3);
  EXPECT_EQ(
      log.text(),
      " ERROR: QMCriticalSectionC::~QMCriticalSectionC(): Critical section being deleted with "
      "imbalanced lock count: " +
          state + "\n");
}

TEST(QMCriticalSectionC, HandlesForCodeWithoutClasses) {
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
  EXPECT_EQ(std::strncmp(text, "0x", 2), 0);
  std::memset(text, '#', sizeof text);
  EXPECT_EQ(QMCriticalSectionToString(nullptr, text, 7), 24u);
  EXPECT_EQ(std::string(text, 8), "Invalid#");
  EXPECT_EQ(QMCriticalSectionToString(nullptr, nullptr, 0), 24u);
  EXPECT_EQ(QMDestroyCriticalSection(cell), NoError);

  QMCriticalSectionC* empty = nullptr;
  EXPECT_EQ(QMEnterCriticalSectionEx(nullptr, "c", 1, 0), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(QMEnterCriticalSectionEx(&empty, "c", 1, 0), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(QMLeaveCriticalSectionEx(&empty, "c", 1), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(log.text(), "");
}

std::string boxes;

TEST(QMCriticalSectionC, ReportsThroughMessageBoxesWhenAskedTo) {
  qmtest::LogCapture log;
  boxes.clear();
  const auto former =
      qm::platform::setPromptHook([](const char* text, const char* caption, UINT style) -> int {
        boxes += std::string(caption) + "|" + text + "|" + std::to_string(style) + "\n";
        return IDOK;
      });
  QMCriticalSectionC** const cell = QMCreateCriticalSection(1);
  EXPECT_EQ(QMLeaveCriticalSectionEx(cell, "c", 1), QMErrors::e_CriticalSection_NonOwnerLeave);
  QMDestroyCriticalSection(cell);
  qm::platform::setPromptHook(former);
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
    {
      User user(section);
      EXPECT_EQ(user.EnterCriticalSection("next", 30000), NoError);
    }
    delete section;
    first.join();
  }
}

class Contention : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(QMCriticalSectionC, Contention, testing::Values(2, 4));

TEST_P(Contention, ExcludesThreadsAndLosesNoWakeUp) {
  QMCriticalSectionC section;
  constexpr int kRounds = 50000;
  long counter = 0;  // plain on purpose: only the section guards it
  std::atomic<int> running{GetParam()};
  qmtest::LogCapture log;
  std::vector<std::thread> threads;
  for (int t = 0; t < GetParam(); ++t) {
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
  EXPECT_EQ(counter, GetParam() * kRounds + impatient);
}

}  // namespace
