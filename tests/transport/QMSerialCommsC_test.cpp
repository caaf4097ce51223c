#include "qmutils/transport/QMSerialCommsC.h"

#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

#include "qmutils/platform/serial_device.h"
#include "qmutils/platform/waitable.h"
#include "tests/platform/Handles.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"
#include "tests/transport/PseudoTerminal.h"

namespace {

using namespace std::chrono_literals;
using qm::platform::kLong;
using qmtest::PseudoTerminal;
using Clock = std::chrono::steady_clock;
using Settings = QMSerialCommsC::QMSerialCommSpecC;

constexpr QMErrors::QMErrorT kAborted = QMErrors::fromOsError(ERROR_OPERATION_ABORTED);
constexpr QMErrors::QMErrorT kNotOpen = QMErrors::fromOsError(ERROR_INVALID_HANDLE);

std::string textOf(QMErrors::QMErrorT code) { return QMErrToStr(code); }
std::string osText(DWORD number) { return textOf(QMErrors::fromOsError(number)); }

class SerialPort : public qm::platform::Handles {
 protected:
  SerialPort() {
    Settings settings = line_.settings();
    EXPECT_EQ(port_.open(settings), QMErrors::NoError);
  }

  QMErrors::QMErrorT get(DWORD timeout, void* kill = nullptr) {
    return port_.getTimed(ch_, timeout, kill);
  }
  QMErrors::QMErrorT put(DWORD timeout, void* kill = nullptr) {
    int ch = 'x';
    return port_.putTimed(ch, timeout, kill);
  }
  /// Writes until there is no more room.
  QMErrors::QMErrorT fill() {
    QMErrors::QMErrorT result;
    while ((result = put(0)) == QMErrors::NoError) {
    }
    return result;
  }

  qmtest::LogCapture log_{3};
  PseudoTerminal line_;
  QMSerialCommsC port_;
  int ch_ = -1;
};

TEST(QMSerialCommsC, TranslatesSettings) {
  const char* const kFlows[] = {"none", "xon/xoff", "rts/cts", "none"};
  for (unsigned i = 0; i <= 5; ++i) {
    const unsigned flow = i % 4, parity = i <= 4 ? i : 0;
    DCB dcb;
    std::memset(&dcb, 0xFF, sizeof dcb);
    Settings settings("X", 1200, 7, i, i % 3, flow, 0, 0);
    EXPECT_EQ(QMSerialCommsC::Translate("X", dcb, settings), QMErrors::NoError);
    EXPECT_TRUE(dcb.fParity == (parity != 0) && dcb.fRtsControl == (flow == 2) &&
                dcb.fDtrControl == 1 && !dcb.fOutxDsrFlow && !dcb.fNull && !dcb.fAbortOnError);
    std::ostringstream text;
    text << std::hex << dcb;
    EXPECT_EQ(text.str(), "Baud = 1200, Parity = " + std::to_string(parity) +
                              ", Data bits = 7, Stop bits = " + std::to_string(i % 3) +
                              ", Flow = " + kFlows[flow]);
  }
}

TEST_F(SerialPort, FailedOpensSayWhyAndLeaveThePortClosed) {
  const qmtest::TempFolder folder;
  qmtest::writeFile(folder.file("plain"), "");
  const std::string missing = folder.file("missing"), plain = folder.file("plain");
  PseudoTerminal other;
  Settings good = other.settings();
  struct Case {
    Settings settings;
    QMErrors::QMErrorT code;
    std::string line;
  } cases[] = {
      {Settings(missing.c_str(), 9600, 8, 0, 0, 0, 1, 1), QMErrors::FailedToOpenSerialComms,
       "open(): Failed opening: " + missing + " " + osText(ERROR_FILE_NOT_FOUND)},
      {Settings(plain.c_str(), 9600, 8, 0, 0, 0, 1, 1), QMErrors::FailedToSetUpSerialComms,
       "open(): Failed setting I/O queue sizes for: " + plain + " " + osText(1)},
      {line_.settings(0, 0, 0), QMErrors::FailedToSetUpSerialComms,
       "open(): Failed setting up comport:" + line_.name() +
           ", SetCommState() returned: " + osText(ERROR_INVALID_PARAMETER)},
      {line_.settings(3), QMErrors::FailedToSetUpSerialComms,
       "Translate(): Invalid number of stop bits: 3, for: " + line_.name()},
  };
  for (Case& c : cases) {
    EXPECT_TRUE(port_.open(good) == QMErrors::NoError && port_.good()) << c.line;
    log_.clear();
    EXPECT_EQ(port_.open(c.settings), c.code);
    EXPECT_EQ(log_.text(), " ERROR: QMSerialCommsC::" + c.line + "\n");
    EXPECT_EQ(get(0), kNotOpen);
  }
  EXPECT_TRUE(port_.fail() && port_.bad() && !port_.good());
  // The last failure stays until it is cleared; then nothing holds the device.
  EXPECT_EQ(port_.open(good), QMErrors::FailedToSetUpSerialComms);
  EXPECT_EQ(get(0), kNotOpen);
  port_.clear();
  EXPECT_EQ(port_.open(good), QMErrors::NoError);
}

TEST_F(SerialPort, BelongsToOneAlone) {
  Settings settings = line_.settings();
  QMSerialCommsC second;
  EXPECT_EQ(second.open(settings), QMErrors::FailedToOpenSerialComms);
  EXPECT_TRUE(log_.contains(line_.name() + " " + osText(ERROR_ACCESS_DENIED)));
  const pid_t child = fork();
  if (child == 0) _exit(second.open(settings) == QMErrors::FailedToOpenSerialComms ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);

  const pid_t holder = fork();  // has a copy of the descriptor
  if (holder == 0) {
    pause();
    _exit(0);
  }
  line_.send("xy");
  EXPECT_EQ(get(kLong), QMErrors::NoError);
  port_.close();
  EXPECT_EQ(second.open(settings), QMErrors::NoError);
  EXPECT_EQ(second.getTimed(ch_, 0, nullptr), QMErrors::CommandTimedOut) << "y came before";
  kill(holder, SIGKILL);
  ASSERT_EQ(waitpid(holder, &status, 0), holder);
}

TEST_F(SerialPort, StaysWithTheParentOfACopyThatLetsGo) {
  using namespace qm::platform;
  setModemLineSource([](ModemLines*) { return true; });
  PseudoTerminal otherLine, watchedLine;
  Settings settings = otherLine.settings();
  auto* const port = new QMSerialCommsC;
  ASSERT_EQ(port->open(settings), QMErrors::NoError);
  std::shared_ptr<SerialDevice> watched = SerialDevice::open(watchedLine.name().c_str());
  ASSERT_TRUE(watched->setEventMask(EV_RXCHAR) && watched->startEventWait(event(true, false)));
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    port_.close();
    delete port;
    watched.reset();
    std::_Exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  QMSerialCommsC second;
  for (const PseudoTerminal* line : {&line_, &otherLine, &watchedLine}) {
    settings = line->settings();
    EXPECT_EQ(second.open(settings), QMErrors::FailedToOpenSerialComms);
  }
  delete port;
  setModemLineSource(nullptr);
}

TEST_F(SerialPort, TextsAndTheStateWord) {
  std::ostringstream before, after;
  QMSerialCommsC second;
  second.GetComportDescriptor(before);
  before << second;
  EXPECT_EQ(before.str(), std::string("unknown\0unknown: could not get comm state.", 42));
  port_.close();
  setenv("QMUTILS_COM7", line_.name().c_str(), 1);
  Settings settings(7, 19200, 8, 0, 2, 1, 4096, 4096);
  EXPECT_EQ(port_.open(settings), QMErrors::NoError);
  unsetenv("QMUTILS_COM7");
  after << port_;
  EXPECT_EQ(after.str(),
            "COM7: Baud = 19200, Parity = 0, Data bits = 8, Stop bits = 2, Flow = xon/xoff");

  const char byte = '\xFE';
  port_ << "PING" << '\r' << byte << static_cast<const char*>(nullptr);
  EXPECT_EQ(line_.receive(6), "PING\r\xFE");
  line_.send("\xFFz");
  char got = 0;
  EXPECT_EQ(get(kLong), QMErrors::NoError);
  EXPECT_EQ(ch_, 255);
  port_ >> got;
  EXPECT_TRUE(got == 'z' && port_.good() && !port_.fail());
  EXPECT_EQ(port_.SetInputTimeout(10), INFINITE);
  port_ >> got;
  EXPECT_TRUE(got == 'z' && port_.fail() && port_.bad() && !port_.eof() && !port_.good());
  EXPECT_EQ(port_.SetInputTimeout(INFINITE), 10u);
  port_.SetKillEvent(event(true, true));
  port_ >> got;  // else it never ends
  fill();
  port_.clear();
  port_ << "never";
  EXPECT_FALSE(port_.good());
  for (const int flag : {1, 2, 4}) {
    port_.clear();
    port_.clear(flag);
    EXPECT_TRUE(port_.eof() == (flag == 1) && port_.fail() == (flag == 2) &&
                port_.bad() == (flag == 4) && port_.good());
  }
}

TEST_F(SerialPort, TimeOutsAreLogged) {
  const auto processorTime = [] {
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
  };
  const std::string start =
      " WARNING: QMSerialCommsC::getTimed(): TimedOut waiting for receiver after: ";
  const auto usedBefore = processorTime();
  const auto began = Clock::now();
  EXPECT_EQ(get(100), QMErrors::CommandTimedOut);
  const std::chrono::duration<double> took = Clock::now() - began;
  EXPECT_LT((processorTime() - usedBefore).count(), 50000) << "it polls";
  const std::string line = log_.text();
  ASSERT_TRUE(line.starts_with(start)) << line;
  const double seconds = std::strtod(line.c_str() + start.size(), nullptr);
  EXPECT_TRUE(seconds >= 0.1 && seconds <= took.count() + 0.001) << seconds;
  EXPECT_TRUE(line.ends_with(" Seconds, reason:" + textOf(QMErrors::CommandTimedOut) + "\n"));
  EXPECT_EQ(log_.lines()[0].level, 0u);

  EXPECT_EQ(fill(), QMErrors::CommandTimedOut);
  const std::string last = log_.lines().back().text;
  EXPECT_TRUE(last.starts_with(
                  " WARNING: QMSerialCommsC::putTimed(): TimedOut waiting overlapped after: ") &&
              last.ends_with(" Seconds\n"))
      << last;
}

// The far end answers just when the reader gives up.
TEST_F(SerialPort, AByteAtTheTimeOutStaysForTheNextRead) {
  constexpr int kRounds = 150;
  std::atomic<int> round{-1};
  std::thread device([&] {
    for (int i = 0; i < kRounds; ++i) {
      while (round < i) std::this_thread::yield();
      const auto when = Clock::now() + std::chrono::microseconds(900 + i % 50 * 10);
      while (Clock::now() < when) {
      }
      line_.send(std::string(1, static_cast<char>(i % 251)));
    }
  });
  int late = 0;
  for (int i = 0; i < kRounds; ++i) {
    round = i;
    QMErrors::QMErrorT result = get(1);
    if (result == QMErrors::CommandTimedOut) ++late, result = get(kLong);
    EXPECT_EQ(result, QMErrors::NoError);
    ASSERT_EQ(ch_, i % 251);
  }
  device.join();
  EXPECT_EQ(get(0), QMErrors::CommandTimedOut) << "a byte was doubled";
  EXPECT_GT(late, 0);
}

TEST_F(SerialPort, OnlyAWaitIsKilled) {
  const HANDLE kill = event(true, true);
  line_.send("b");
  while (get(INFINITE, kill) == QMErrors::TheDeviceWasToldToDie) {  // until it has come through
  }
  EXPECT_EQ(ch_, 'b');
  EXPECT_EQ(get(INFINITE, kill), QMErrors::TheDeviceWasToldToDie);
  EXPECT_EQ(put(INFINITE, kill), QMErrors::NoError);
  fill();
  EXPECT_EQ(put(INFINITE, kill), QMErrors::TheDeviceWasToldToDie);

  log_.clear();
  const HANDLE noEvent = this;
  EXPECT_EQ(get(INFINITE, noEvent), kNotOpen);
  EXPECT_EQ(put(INFINITE, noEvent), kNotOpen);
  for (const char* start : {"getTimed(): while waiting for m_hInputEvent or m_hKillEvent: ",
                            "putTimed(): while waiting for m_hOutputEvent or m_hKillEvent: "}) {
    EXPECT_TRUE(log_.contains(" ERROR: QMSerialCommsC::" + (start + textOf(kNotOpen)) + "\n"));
  }
}

TEST_F(SerialPort, TenThousandKillsLoseAndDoubleNoByte) {
  constexpr int kKills = 10000;
  const HANDLE kill = event(false, false);
  std::atomic<bool> done{false};
  std::atomic<unsigned> sent{0}, received{0};
  std::thread device([&] {  // and killer
    for (unsigned i = 0; !done; ++i) {
      qm::platform::setEvent(kill);
      if (i % 4 == 0 && sent - received < 64) line_.send(std::string(1, static_cast<char>(sent++)));
      for (std::atomic<unsigned> spin = 0; spin < i % 64; ++spin) {
      }
    }
  });
  for (int kills = 0; kills < kKills;) {
    // Most are there already, as each that comes later costs a change of threads.
    if (kills % 4 != 0) qm::platform::setEvent(kill);
    const QMErrors::QMErrorT result = get(kLong, kill);
    if (result == QMErrors::TheDeviceWasToldToDie) {
      ++kills;
    } else {
      EXPECT_EQ(result, QMErrors::NoError);
      EXPECT_EQ(ch_, static_cast<unsigned char>(received));
      if (HasFailure()) break;
      ++received;
    }
  }
  done = true;
  device.join();
  for (; received < sent; ++received) {
    EXPECT_EQ(get(kLong), QMErrors::NoError);
    ASSERT_EQ(ch_, static_cast<unsigned char>(received));
  }
  EXPECT_EQ(get(0), QMErrors::CommandTimedOut);
}

TEST_F(SerialPort, KillIOEndsWhatWaitsOnAllThreads) {
  fill();
  EXPECT_EQ(port_.KillIO(), QMErrors::NoError);
  EXPECT_EQ(get(0), QMErrors::CommandTimedOut) << "nothing waited when it was called";
  log_.clear();
  std::atomic<int> aborted{0};
  std::vector<std::thread> users;
  for (int i = 0; i < 6; ++i) {
    users.emplace_back([&, i] {
      int ch = 'x';
      aborted += (i % 2 == 0 ? port_.getTimed(ch, kLong, nullptr) : put(kLong)) == kAborted;
    });
  }
  while (aborted < 6) port_.KillIO();  // again for those that had not begun to wait
  for (std::thread& user : users) user.join();
  for (const char* label : {"getTimed", "putTimed"}) {
    EXPECT_TRUE(log_.contains(std::string(" ERROR: QMSerialCommsC::") + label +
                              "(): GetOverlappedResult(): returned: " + textOf(kAborted) + "\n"));
  }
  EXPECT_EQ(get(0), QMErrors::CommandTimedOut);

  port_.close();
  log_.clear();
  EXPECT_EQ(port_.KillIO(), kNotOpen);
  EXPECT_EQ(get(0), kNotOpen);
  EXPECT_EQ(put(0), kNotOpen);
  const std::string text = textOf(kNotOpen) + "\n";
  EXPECT_EQ(log_.text(), " ERROR: QMSerialCommsC::KillIO(): CancelIo() failed:" + text +
                             " ERROR: QMSerialCommsC::getTimed(): ReadFile() failed:" + text +
                             " ERROR: QMSerialCommsC::putTimed(): WriteFile() failed:" + text);
}

// Each writes its line slowly. An attempt in which one has not begun to wait in time does not
// count.
TEST_F(SerialPort, CancelledWaitsDoNotWaitForEachOthersLog) {
  static std::atomic<int> logging;
  const auto waitForBoth = [](unsigned, int, char*) {
    ++logging;
    for (int ms = 0; ms < 500 && logging < 2; ++ms) std::this_thread::sleep_for(1ms);
  };
  QMLogStreamC(waitForBoth, nullptr, nullptr, nullptr);
  bool together = false;
  for (int attempt = 0; attempt < 10 && !together; ++attempt) {
    logging = 0;
    int ch;
    std::thread reader([&] { port_.getTimed(ch, 1000, nullptr); });
    std::thread killer([&] {
      std::this_thread::sleep_for(30ms);
      port_.KillIO();
    });
    const auto began = Clock::now();
    (void)get(1000);
    reader.join();
    killer.join();
    together = Clock::now() - began < 400ms;
  }
  EXPECT_TRUE(together);
}

TEST_F(SerialPort, UnpluggingEndsWaits) {
  fill();
  QMErrors::QMErrorT read, written;
  std::thread reader([&] { read = get(kLong); });
  std::thread writer([&] { written = put(kLong); });
  std::this_thread::sleep_for(50ms);  // so that they wait, mostly; the results are the same
  line_.unplug();
  reader.join();
  writer.join();
  for (const QMErrors::QMErrorT result : {read, written, get(kLong), put(kLong)}) {
    EXPECT_EQ(result, QMErrors::EndOfFileError);
  }
}

TEST_F(SerialPort, ClosingEndsReadsAtAnyMoment) {
  int aborted = 0;
  for (int i = 0; i < 200; ++i) {
    std::atomic<bool> started{false};
    QMErrors::QMErrorT result;
    std::thread reader([&] {
      started = true;
      result = get(kLong);
    });
    while (!started) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(i));
    port_.close();
    QMSerialCommsC other;  // it is free at once, whether the reader has left or not
    Settings settings = line_.settings();
    EXPECT_EQ(other.open(settings), QMErrors::NoError);
    reader.join();
    EXPECT_TRUE(result == kAborted || result == kNotOpen) << result;
    aborted += result == kAborted;
    other.close();
    ASSERT_EQ(port_.open(settings), QMErrors::NoError);
  }
  EXPECT_GT(aborted, 0);
}

}  // namespace
