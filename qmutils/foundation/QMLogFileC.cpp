#include "qmutils/foundation/QMLogFileC.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <new>
#include <optional>
#include <ostream>
#include <utility>

#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/LogFileWriter.h"
#include "qmutils/foundation/LogStamp.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/SharedText.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/suspension_deferral.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace {

constexpr DWORD kLockTimeoutMs = 60'000;
constexpr DWORD kStepMs = 50;

// Destination bits of a line's mode.
constexpr int kToFile = 1;
constexpr int kToImmediate = 2;
constexpr int kToSystem = 4;
constexpr int kToUser = 8;

std::atomic<unsigned int> debugLevel{1};

/// The log of the process. The mutex guards the rest; it is made when the file is first named.
struct Log {
  std::atomic<HANDLE> mutex{nullptr};
  std::mutex mutexCreation;
  qm::LogFileWriter writer;
  // Held only while the source is changed or asked, so that it can always be taken back in time.
  std::recursive_mutex headerSourceLock;
  QMLogFileC* headerSource = nullptr;

  void createMutex() {
    const qm::platform::ShortLock lock(mutexCreation);
    if (mutex.load() == nullptr) mutex = qm::platform::createMutex(false);
  }
};

Log& theLog() {
  static qm::Immortal<Log> log;
  return log.value;
}

/// Holds the log's mutex while it lives; a wait that fails is reported on standard error. The
/// thread cannot be suspended meanwhile, which would stop every other thread at its next line.
class LogLock {
 public:
  LogLock() noexcept {
    take();
    if (result_ == WAIT_TIMEOUT) {
      const qm::SharedText name = theLog().writer.name();
      std::fprintf(stderr,
                   "QMLogFileC::DebugOut: ERROR: Timed out waiting for logfile mutex on:%s\n",
                   name.orEmpty());
    } else if (!isHeld()) {
      std::fprintf(stderr, "QMLogFileC::DebugOut: ERROR:  waiting for logfile mutex: %s\n",
                   QMErrToStr(QMErrors::lastOsError()));
    }
  }
  ~LogLock() {
    if (isHeld()) qm::platform::releaseMutex(theLog().mutex.load());
  }
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;

  /// Also when a thread ended without leaving it: what it wrote is whole lines.
  bool isHeld() const noexcept { return result_ == WAIT_OBJECT_0 || result_ == WAIT_ABANDONED; }
  /// For what may take long.
  void allowSuspension() noexcept { deferral_.reset(); }

 private:
  /// A line takes about a microsecond, waking a blocked thread ten times as long, and a mutex that
  /// is handed to a blocked thread blocks the next one too. So a thread looks again for some
  /// microseconds before it blocks.
  void take() noexcept {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
      if (tryTake(0)) return;
      qm::platform::sleep(0, false);
    }
    const auto deadline = qm::platform::Deadline::after(kLockTimeoutMs);
    while (!tryTake(std::min(deadline.remainingMs(), kStepMs)) && !deadline.passed()) {
    }
  }

  /// True when the wait has ended, well or badly. A suspension that was asked for during a step
  /// takes effect behind it.
  bool tryTake(DWORD timeoutMs) noexcept {
    deferral_.emplace();
    result_ = qm::platform::wait(theLog().mutex.load(), timeoutMs);
    if (result_ == WAIT_TIMEOUT) deferral_.reset();
    return result_ != WAIT_TIMEOUT;
  }

  std::optional<qm::platform::SuspensionDeferral> deferral_;
  DWORD result_ = WAIT_TIMEOUT;
};

void reportNoMemory(const char* label) noexcept {
  std::fprintf(stderr, "%s: %s\n", label, QMErrToStr(QMErrors::MemoryAllocationFailed));
}

}  // namespace

constinit std::atomic<bool> QMLogFileC::m_bTagLog{true};
constinit std::atomic<bool> QMLogFileC::m_bTagLogShowDate{false};
constinit std::atomic<bool> QMLogFileC::m_bTeeCerr{true};

QMLogFileC::QMLogFileC(bool teeCerr) : m_Log(nullptr, nullptr, nullptr, nullptr) {
  theLog().createMutex();
  m_bTeeCerr = teeCerr;
  const qm::platform::ShortLock lock(theLog().headerSourceLock);
  theLog().headerSource = this;
}

QMLogFileC::QMLogFileC(const char* name, bool autoDelete, bool dailyLog, bool teeCerr)
    : m_Log(nullptr, nullptr, nullptr, nullptr) {
  m_bTeeCerr = teeCerr;
  PSetName(name, autoDelete, dailyLog);
}

QMLogFileC::~QMLogFileC() { Close(); }

void QMLogFileC::Close() {
  if (std::exchange(m_bClosed, true)) return;
  {
    const qm::platform::ShortLock lock(theLog().headerSourceLock);
    if (theLog().headerSource == this) theLog().headerSource = nullptr;
  }
  const LogLock lock;
  if (lock.isHeld()) theLog().writer.forgetName();
}

const char* QMLogFileC::GetExtraHeaderInfo() { return nullptr; }

const char* QMLogFileC::extraHeaderInfo() {
  const qm::platform::ShortLock lock(theLog().headerSourceLock);
  QMLogFileC* const source = theLog().headerSource;
  if (source == nullptr) return "** No extra header info function defined.";
  const char* info = source->GetExtraHeaderInfo();
  return info != nullptr ? info : "** No extra header info available.";
}

void QMLogFileC::PSetName(const char* name, bool autoDelete, bool dailyLog) {
  theLog().createMutex();
  const LogLock lock;
  if (!lock.isHeld()) return;
  if (!theLog().writer.setName(name, autoDelete, dailyLog, true)) {
    reportNoMemory("QMLogFileC::PSetName");
  }
}

void QMLogFileC::SetName(const char* name, bool autoDelete, bool dailyLog) {
  PSetName(name, autoDelete, dailyLog);
}

void QMLogFileC::SetLogName(char* name) {
  theLog().createMutex();
  const LogLock lock;
  if (lock.isHeld() && !theLog().writer.setName(name)) reportNoMemory("QMLogFileC::SetLogName");
}

const char* QMLogFileC::GetLogName() {
  thread_local qm::SharedText held;
  held = theLog().writer.name();
  return held.c_str();
}

void QMLogFileC::SetDebugLevel(unsigned int level) { debugLevel = level; }
unsigned int QMLogFileC::GetDebugLevel() { return debugLevel.load(std::memory_order_relaxed); }

void QMLogFileC::DebugOut(unsigned int level, int mode, char* text) {
  if (!theLog().writer.isNamed() || text == nullptr) return;
  LogLock lock;
  if (!lock.isHeld()) return;
  if ((mode & kToFile) != 0) writeLine(level, text);
  lock.allowSuspension();
  if ((mode & kToImmediate) != 0) WriteToImmediate(level, text);
  if ((mode & kToSystem) != 0) WriteToSystem(level, text);
  if ((mode & kToUser) != 0) WriteToUser(level, text);
}

void QMLogFileC::WriteToFile(unsigned int level, char* text) {
  if (!theLog().writer.isNamed() || text == nullptr) return;
  const LogLock lock;
  if (lock.isHeld()) writeLine(level, text);
}

/// With the mutex held.
void QMLogFileC::writeLine(unsigned int level, const char* text) noexcept {
  const qm::LogFileStyle style{m_bTagLog, m_bTagLogShowDate, m_bTeeCerr, extraHeaderInfo};
  try {
    theLog().writer.write(level, text, style);
  } catch (const std::bad_alloc&) {
    reportNoMemory("QMLogFileC::WriteToFile");
  }
}

void QMLogFileC::WriteToImmediate(unsigned int, char* text) {
  qm::platform::messageBox(text, "QMLogFileC::WriteToImmediate", MB_OK);
}

void QMLogFileC::WriteToSystem(unsigned int, char* text) {
  qm::platform::messageBox(text, "QMLogFileC::WriteToSystem", MB_ICONHAND | MB_SYSTEMMODAL);
}

void QMLogFileC::WriteToUser(unsigned int, char* text) {
  qm::platform::messageBox(text, "QMLogFileC::WriteToUser", MB_OK);
}

void QMLogFileC::TagLog(std::ostream& os, unsigned int level) {
  if (!m_bTagLog) return;
  const qm::LogTag tag(qm::LogStamp::now(), m_bTagLogShowDate, level);
  os.write(tag.view().data(), static_cast<std::streamsize>(tag.view().size()));
}
