#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/platform/program.h"
#include "qmutils/platform/standard_streams.h"
#include "qmutils/platform/waitable.h"
#include "qmutils/transport/QMSerialCommsC.h"
#include "qmutils/transport/QMSerialCommsEventC.h"

namespace programs {
namespace {

using Settings = QMSerialCommsC::QMSerialCommSpecC;

constexpr DWORD kWriterPauseMs = 5;
constexpr unsigned kQueueSize = 4096;
constexpr std::size_t kWrittenAtOnce = 4096;

// The numbers of these words are their places.
constexpr const char* kParities[] = {"none", "odd", "even", "mark", "space"};
constexpr const char* kStopBits[] = {"1", "1.5", "2"};
constexpr const char* kFlows[] = {"none", "xonxoff", "rtscts"};

struct Options {
  std::string port;
  long long baud = 9600;
  long long dataBits = 8;
  unsigned parity = 0;
  unsigned stopBits = 0;
  unsigned flow = 0;
  bool watch = false;
  long long debounceMs = 0;
  long long lingerMs = 1000;
  unsigned level = 0;
  bool hasPort = false;
};

template <std::size_t count>
bool parseWord(const std::string& text, const char* const (&words)[count], unsigned& number) {
  const auto* const found = std::find(std::begin(words), std::end(words), text);
  number = static_cast<unsigned>(found - std::begin(words));
  return found != std::end(words);
}

/// Remembers why its worker has ended.
class PortC : public QMSerialCommsC {
 public:
  ~PortC() override { (void)stop(); }
  QMErrors::QMErrorT workerResult() const { return m_Result; }

 protected:
  QMErrors::QMErrorT run() override {
    const QMErrors::QMErrorT result = QMSerialCommsC::run();
    m_Result = result;
    return result;
  }

 private:
  std::atomic<QMErrors::QMErrorT> m_Result{QMErrors::NoError};
};

/// Bytes between standard streams and the line, each direction on a thread of its own.
class Terminal {
 public:
  Terminal(QMSerialCommsC& port, Console& console)
      : port_(port), console_(console), reader_([this] { read(); }), writer_([this] { write(); }) {}
  /// The console must be closed, as the reader may wait to print.
  ~Terminal() {
    qm::platform::setEvent(leave_);
    reader_.join();
    writer_.join();
    qm::platform::closeHandle(leave_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// Until an interrupt, a failure, or a quiet while after the end of the input.
  void run(long long lingerMs) {
    while (console_.goesOn() && failure() == QMErrors::NoError) {
      outgoing_.add(console_.step(!outgoing_.isFull()));
      const bool allDone = console_.inputHasEnded() && isAllWritten() && console_.hasWrittenAll();
      if (!allDone) lastMove_ = Clock::now();
      const auto quiet = Clock::now() - lastMove_.load();
      if (allDone && quiet > std::chrono::milliseconds(lingerMs)) return;
    }
  }

  QMErrors::QMErrorT failure() const { return failure_; }
  bool isAllWritten() { return outgoing_.size() == 0 && !writing_; }

 private:
  void read() {
    int byte = 0;
    QMErrors::QMErrorT result;
    while ((result = port_.getTimed(byte, INFINITE, leave_)) == QMErrors::NoError) {
      lastMove_ = Clock::now();
      const char c = static_cast<char>(byte);
      console_.print({&c, 1});
    }
    end(result);
  }

  void write() {
    QMErrors::QMErrorT result = QMErrors::NoError;
    while (result == QMErrors::NoError && qm::platform::wait(leave_, 0) == WAIT_TIMEOUT) {
      writing_ = true;
      const std::string text = outgoing_.take(kWrittenAtOnce);
      for (std::size_t i = 0; i < text.size() && result == QMErrors::NoError; ++i) {
        int byte = text[i];
        result = port_.putTimed(byte, INFINITE, leave_);
      }
      if (result == QMErrors::NoError) writing_ = false;
      if (text.empty()) (void)qm::platform::wait(leave_, kWriterPauseMs);
    }
    end(result);
  }

  void end(QMErrors::QMErrorT result) {
    if (result != QMErrors::NoError && result != QMErrors::TheDeviceWasToldToDie) {
      failure_ = result;
    }
  }

  QMSerialCommsC& port_;
  Console& console_;
  const HANDLE leave_ = qm::platform::createEvent(true, false);
  TextQueue outgoing_;
  std::atomic<bool> writing_{false};
  std::atomic<QMErrors::QMErrorT> failure_{QMErrors::NoError};
  std::atomic<Clock::time_point> lastMove_{Clock::now()};
  std::thread reader_;
  std::thread writer_;
};

int exchange(QMSerialCommsC& port, Console& console, long long lingerMs) {
  const qm::platform::KeyByKey keys;
  Terminal terminal(port, console);
  terminal.run(lingerMs);
  console.close();
  if (terminal.failure() == QMErrors::EndOfFileError) {
    console.note("testtool serial: the device has gone");
  }
  if (!terminal.isAllWritten()) console.note("testtool serial: not all was written");
  return terminal.failure() == QMErrors::NoError && terminal.isAllWritten() ? kSuccess : kFailure;
}

/// Prints what the lines of the modem say.
class LinePrinter : public IQMSerialCommsEventListener {
 public:
  explicit LinePrinter(Console& console) : console_(console) {}
  void OnEvent(IQMEventBase& event) override {
    if (auto* const lines = dynamic_cast<QMSerialCommsEventBaseC*>(&event)) {
      std::ostringstream text;
      text << *lines;
      console_.printLine("", text.str());
    }
  }

 private:
  Console& console_;
};

int watch(PortC& port, Console& console, long long debounceMs) {
  LinePrinter printer(console);
  port.SetComEventDebounceTimeOutMS(static_cast<DWORD>(debounceMs));
  QMErrors::QMErrorT failure = port.AddCommsEventListener(printer);
  while (failure == QMErrors::NoError && console.goesOn()) {
    (void)console.step(false);
    failure = port.workerResult();
  }
  if (failure != QMErrors::NoError) {
    console.note("testtool serial: the lines cannot be watched: " +
                 std::string(QMErrToStr(failure)));
  }
  console.close();
  (void)port.RemoveCommsEventListener(printer);
  return failure == QMErrors::NoError ? kSuccess : kFailure;
}

/// Takes an option and its value; what is wrong with it, or an empty text.
std::string takeOption(const Arguments& arguments, std::size_t& i, Options& options) {
  const std::string& name = arguments[i];
  if (name == "--watch") {
    options.watch = true;
    return {};
  }
  if (!name.starts_with("-") && !options.hasPort) {
    options.port = name;
    options.hasPort = true;
    return {};
  }
  std::string value;
  if (!takeValue(arguments, i, value)) return "unknown argument '" + name + "'";
  const std::string wrong = "'" + value + "' is nothing for " + name;
  bool fits = false;
  if (name == "--baud") {
    fits = parseNumber(value, 1LL, 4'294'967'295LL, options.baud);
  } else if (name == "--bits") {
    fits = parseNumber(value, 5LL, 8LL, options.dataBits);
  } else if (name == "--parity") {
    fits = parseWord(value, kParities, options.parity);
  } else if (name == "--stop") {
    fits = parseWord(value, kStopBits, options.stopBits);
  } else if (name == "--flow") {
    fits = parseWord(value, kFlows, options.flow);
  } else if (name == "--debounce") {
    fits = parseNumber(value, 0LL, 60'000LL, options.debounceMs);
  } else if (name == "--linger") {
    fits = parseNumber(value, 0LL, 86'400'000LL, options.lingerMs);
  } else if (name == "--log") {
    fits = parseLogLevel(value, options.level);
  } else {
    return "unknown argument '" + name + "'";
  }
  return fits ? std::string() : wrong;
}

int run(const Arguments& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string complaint = takeOption(arguments, i, options);
    if (!complaint.empty()) return usageError(kSerialCommand, complaint);
  }
  if (options.port.empty()) return usageError(kSerialCommand, "no port given");
  showLogLines(options.level);
  qm::platform::noteInterrupts();
  PortC port;
  Settings settings(options.port.c_str(), static_cast<unsigned>(options.baud),
                    static_cast<unsigned>(options.dataBits), options.parity, options.stopBits,
                    options.flow, kQueueSize, kQueueSize);
  const QMErrors::QMErrorT opened = port.open(settings);
  if (opened != QMErrors::NoError) return kFailure;  // the reason is in the log
  std::ostringstream text;
  text << port;
  Console console;
  console.note(text.str() + ", Ctrl-C ends");
  const int status = options.watch ? watch(port, console, options.debounceMs)
                                   : exchange(port, console, options.lingerMs);
  endThread(port);
  console.finish();
  return status;
}

}  // namespace

const Command kSerialCommand = {
    "serial", "talk to a device at a serial port",
    "usage: testtool serial PORT [OPTIONS]\n"
    "Opens a serial port (COM1, or a path as /dev/ttyUSB0) and exchanges bytes with it: keys, or "
    "what\n"
    "stands in standard input, go out; what comes in is printed as it is. Ctrl-C ends; so does the "
    "end\n"
    "of the input, once all is written and nothing has come for a while.\n"
    "  --baud N        bits per second (9600)\n"
    "  --bits N        data bits, 5 to 8 (8)\n"
    "  --parity P      none, odd, even, mark or space (none)\n"
    "  --stop S        1, 1.5 or 2 stop bits (1)\n"
    "  --flow F        none, xonxoff or rtscts (none)\n"
    "  --watch         print the modem lines now and whenever something happens on the line, and "
    "take\n"
    "                  and write nothing\n"
    "  --debounce MS   changes that follow each other within this time are printed once (0)\n"
    "  --linger MS     how long nothing must come after the end of the input (1000)\n"
    "  --log LEVEL     print the library's log lines up to this level (0: errors and warnings)\n"
    "COMn is /dev/ttyS(n-1) unless the environment variable QMUTILS_COMn names another device.\n",
    run};

}  // namespace programs
