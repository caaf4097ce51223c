#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/serial_device.h"
#include "qmutils/transport/QMSerialCommsErrorEventC.h"
#include "qmutils/transport/QMSerialCommsEventC.h"
#include "tests/support/LogCapture.h"
#include "tests/transport/PseudoTerminal.h"

namespace {

using namespace std::chrono_literals;
using namespace qm::platform;
using qmtest::PseudoTerminal;
using Clock = std::chrono::steady_clock;

constexpr auto kLimit = 30s;  // a sound run never reaches it

/// Collects what it is told, then does what it was made for.
class ListenerC : public IQMSerialCommsEventListener {
 public:
  explicit ListenerC(QMSerialCommsC& port, std::function<void()> act = nullptr)
      : port_(port), act_(std::move(act)) {}
  ~ListenerC() override { port_.RemoveCommsEventListener(*this); }
  void OnEvent(IQMEventBase& event) override {
    {
      std::lock_guard lock(mutex_);
      told_.push_back(dynamic_cast<QMSerialCommsEventC&>(event));
      latest_ = Clock::now();
    }
    changed_.notify_all();
    if (act_) act_();
  }

  /// Waits for the n-th event and gives its status; all ones when it does not come.
  DWORD event(std::size_t n) {
    std::unique_lock lock(mutex_);
    const bool came = changed_.wait_for(lock, kLimit, [&] { return told_.size() >= n; });
    return came ? told_[n - 1] : ~DWORD{0};
  }
  std::size_t count() {
    std::lock_guard lock(mutex_);
    return told_.size();
  }
  Clock::time_point latest() {
    std::lock_guard lock(mutex_);
    return latest_;
  }

 private:
  QMSerialCommsC& port_;
  const std::function<void()> act_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<DWORD> told_;
  Clock::time_point latest_;
};

/// A port whose modem lines are the test's.
class SerialEvents : public testing::Test {
 protected:
  SerialEvents() {
    status_ = MS_CTS_ON;
    failing_ = false;
    setModemLineSource([](ModemLines* lines) {
      lines->status = status_;
      lines->ringChanges = rings_;
      return !failing_;  // without a reason
    });
    openPort();
  }
  ~SerialEvents() override { setModemLineSource(nullptr); }

  void openPort() {
    auto settings = line_.settings();
    EXPECT_EQ(port_.open(settings), QMErrors::NoError);
  }
  QMErrors::QMErrorT add(ListenerC& listener) { return port_.AddCommsEventListener(listener); }
  QMErrors::QMErrorT remove(ListenerC& listener) {
    return port_.RemoveCommsEventListener(listener);
  }
  static bool eventually(const std::function<bool()>& condition) {
    const auto limit = Clock::now() + kLimit;
    bool met;
    while (!(met = condition()) && Clock::now() < limit) std::this_thread::sleep_for(1ms);
    return met;
  }
  bool workerEnds() {
    return eventually([this] { return !port_.IsAlive(); });
  }
  static std::string exitLine(QMErrors::QMErrorT code) {
    return std::string(" WARNING: QMSerialCommsC::run(): Exiting with: ") + QMErrToStr(code) + "\n";
  }

  static inline std::atomic<DWORD> status_;
  static inline std::atomic<DWORD> rings_{0};
  static inline std::atomic<bool> failing_;
  qmtest::LogCapture log_{20};
  PseudoTerminal line_;
  QMSerialCommsC port_;
};

TEST(QMSerialCommsEventC, TellsLinesClassAndText) {
  const auto textOf = [](const QMSerialCommsEventBaseC& event) {
    std::ostringstream text;
    text << event << 255;
    return text.str();
  };
  QMSerialCommsEventC event(0x30);
  EXPECT_EQ(textOf(event), "QMSerialCommsEventC: 0x30: MS_CTS_ON, MS_DSR_ON, 255");
  event = MS_RING_ON | MS_RLSD_ON;
  EXPECT_EQ(DWORD(event), 0xC0u);
  EXPECT_EQ(textOf(event), "QMSerialCommsEventC: 0xc0: MS_RING_ON, MS_RLSD_ON, 255");
  QMSerialCommsErrorEventC error(QMErrors::NoError);
  error = QMErrors::CommandTimedOut;
  EXPECT_EQ(QMErrors::QMErrorT(error), QMErrors::CommandTimedOut);
  EXPECT_EQ(textOf(error), QMErrToStr(QMErrors::CommandTimedOut) + std::string("255"));
  EXPECT_TRUE(event.IsKindOf(&QMSerialCommsEventBaseC::classQMSerialCommsEventBaseC) &&
              event.IsKindOf(&QMObjectEventC::classQMObjectEventC));
  EXPECT_FALSE(error.IsKindOf(event.GetRuntimeClass()));
}

TEST_F(SerialEvents, ListenersLearnThePresentStateAndEachChange) {
  ListenerC a(port_), b(port_);
  EXPECT_FALSE(port_.IsAlive());
  EXPECT_EQ(add(a), QMErrors::NoError);
  EXPECT_EQ(a.event(1), MS_CTS_ON);
  EXPECT_EQ(add(b), QMErrors::NoError);
  EXPECT_EQ(b.event(1), MS_CTS_ON);
  EXPECT_EQ(a.event(2), MS_CTS_ON);
  EXPECT_EQ(add(a), QMErrors::NoError);
  EXPECT_TRUE(log_.contains(
      " WARNING: QMEventMulticasterC::AddListener(): Ignoring attempt to create duplicate entry "
      "for:" +
      std::string(qm::PointerText(static_cast<IQMSerialCommsEventListener*>(&a)).view()) + "\n"));
  EXPECT_EQ(a.event(3), MS_CTS_ON);
  EXPECT_EQ(b.event(2), MS_CTS_ON) << "all are told again";

  std::size_t n = 3;
  for (const DWORD status : {MS_DSR_ON, MS_RING_ON, MS_RLSD_ON, MS_CTS_ON}) {
    status_ = status;
    EXPECT_EQ(a.event(++n), status);
  }
  ++rings_;  // a pulse that is over
  EXPECT_EQ(a.event(++n), MS_CTS_ON);
  line_.send("x");
  EXPECT_EQ(a.event(++n), MS_CTS_ON);
  int ch = 0;
  EXPECT_EQ(port_.getTimed(ch, 0, nullptr), QMErrors::NoError);
  line_.send("y");  // as many unread bytes as before
  EXPECT_EQ(a.event(++n), MS_CTS_ON);
  EXPECT_EQ(port_.putTimed(ch, 0, nullptr), QMErrors::NoError);
  EXPECT_EQ(a.event(++n), MS_CTS_ON) << "everything is sent";
  status_ = MS_RING_ON;
  EXPECT_EQ(a.event(++n), MS_RING_ON) << "something was told twice";
  EXPECT_EQ(a.count(), n);
}

// Each change begins the interval anew. A busy machine may spoil an attempt.
TEST_F(SerialEvents, DebouncedChangesAreToldOnce) {
  constexpr auto kDebounce = 100ms;
  ListenerC listener(port_);
  add(listener);
  EXPECT_EQ(listener.event(1), MS_CTS_ON);
  port_.SetComEventDebounceTimeOutMS(kDebounce.count());
  bool once = false;
  for (int attempt = 0; attempt < 20 && !once; ++attempt) {
    const std::size_t before = listener.count();
    status_ = MS_DSR_ON;
    std::this_thread::sleep_for(40ms);
    status_ = MS_RING_ON;
    std::this_thread::sleep_for(40ms);
    const auto latest = Clock::now();
    status_ = MS_CTS_ON | MS_DSR_ON;
    once = listener.event(before + 1) == (MS_CTS_ON | MS_DSR_ON) &&
           listener.latest() - latest >= kDebounce;
    std::this_thread::sleep_for(3 * kDebounce);
    once = once && listener.count() == before + 1;
  }
  EXPECT_TRUE(once);
}

TEST_F(SerialEvents, TheWorkerLivesAsLongAsSomebodyListens) {
  ListenerC a(port_), b(port_);
  for (int i = 0; i < 20; ++i) {
    const std::size_t before = a.count();
    EXPECT_EQ(add(a), QMErrors::NoError);
    EXPECT_EQ(add(b), QMErrors::NoError);
    EXPECT_EQ(a.event(before + 1), MS_CTS_ON);
    EXPECT_EQ(remove(b), QMErrors::NoError);
    EXPECT_TRUE(port_.IsAlive());
    EXPECT_EQ(remove(a), QMErrors::NoError);
    EXPECT_FALSE(port_.IsAlive());
  }
  EXPECT_EQ(remove(a), QMErrors::NoError) << "not registered any more";

  // A stop that comes before it waits ends it quietly.
  EXPECT_TRUE(eventually([&] {
    log_.clear();
    const std::size_t before = a.count();
    add(a);
    EXPECT_EQ(a.event(before + 1), MS_CTS_ON);
    EXPECT_EQ(port_.stop(), QMErrors::NoError);
    const auto lines = log_.lines();
    return std::ranges::any_of(lines, [](const auto& line) {
      return line.level == 2 && line.text == exitLine(QMErrors::TheDeviceWasToldToDie);
    });
  }));
}

// The last one goes while it is called, when only the worker itself can end the worker, or is taken
// out by another thread; who comes registers others while it is called.
TEST_F(SerialEvents, WhoComesWhileTheLastOneGoesIsServed) {
  log_.setDebugLevel(0);
  std::minstd_rand random(1);
  ListenerC other(port_);
  for (int i = 0; i < 200; ++i) {
    const bool byItself = i % 2 == 0;
    ListenerC* self = nullptr;
    ListenerC leaving(port_, [&] {
      if (byItself) remove(*self);
    });
    self = &leaving;
    ListenerC coming(port_, [&] {
      const auto act = random() % 4;
      if (act == 0) add(other);
      if (act == 1) remove(other);
    });
    EXPECT_EQ(add(leaving), QMErrors::NoError);
    EXPECT_NE(leaving.event(1), ~DWORD{0});
    std::thread remover([&] {
      if (!byItself) remove(leaving);
    });
    std::this_thread::sleep_for(std::chrono::microseconds(i % 20 * 10));
    EXPECT_EQ(add(coming), QMErrors::NoError);
    if (i % 8 == 7) {
      port_.stop();
      EXPECT_EQ(add(coming), QMErrors::NoError);
    }
    remover.join();
    ASSERT_EQ(coming.event(1), status_) << i;
    status_ = status_ ^ MS_DSR_ON;
    ASSERT_TRUE(eventually([&] { return coming.event(coming.count()) == status_; })) << i;
    remove(coming);
    remove(other);
    ASSERT_FALSE(port_.IsAlive());
    if (!byItself) continue;
    ASSERT_EQ(add(leaving), QMErrors::NoError);
    ASSERT_TRUE(workerEnds());
  }
}

TEST_F(SerialEvents, ClosingEndsTheWorkerUntilSomebodyIsAddedAgain) {
  ListenerC a(port_), b(port_);
  EXPECT_EQ(add(a), QMErrors::NoError);
  EXPECT_EQ(a.event(1), MS_CTS_ON);
  port_.close();
  EXPECT_TRUE(workerEnds());
  EXPECT_TRUE(log_.contains(exitLine(QMErrors::fromOsError(ERROR_OPERATION_ABORTED))) ||
              log_.contains(exitLine(QMErrors::fromOsError(ERROR_INVALID_HANDLE))));
  EXPECT_EQ(a.count(), 1u) << "listeners are not told";
  EXPECT_EQ(add(b), QMErrors::NoError);
  EXPECT_TRUE(workerEnds()) << "nothing is open";

  // The worker that was watching may still be on its way out when somebody is added.
  for (int i = 0; i < 100; ++i) {
    openPort();
    const std::size_t before = a.count();
    EXPECT_EQ(add(b), QMErrors::NoError);
    ASSERT_EQ(a.event(before + 1), MS_CTS_ON) << i;
    if (i % 2 == 0) port_.close();
  }
}

TEST_F(SerialEvents, AListenerMayOpenThePortAnew) {
  std::atomic<bool> reopen{false};
  ListenerC other(port_);
  ListenerC reopening(port_, [&] {
    if (!reopen.exchange(false)) return;
    openPort();
    add(other);
  });
  add(reopening);
  EXPECT_EQ(reopening.event(1), MS_CTS_ON);
  reopen = true;
  status_ = MS_DSR_ON;
  EXPECT_TRUE(
      eventually([&] { return other.count() > 0 && other.event(other.count()) == MS_DSR_ON; }));
  const std::size_t before = reopening.count();
  status_ = MS_CTS_ON;
  EXPECT_EQ(reopening.event(before + 1), MS_CTS_ON);
}

TEST_F(SerialEvents, AFailureEndsTheWorkerWithItsText) {
  ListenerC listener(port_);
  add(listener);
  EXPECT_EQ(listener.event(1), MS_CTS_ON);
  failing_ = true;
  EXPECT_TRUE(workerEnds());
  EXPECT_TRUE(log_.contains(exitLine(QMErrors::fromOsError(ERROR_GEN_FAILURE))));
  failing_ = false;
  line_.unplug();
  add(listener);
  EXPECT_TRUE(workerEnds());
  EXPECT_TRUE(log_.contains(exitLine(QMErrors::fromOsError(1117))));
  EXPECT_EQ(listener.count(), 1u);

  // A pseudo-terminal has no modem lines of its own.
  setModemLineSource(nullptr);
  PseudoTerminal bare;
  auto settings = bare.settings();
  EXPECT_EQ(port_.open(settings), QMErrors::NoError);
  log_.clear();
  add(listener);
  EXPECT_TRUE(workerEnds());
  EXPECT_TRUE(log_.contains("Exiting with: "));
  EXPECT_EQ(listener.count(), 1u);
}

}  // namespace
