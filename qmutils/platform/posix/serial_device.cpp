#include "qmutils/platform/serial_device.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>

#include "qmutils/platform/posix/blocking_wait.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/line_settings.h"
#include "qmutils/platform/posix/line_watcher.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/posix/serial_name.h"
#include "qmutils/platform/short_lock.h"

namespace qm::platform {

namespace {

using namespace posix;

bool isInterrupted(long result) noexcept { return result < 0 && errno == EINTR; }

bool hasHungUp(int descriptor) noexcept {
  pollfd entry{descriptor, 0, 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & POLLHUP) != 0;
}

/// Raises or drops one line. A device without such lines, as a pseudo-terminal, is fine.
bool setModemLine(int descriptor, int line, bool raised) noexcept {
  if (ioctl(descriptor, raised ? TIOCMBIS : TIOCMBIC, &line) == 0) return true;
  return errno == ENOTTY || errno == EINVAL || errno == EIO || failWithErrno(errno);
}

class PosixSerialDevice final : public SerialDevice {
 public:
  explicit PosixSerialDevice(Descriptor descriptor) noexcept
      : descriptor_(std::move(descriptor)), watcher_(descriptor_.get(), traffic_) {
    lines_.fDtrControl = DTR_CONTROL_ENABLE;
    lines_.fRtsControl = RTS_CONTROL_ENABLE;
  }
  ~PosixSerialDevice() override { PosixSerialDevice::close(); }

  void close() noexcept override;
  bool isClosed() const noexcept override { return closed_.load(std::memory_order_acquire); }

  bool setQueueSizes(DWORD input, DWORD output) noexcept override;
  bool lineState(DCB* state) noexcept override;
  bool setLineState(const DCB& state) noexcept override;
  bool setImmediateReads() noexcept override;

  Transfer read(unsigned char* byte) noexcept override;
  Transfer write(unsigned char byte) noexcept override;
  DWORD waitReadable(const HANDLE* objects, std::size_t count,
                     const Deadline& deadline) noexcept override {
    return waitReady(descriptor_.get(), POLLIN, objects, count, deadline);
  }
  DWORD waitWritable(const HANDLE* objects, std::size_t count,
                     const Deadline& deadline) noexcept override {
    return waitReady(descriptor_.get(), POLLOUT, objects, count, deadline);
  }

  bool modemStatus(DWORD* status) noexcept override;
  bool setEventMask(DWORD mask) noexcept override { return watcher_.setMask(mask); }
  bool startEventWait(HANDLE event) noexcept override { return watcher_.startWait(event); }
  bool eventResult(DWORD* events) noexcept override { return watcher_.result(events); }

 private:
  bool isUsable() const noexcept { return !isClosed() || failWith(ERROR_INVALID_HANDLE); }
  bool get(termios2* settings) const noexcept {
    return ioctl(descriptor_.get(), TCGETS2, settings) == 0 || failWithErrno(errno);
  }
  bool set(const termios2& settings) const noexcept {
    return ioctl(descriptor_.get(), TCSETS2, &settings) == 0 || failWithErrno(errno);
  }
  Transfer outcome(ssize_t result, std::atomic<std::uint64_t>& traffic) const noexcept;

  const Descriptor descriptor_;  // closed by the destructor, when nobody can be using it
  LineTraffic traffic_;
  LineWatcher watcher_;
  std::atomic<bool> closed_{false};
  std::mutex settingsMutex_;
  DCB lines_{};  // under settingsMutex_; what the kernel does not remember of the settings
};

void PosixSerialDevice::close() noexcept {
  if (closed_.exchange(true)) return;
  watcher_.close();
  // Both explicitly, as the descriptor may last, with its users or in a forked copy; in this order,
  // as the next one to lock then forbids other opens.
  (void)ioctl(descriptor_.get(), TIOCNXCL);
  (void)flock(descriptor_.get(), LOCK_UN);
}

bool PosixSerialDevice::setQueueSizes(DWORD, DWORD) noexcept {
  // The kernel's queues have a size of their own and grow as they need.
  termios2 settings;
  return isUsable() && get(&settings);
}

bool PosixSerialDevice::lineState(DCB* state) noexcept {
  termios2 settings;
  if (!isUsable() || !get(&settings)) return false;
  const ShortLock guard(settingsMutex_);
  *state = lines_;
  readLineState(settings, state);
  return true;
}

bool PosixSerialDevice::setLineState(const DCB& state) noexcept {
  termios2 settings;
  if (!isUsable() || !get(&settings)) return false;
  if (!applyLineState(state, &settings) || !set(settings) || !get(&settings)) return false;
  // The driver takes the nearest speed that it has. What else it cannot do it leaves out, too, but
  // a pseudo-terminal has no frames and is of use all the same.
  if (!isSpeedUsable(state.BaudRate, settings.c_ospeed)) return failWith(ERROR_INVALID_PARAMETER);
  const int descriptor = descriptor_.get();
  if (!setModemLine(descriptor, TIOCM_DTR, state.fDtrControl != DTR_CONTROL_DISABLE) ||
      !setModemLine(descriptor, TIOCM_RTS, state.fRtsControl != RTS_CONTROL_DISABLE)) {
    return false;
  }
  const ShortLock guard(settingsMutex_);
  lines_ = state;
  return true;
}

bool PosixSerialDevice::setImmediateReads() noexcept {
  termios2 settings;
  if (!isUsable() || !get(&settings)) return false;
  // The descriptor does not block. With a least count of 0 a read without data would look like a
  // line that is gone.
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  return set(settings);
}

SerialDevice::Transfer PosixSerialDevice::outcome(
    ssize_t result, std::atomic<std::uint64_t>& traffic) const noexcept {
  if (result > 0) {
    traffic.fetch_add(static_cast<std::uint64_t>(result), std::memory_order_relaxed);
    return Transfer::Done;
  }
  if (result == 0) return Transfer::Ended;
  const int error = errno;
  if (error == EAGAIN) return Transfer::NotReady;
  if (error == EIO && hasHungUp(descriptor_.get())) return Transfer::Ended;
  failWithErrno(error);
  return Transfer::Failed;
}

SerialDevice::Transfer PosixSerialDevice::read(unsigned char* byte) noexcept {
  if (!isUsable()) return Transfer::Failed;
  ssize_t result;
  do result = ::read(descriptor_.get(), byte, 1);
  while (isInterrupted(result));
  return outcome(result, traffic_.read);
}

SerialDevice::Transfer PosixSerialDevice::write(unsigned char byte) noexcept {
  if (!isUsable()) return Transfer::Failed;
  ssize_t result;
  do result = ::write(descriptor_.get(), &byte, 1);
  while (isInterrupted(result));
  return outcome(result, traffic_.written);
}

bool PosixSerialDevice::modemStatus(DWORD* status) noexcept {
  ModemLines lines;
  if (!isUsable() || !readModemLines(descriptor_.get(), &lines)) return false;
  *status = lines.status;
  return true;
}

/// Makes the device this process' own; false with last error 5 when somebody has it.
bool claim(int descriptor) noexcept {
  // The superuser may open what others have forbidden to open, so there is a lock as well.
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    return failWith(errno == EWOULDBLOCK ? ERROR_ACCESS_DENIED : lastErrorFromErrno(errno));
  }
  // What is no serial line shows so at its first setting.
  return ioctl(descriptor, TIOCEXCL) == 0 || errno == ENOTTY || failWithErrno(errno);
}

}  // namespace

std::shared_ptr<SerialDevice> SerialDevice::open(const char* name) noexcept try {
  const NativePath path(serialDevicePath(name).c_str());
  if (!path.ok()) return nullptr;
  int number;
  do number = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  while (isInterrupted(number));
  if (number < 0) {
    if (errno == EBUSY) {
      failWith(ERROR_ACCESS_DENIED);
    } else {
      failOnPath(path.c_str());
    }
    return nullptr;
  }
  Descriptor descriptor(number);
  if (!claim(number)) return nullptr;
  return std::make_shared<PosixSerialDevice>(std::move(descriptor));
} catch (const std::bad_alloc&) {
  failWith(ERROR_NOT_ENOUGH_MEMORY);
  return nullptr;
}

}  // namespace qm::platform
