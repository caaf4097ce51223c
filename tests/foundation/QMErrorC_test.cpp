#include "qmutils/foundation/QMErrorC.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/platform/waitable.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TimeZone.h"

struct QMErrorStackTestAccess {
  static HANDLE mutex() { return QMErrorC::m_hMutex; }
};

namespace {

using QMErrors::QMErrorT;

const QMErrorT kTimedOut = QMErrors::CommandTimedOut;

/// Links records as callers with chains of their own do.
class ChainRecord : public QMErrorC {
 public:
  ChainRecord(const char* function, QMErrorT code) { Initialise(function, code, "reason"); }
  void linkTo(ChainRecord* next) {
    m_pNext = next;
    next->m_pPrevious = this;
  }
};

std::string textOf(QMErrorC* record, bool thisOnly, bool clearAfter) {
  return std::unique_ptr<char[]>(record->ToString(thisOnly, clearAfter)).get();
}

std::string stackText(bool clearAfter) {
  QMErrorC any;
  return textOf(&any, false, clearAfter);
}

class ErrorStack : public testing::Test {
 protected:
  ErrorStack() { QMErrorC::ClearStack(); }
  ~ErrorStack() override { QMErrorC::ClearStack(); }

  qmtest::TimeZone zone_{"EST+5"};
  qmtest::FakeClock clock_;
};

std::string line(const char* function, const char* code, const char* reason) {
  return std::string("At: 09:03:07.045 on: 06/11/2006, ERROR: ") + code +
         ", in FUNCTION: " + function + " REASON: " + reason + "\r\n";
}

TEST_F(ErrorStack, PrintsRecordsOldestFirstAndClears) {
  EXPECT_TRUE(QMErrorC::IsEmpty());
  EXPECT_EQ(stackText(false), "<Error Stack Empty>\n");
  EXPECT_EQ(QMErrorC::Stack("ReaderC::open", kTimedOut, "no answer"), 0) << "not the code";
  QMostrstream reason;
  reason << "plate " << 7 << std::ends;
  EXPECT_EQ(QMErrorC::Stack(nullptr, QMErrors::QMErrorT(0x20000005), reason), 0);
  QMstrstream none;
  EXPECT_EQ(QMErrorC::Stack("ReaderC::close", QMErrors::QMErrorT(-1), none), 0);
  const std::string expected =
      line("ReaderC::open", "0x000007dd Command timed out: 2013", "no answer") +
      line("", "0x20000005 Error: 5 (0x5) Access is denied.", "plate 7") +
      line("ReaderC::close", "0xffffffff Unrecognised Error Code: -1", "");
  EXPECT_EQ(stackText(false), expected);

  // The first record prints alone although it is linked, and clears what it is part of.
  EXPECT_EQ(textOf(QMErrorC::GetStack(), true, true), expected.substr(0, expected.find('\n') + 1));
  EXPECT_TRUE(QMErrorC::IsEmpty());
  EXPECT_EQ(QMErrorC::GetStack(), QMErrorC::NoError);
}

TEST_F(ErrorStack, TakesCopiesOfAChainOnce) {
  ChainRecord first("first", kTimedOut);
  ChainRecord second("second", QMErrors::MemoryAllocationFailed);
  first.linkTo(&second);
  clock_.advanceMs(5000);
  EXPECT_EQ(QMErrorC::Stack(&first), 0);
  EXPECT_EQ(QMErrorC::Stack(&first), 0);
  EXPECT_EQ(stackText(false),
            line("first", "0x000007dd Command timed out: 2013", "reason") +
                line("second", "0x000007d1 Memory allocation failed: 2001", "reason"));
  EXPECT_EQ(textOf(&first, true, false).find("second"), std::string::npos);
  EXPECT_EQ(QMErrorC::Stack(static_cast<QMErrorC*>(nullptr)), 0);
  EXPECT_EQ(QMErrorC::Stack(QMErrorC::NoError), 0);
}

TEST_F(ErrorStack, CopiesShowTheTextsOfTheirSourceAndLeaveTheListAlone) {
  QMErrorC* source = QMErrorC::Error("f", kTimedOut, "because", 0);
  auto* copy = new QMErrorC(*source);
  QMErrorC assigned;
  assigned = *copy;
  QMErrorC::DisposeHandle(source);
  EXPECT_EQ(textOf(copy, true, false), line("f", "0x000007dd Command timed out: 2013", "because"));
  QMErrorC::DisposeHandle(copy);
  EXPECT_EQ(assigned.GetError(), kTimedOut);

  for (const char* name : {"a", "b", "c"}) QMErrorC::Stack(name, kTimedOut, "");
  delete new QMErrorC(*QMErrorC::GetStack());
  EXPECT_NE(stackText(false).find("FUNCTION: c"), std::string::npos);
}

TEST_F(ErrorStack, DisposingTakesARecordAndItsFollowersOut) {
  for (QMErrorC* none :
       {static_cast<QMErrorC*>(nullptr), QMErrorC::NoError, QMErrorC::ErrCreateQMErr}) {
    QMErrorC::DisposeHandle(none);
  }
  EXPECT_EQ(QMErrorC::NoError->GetError(), 0);
  auto* head = new ChainRecord("head", kTimedOut);
  auto* tail = new ChainRecord("tail", kTimedOut);
  head->linkTo(tail);
  QMErrorC::DisposeHandle(tail);
  QMErrorC::DisposeHandle(head);  // does not follow the link to the deleted one
  QMErrorC::Stack("stacked", kTimedOut, "");
  QMErrorC::DisposeHandle(QMErrorC::GetStack());
  EXPECT_TRUE(QMErrorC::IsEmpty());
}

TEST_F(ErrorStack, LogsWhenAsked) {
  qmtest::LogCapture log;
  for (int asked : {0, 1, 2}) {
    QMErrorC::DisposeHandle(QMErrorC::Error("ReaderC::open", kTimedOut, "no answer", asked));
  }
  QMstrstream reason;
  reason << "streamed";
  QMErrorC::DisposeHandle(QMErrorC::Error(nullptr, kTimedOut, reason, 1));
  EXPECT_EQ(log.text(),
            " ERROR: ReaderC::open2013 Reason: no answer\n ERROR: 2013 Reason: streamed\n");
  EXPECT_EQ(log.lines()[0].level, 0u);
  EXPECT_EQ(reason.text(), "streamed") << "the stream goes on";
}

TEST_F(ErrorStack, RunningOutOfMemoryGivesTheCodes) {
  QMErrorC::Stack("first", kTimedOut, "the mutex exists from here on");
  const std::string before = stackText(false);
  qmtest::LogCapture log;
  int failures = 0;
  for (int n = 1;; ++n, ++failures) {
    QMErrorT result;
    bool failed;
    {
      qmtest::FailingAllocation nth(n);
      result = QMErrorC::Stack("function", kTimedOut, "reason");
      failed = nth.hasFailed();
    }
    if (!failed) break;
    EXPECT_EQ(result, QMErrors::FailedToCreateQMErrorHandle);
    EXPECT_EQ(stackText(false), before);
  }
  EXPECT_GE(failures, 3) << "record and two texts";
  EXPECT_TRUE(log.lines().empty());
  {
    qmtest::FailingAllocation nth(1);
    EXPECT_EQ(QMErrorC::Error("f", kTimedOut, "r", 1), QMErrorC::ErrCreateQMErr);
  }
  ChainRecord record("chained", kTimedOut);
  for (int n = 1; n <= 3; ++n) {
    log.clear();
    {
      qmtest::FailingAllocation nth(n);
      EXPECT_EQ(QMErrorC::Stack(&record), QMErrors::MemoryAllocationFailed);
    }
    EXPECT_EQ(log.text(), " ERROR: QMErrorC::Stack: Allocating copy for stack\n");
  }
  {
    qmtest::FailingAllocation nth(2);
    EXPECT_EQ(QMErrorC::NoError->ToString(false, true), nullptr);
  }
  EXPECT_FALSE(QMErrorC::IsEmpty()) << "a text that could not be handed out must not be lost";
}

TEST_F(ErrorStack, GoesOnAfterTheLocksTimeOut) {
  QMErrorC::Stack("first", kTimedOut, "");
  qmtest::LogCapture log;
  std::latch held(1), release(1);
  std::thread holder([&] {
    qm::platform::wait(QMErrorStackTestAccess::mutex(), INFINITE);
    held.count_down();
    release.wait();
    qm::platform::releaseMutex(QMErrorStackTestAccess::mutex());
  });
  held.wait();
  std::atomic<bool> stacked{false};
  std::thread caller([&] {
    EXPECT_EQ(QMErrorC::Stack("second", kTimedOut, ""), 0);
    stacked = true;
  });
  clock_.advanceMs(59'900);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(stacked) << "gave up before its minute was over";
  while (!stacked) {
    clock_.advanceMs(200);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  caller.join();
  EXPECT_EQ(log.text(), " ERROR: QMErrorC::LockStack(): 1Timed out waiting for m_hMutex\n");
  EXPECT_NE(stackText(false).find("second"), std::string::npos);
  release.count_down();
  holder.join();
}

TEST_F(ErrorStack, ManyThreadsStackPrintAndClear) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        QMErrorC::Stack("worker", kTimedOut, "reason");
        const std::string text = stackText(t == 0 && i % 10 == 0);
        EXPECT_EQ(text.back(), '\n');
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string text = stackText(true);
  EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 800);
  EXPECT_TRUE(QMErrorC::IsEmpty());
}

}  // namespace
