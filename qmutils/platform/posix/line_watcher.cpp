#include "qmutils/platform/posix/line_watcher.h"

#include <linux/serial.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/process_generation.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {

namespace {

std::atomic<ModemLineSource> installedSource{nullptr};

}  // namespace

ModemLineSource setModemLineSource(ModemLineSource source) noexcept {
  return installedSource.exchange(source);
}

namespace posix {

namespace {

constexpr DWORD kLookEveryMs = 4;

DWORD statusOf(int lines) noexcept {
  return ((lines & TIOCM_CTS) != 0 ? MS_CTS_ON : 0) | ((lines & TIOCM_DSR) != 0 ? MS_DSR_ON : 0) |
         ((lines & TIOCM_RNG) != 0 ? MS_RING_ON : 0) | ((lines & TIOCM_CAR) != 0 ? MS_RLSD_ON : 0);
}

}  // namespace

bool readModemLines(int descriptor, ModemLines* lines) noexcept {
  *lines = ModemLines{};
  if (const ModemLineSource source = installedSource.load()) {
    setLastError(ERROR_GEN_FAILURE);  // of a source that fails without saying why
    return source(lines);
  }
  int bits = 0;
  if (ioctl(descriptor, TIOCMGET, &bits) != 0) return failWithErrno(errno);
  lines->status = statusOf(bits);
  serial_icounter_struct counters = {};
  // Not every driver counts; what it sees of the lines is then all there is.
  if (ioctl(descriptor, TIOCGICOUNT, &counters) != 0) return true;
  lines->ctsChanges = static_cast<DWORD>(counters.cts);
  lines->dsrChanges = static_cast<DWORD>(counters.dsr);
  lines->ringChanges = static_cast<DWORD>(counters.rng);
  lines->rlsdChanges = static_cast<DWORD>(counters.dcd);
  lines->breaks = static_cast<DWORD>(counters.brk);
  lines->errors = static_cast<DWORD>(counters.frame) + static_cast<DWORD>(counters.overrun) +
                  static_cast<DWORD>(counters.parity) + static_cast<DWORD>(counters.buf_overrun);
  return true;
}

LineWatcher::LineWatcher(int descriptor, const LineTraffic& traffic) noexcept
    : generation_(processGeneration()),
      descriptor_(descriptor),
      traffic_(traffic),
      wake_(createEvent(false, false)) {}

bool LineWatcher::isCopy() const noexcept { return generation_ != processGeneration(); }

LineWatcher::~LineWatcher() {
  if (isCopy()) return;  // with what the thread was using at that moment
  close();
  if (thread_ != nullptr) {
    (void)wait(thread_, INFINITE);
    closeHandle(thread_);
  }
  if (wake_ != nullptr) closeHandle(wake_);
}

bool LineWatcher::take(Look* look) const noexcept {
  // The count before what is there: a byte read in between is missed until the next look, and never
  // counted twice.
  const std::uint64_t read = traffic_.read;
  int unread = 0;
  if (ioctl(descriptor_, FIONREAD, &unread) != 0) return failWithErrno(errno);
  look->received = read + static_cast<std::uint64_t>(unread);
  look->written = traffic_.written;
  if (ioctl(descriptor_, TIOCOUTQ, &look->unsent) != 0) return failWithErrno(errno);
  return readModemLines(descriptor_, &look->lines);
}

DWORD LineWatcher::eventsBetween(const Look& before, const Look& now) noexcept {
  const ModemLines& was = before.lines;
  const ModemLines& is = now.lines;
  const DWORD changed = was.status ^ is.status;
  DWORD events = 0;
  const auto note = [&events](DWORD event, bool happened) { events |= happened ? event : 0; };
  note(EV_RXCHAR, now.received > before.received);
  note(EV_TXEMPTY, now.unsent == 0 && (before.unsent != 0 || now.written != before.written));
  note(EV_CTS, (changed & MS_CTS_ON) != 0 || was.ctsChanges != is.ctsChanges);
  note(EV_DSR, (changed & MS_DSR_ON) != 0 || was.dsrChanges != is.dsrChanges);
  note(EV_RLSD, (changed & MS_RLSD_ON) != 0 || was.rlsdChanges != is.rlsdChanges);
  note(EV_RING, (changed & MS_RING_ON) != 0 || was.ringChanges != is.ringChanges);
  note(EV_BREAK, was.breaks != is.breaks);
  note(EV_ERR, was.errors != is.errors);
  return events;
}

/// Adds what has happened since the latest look.
bool LineWatcher::update() noexcept {
  Look now;
  if (!take(&now)) return false;
  happened_ |= eventsBetween(latest_, now) & mask_;
  now.received = std::max(now.received, latest_.received);
  latest_ = now;
  return true;
}

/// Ends the outstanding wait, with an error or because something has happened.
void LineWatcher::report(DWORD error) noexcept {
  error_ = error;
  happened_ = 0;
  if (waiter_ != nullptr) setEvent(std::exchange(waiter_, nullptr));
}

bool LineWatcher::setMask(DWORD mask) noexcept {
  if (isCopy()) return failWith(ERROR_INVALID_HANDLE);
  const std::lock_guard guard(mutex_);
  if (closed_) return failWith(ERROR_INVALID_HANDLE);
  mask_ = mask;
  happened_ = 0;
  report(ERROR_SUCCESS);
  return mask == 0 || take(&latest_);
}

bool LineWatcher::startWait(HANDLE event) noexcept {
  if (isCopy()) return failWith(ERROR_INVALID_HANDLE);
  const std::lock_guard guard(mutex_);
  if (closed_) return failWith(ERROR_INVALID_HANDLE);
  if (waiter_ != nullptr || event == nullptr) return failWith(ERROR_INVALID_PARAMETER);
  if (!update() || !ensureThread()) return false;
  waiter_ = event;
  if (happened_ != 0) {
    report(ERROR_SUCCESS);
  } else {
    setEvent(wake_);
  }
  return true;
}

bool LineWatcher::result() noexcept {
  const std::lock_guard guard(mutex_);
  if (waiter_ != nullptr) return failWith(ERROR_IO_INCOMPLETE);
  return error_ == ERROR_SUCCESS || failWith(error_);
}

void LineWatcher::close() noexcept {
  const std::lock_guard guard(mutex_);
  if (std::exchange(closed_, true)) return;
  if (waiter_ != nullptr) report(ERROR_OPERATION_ABORTED);
  setEvent(wake_);
}

bool LineWatcher::ensureThread() noexcept {
  if (wake_ == nullptr) return failWith(ERROR_NOT_ENOUGH_MEMORY);
  if (thread_ == nullptr) thread_ = startThread(&LineWatcher::watch, this, nullptr);
  return thread_ != nullptr;
}

DWORD LineWatcher::watch(void* watcher) {
  LineWatcher& self = *static_cast<LineWatcher*>(watcher);
  for (DWORD pause = INFINITE;;) {
    (void)wait(self.wake_, pause);
    const std::lock_guard guard(self.mutex_);
    if (self.closed_) return 0;
    if (self.waiter_ != nullptr) {
      if (!self.update()) {
        self.report(lastError());
      } else if (self.happened_ != 0) {
        self.report(ERROR_SUCCESS);
      }
    }
    pause = self.waiter_ != nullptr ? kLookEveryMs : INFINITE;
  }
}

}  // namespace posix

}  // namespace qm::platform
