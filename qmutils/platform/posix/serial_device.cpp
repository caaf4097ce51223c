#include "qmutils/platform/serial_device.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
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
#include "qmutils/platform/posix/process_generation.h"
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

/// Raises or drops one line. Fails for a device that is gone only: others are of use without, as a
/// pseudo-terminal or an adapter that refuses the request.
bool setModemLine(int descriptor, int line, bool raised) noexcept {
  if (ioctl(descriptor, raised ? TIOCMBIS : TIOCMBIC, &line) == 0) return true;
  const int error = errno;
  return !hasHungUp(descriptor) || failWithErrno(error);
}

bool isPseudoTerminal(int descriptor) noexcept {
  constexpr unsigned kFirstMajor = 136, kLastMajor = 143;
  struct stat status;
  if (fstat(descriptor, &status) != 0) return false;
  const unsigned number = major(status.st_rdev);
  return number >= kFirstMajor && number <= kLastMajor;
}

class PosixSerialDevice final : public SerialDevice {
 public:
  explicit PosixSerialDevice(Descriptor descriptor) noexcept
      : descriptor_(std::move(descriptor)), watcher_(descriptor_.get(), traffic_) {}
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
  bool eventResult() noexcept override { return watcher_.result(); }

 private:
  bool isUsable() const noexcept { return !isClosed() || failWith(ERROR_INVALID_HANDLE); }
  bool get(termios2* settings) const noexcept {
    return ioctl(descriptor_.get(), TCGETS2, settings) == 0 || failWithErrno(errno);
  }
  bool set(const termios2& settings) const noexcept {
    return ioctl(descriptor_.get(), TCSETS2, &settings) == 0 || failWithErrno(errno);
  }
  template <class Call>
  Transfer transfer(std::mutex& mutex, std::atomic<std::uint64_t>& traffic, Call call) noexcept;
  Transfer outcome(ssize_t result, std::atomic<std::uint64_t>& traffic) const noexcept;

  const unsigned generation_ = processGeneration();
  const Descriptor descriptor_;  // closed by the destructor, when nobody can be using it
  LineTraffic traffic_;
  LineWatcher watcher_;
  // One for each direction. Held from the look at closed_ to the end of the system call, which
  // never blocks, so that none meets a device that others have opened since. It also keeps writers
  // apart, of which the kernel would send one away as if there were no room.
  std::mutex readMutex_;
  std::mutex writeMutex_;
  std::atomic<bool> closed_{false};  // set under both
};

void PosixSerialDevice::close() noexcept {
  // A forked copy shares the lock and the exclusion with the process that opened the device, and
  // has mutexes that threads may hold which it does not have.
  if (generation_ != processGeneration()) {
    closed_ = true;
    return;
  }
  {
    const ShortLock reads(readMutex_);
    const ShortLock writes(writeMutex_);
    if (closed_.exchange(true)) return;
  }
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
  readLineState(settings, state);
  return true;
}

bool PosixSerialDevice::setLineState(const DCB& state) noexcept {
  const int descriptor = descriptor_.get();
  termios2 asked, actual;
  if (!isUsable() || !get(&asked)) return false;
  if (!applyLineState(state, &asked) || !set(asked) || !get(&actual)) return false;
  // The driver takes the nearest speed that it has, and leaves out what else it cannot do. A
  // pseudo-terminal has no frames and is of use all the same.
  if (!isSpeedUsable(state.BaudRate, actual.c_ospeed) ||
      (!hasTakenFrameAndFlow(asked, actual) && !isPseudoTerminal(descriptor))) {
    return failWith(ERROR_INVALID_PARAMETER);
  }
  return setModemLine(descriptor, TIOCM_DTR, state.fDtrControl != DTR_CONTROL_DISABLE) &&
         setModemLine(descriptor, TIOCM_RTS, state.fRtsControl != RTS_CONTROL_DISABLE);
}

bool PosixSerialDevice::setImmediateReads() noexcept {
  termios2 settings;
  if (!isUsable() || !get(&settings)) return false;
  // The descriptor does not block. With a least count of 0 a read without data would look like a
  // line that is gone.
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  if (!set(settings)) return false;
  (void)ioctl(descriptor_.get(), TCFLSH, TCIFLUSH);
  return true;
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

template <class Call>
SerialDevice::Transfer PosixSerialDevice::transfer(std::mutex& mutex,
                                                   std::atomic<std::uint64_t>& traffic,
                                                   Call call) noexcept {
  const ShortLock guard(mutex);
  if (!isUsable()) return Transfer::Failed;
  ssize_t result;
  do result = call(descriptor_.get());
  while (isInterrupted(result));
  return outcome(result, traffic);
}

SerialDevice::Transfer PosixSerialDevice::read(unsigned char* byte) noexcept {
  return transfer(readMutex_, traffic_.read, [=](int device) { return ::read(device, byte, 1); });
}

SerialDevice::Transfer PosixSerialDevice::write(unsigned char byte) noexcept {
  return transfer(writeMutex_, traffic_.written,
                  [&](int device) { return ::write(device, &byte, 1); });
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
