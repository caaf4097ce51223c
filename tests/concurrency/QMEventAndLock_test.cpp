#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "qmutils/concurrency/QMEventC.h"
#include "qmutils/concurrency/QMLockC.h"
#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace qm::platform;

TEST(QMEventC, AnswersInNumberAndWords) {
  void* const event = createEvent(true, true);
  void* const mutex = createMutex(false);
  std::thread([&] { wait(mutex, 0); }).join();  // abandoned
  void* const closed = createEvent(true, false);
  closeHandle(closed);
  const auto check = [](void* handle, bool signalled, DWORD code, const std::string& words) {
    DWORD result = 77;
    std::ostringstream report;
    EXPECT_EQ(QMEventC(handle).IsEventSignalled(&result, 0, &report), signalled);
    EXPECT_EQ(result, code);
    const std::string pointer(qm::PointerText(handle).view());
    EXPECT_EQ(report.str(), "QMEventC::IsEventSignalled(): Event:" + pointer + words);
  };
  check(event, true, WAIT_OBJECT_0, " is valid AND signalled.");
  resetEvent(event);
  check(event, false, WAIT_TIMEOUT, " is valid but NOT signalled.");
  check(mutex, true, WAIT_ABANDONED, " is valid but NOT signalled.");
  check(closed, true, WAIT_FAILED, " is invalid: Error: 6 (0x6) The handle is invalid.");
  check(nullptr, true, WAIT_FAILED, " is invalid: Error: 6 (0x6) The handle is invalid.");
  EXPECT_TRUE(QMEventC::IsEventSignalled(nullptr, nullptr, 0, nullptr));
  EXPECT_TRUE(QMEventC(closed).IsEventValid());
  EXPECT_FALSE(QMEventC().IsEventValid());
  closeHandle(event);
  closeHandle(mutex);
}

TEST(QMLockC, IsRecursiveAndLogsItsFailuresUnderItsOwner) {
  qmtest::LogCapture log;
  QMLockC lock("Spooler ", 20);
  EXPECT_EQ(lock.fail(), QMErrors::NoError);
  EXPECT_EQ(lock.lock(), QMErrors::NoError);
  EXPECT_EQ(lock.lock(), QMErrors::NoError);
  std::thread([&] {
    EXPECT_EQ(lock.unlock(), QMErrors::FailedToReleaseMutex);
    EXPECT_EQ(
        log.text(),
        " ERROR: QMLockC::unlock(): owner: Spooler releasing mutexError: 288 (0x120) The mutex "
        "is not owned by the caller.\n");
    log.clear();
    EXPECT_EQ(lock.lock(), QMErrors::CommandTimedOut);
    EXPECT_EQ(log.text(), " ERROR: QMLockC::lock(): owner: Spooler waiting for mutexNo Error: 0\n");
    log.clear();
  }).join();
  EXPECT_EQ(lock.unlock(), QMErrors::NoError);
  EXPECT_EQ(lock.unlock(), QMErrors::NoError);
  EXPECT_EQ(log.text(), "");
}

TEST(QMLockC, ALockOfAnEndedThreadIsTakenButReportedAsAFailure) {
  qmtest::LogCapture log;
  QMLockC lock(nullptr, 30000);
  std::thread([&] { EXPECT_EQ(lock.lock(), QMErrors::NoError); }).join();
  EXPECT_EQ(lock.lock(), QMErrors::CommandTimedOut);
  EXPECT_TRUE(log.contains("owner: unknownwaiting for mutex"));
  EXPECT_EQ(lock.unlock(), QMErrors::NoError) << "the caller holds it all the same";
  EXPECT_EQ(lock.lock(), QMErrors::NoError);
  EXPECT_EQ(lock.unlock(), QMErrors::NoError);
}

}  // namespace
