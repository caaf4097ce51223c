// Notices what happens on a serial line whose system cannot be asked to tell: looks at it every few
// milliseconds, on a thread of its own, while somebody waits. For platform/posix/ only.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "qmutils/platform/serial_device.h"
#include "qmutils/platform/types.h"

namespace qm::platform::posix {

/// Bytes that went through the descriptor. Written by the device's users, read by the watcher.
struct LineTraffic {
  std::atomic<std::uint64_t> read{0};
  std::atomic<std::uint64_t> written{0};
};

/// The modem lines of a device, or of the source that stands in. Fails with the last error set.
bool readModemLines(int descriptor, ModemLines* lines) noexcept;

/// The event operations of a SerialDevice; contracts as there.
class LineWatcher {
 public:
  /// Both must outlive the watcher.
  LineWatcher(int descriptor, const LineTraffic& traffic) noexcept;
  LineWatcher(const LineWatcher&) = delete;
  LineWatcher& operator=(const LineWatcher&) = delete;
  /// Waits for the thread's end, unless in a forked copy, which does not have the thread.
  ~LineWatcher();

  bool setMask(DWORD mask) noexcept;
  bool startWait(HANDLE event) noexcept;
  bool result() noexcept;
  /// Ends a wait with 995; later operations fail with 6. A forked copy must not call it.
  void close() noexcept;

 private:
  struct Look {
    ModemLines lines{};
    std::uint64_t received = 0;
    std::uint64_t written = 0;
    int unsent = 0;
  };

  static DWORD watch(void* watcher);
  static DWORD eventsBetween(const Look& before, const Look& now) noexcept;
  bool take(Look* look) const noexcept;
  bool update() noexcept;
  void report(DWORD error) noexcept;
  bool ensureThread() noexcept;
  bool isCopy() const noexcept;

  const unsigned generation_;
  const int descriptor_;
  const LineTraffic& traffic_;
  const HANDLE wake_;
  // Guards all below. Held over system calls and a host's source, so a thread that has it may well
  // be suspended.
  std::mutex mutex_;
  HANDLE thread_ = nullptr;
  HANDLE waiter_ = nullptr;  // the event of the outstanding wait
  Look latest_;
  DWORD mask_ = 0;
  DWORD happened_ = 0;  // since the last report
  DWORD error_ = 0;
  bool closed_ = false;
};

}  // namespace qm::platform::posix
