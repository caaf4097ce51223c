// A serial line: settings, single bytes without waiting, waits that objects can end, the lines of a
// modem, and a wait for whatever happens on the line.
//
//   auto device = SerialDevice::open("COM1");
//   while (device->read(&byte) == SerialDevice::Transfer::NotReady) {
//     if (device->waitReadable(&killEvent, 1, deadline) != WAIT_OBJECT_0 + 1) return;
//   }
//
// Any thread may use a device, also while another one closes it: whoever still has it finds it
// closed, and the system's own handle lasts as long as they do, so that it never means another file
// in between. Operations that fail set the last error; on a closed device it is 6. Nothing throws.
//
// Reading and writing a byte is one system call. Waiting for what happens on the line costs a
// thread of its own, made for the first such wait, that looks every few milliseconds while there is
// one and sleeps otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// What a device tells of its modem lines and of the errors on the line. The counters only grow;
/// by them a change is noticed that is over before somebody looks. 0 where the device has none.
struct ModemLines {
  DWORD status;  ///< MS_CTS_ON, ...
  DWORD ctsChanges;
  DWORD dsrChanges;
  DWORD ringChanges;
  DWORD rlsdChanges;
  DWORD breaks;
  DWORD errors;
};

/// Gives the lines in the place of the device; false with the last error set (else 31) fails as the
/// device would. Called by any thread, with an internal lock held.
using ModemLineSource = bool (*)(ModemLines* lines);

/// Installs a source for all devices (null: the devices' own lines) and returns the one in force
/// before (null: the devices'). For hosts whose lines come from elsewhere, and for tests.
QMUTILS_API ModemLineSource setModemLineSource(ModemLineSource source) noexcept;

class SerialDevice {
 public:
  enum class Transfer {
    Done,
    NotReady,  ///< nothing has arrived; no room to write
    Ended,     ///< the device is gone
    Failed     ///< the last error tells why
  };

  /// Opens an existing device for this process alone. `name` is "COMn", "\\.\COMn" or a path. Null
  /// with last error 2 or 3 (not there), 5 (in use, or no permission), 8, ...
  static std::shared_ptr<SerialDevice> open(const char* name) noexcept;

  SerialDevice() = default;
  SerialDevice(const SerialDevice&) = delete;
  SerialDevice& operator=(const SerialDevice&) = delete;
  virtual ~SerialDevice() = default;

  /// Gives the device free for others at once and ends the wait for an event with 995. Threads in
  /// waitReadable() and waitWritable() are for the caller to wake, through an object of theirs.
  /// In a forked copy it only lets go of the copy: the device stays with the process that opened
  /// it.
  ///
  /// The thread that lets go of the device last may then be held up by the system until the output
  /// has left; with flow control stalled that is given up after a while, 30 s by default.
  virtual void close() noexcept = 0;
  virtual bool isClosed() const noexcept = 0;

  /// Bytes that the device should be able to hold; a wish. Fails with 1 for what is no serial line.
  virtual bool setQueueSizes(DWORD input, DWORD output) noexcept = 0;
  virtual bool lineState(DCB* state) noexcept = 0;
  /// 87 for settings that the device cannot do, as far as its driver says what it uses: a speed
  /// over 3 % off, or a frame or flow control that it has left out.
  virtual bool setLineState(const DCB& state) noexcept = 0;
  /// From now on reads return with what is there. What has arrived before is dropped, as it came
  /// under other settings.
  virtual bool setImmediateReads() noexcept = 0;

  virtual Transfer read(unsigned char* byte) noexcept = 0;
  virtual Transfer write(unsigned char byte) noexcept = 0;
  /// Wait until one of `count` (0..64) objects is signalled, which is then taken: WAIT_OBJECT_0 +
  /// index or WAIT_ABANDONED_0 + index; or until reading or writing is worth a try: WAIT_OBJECT_0 +
  /// count; WAIT_TIMEOUT; WAIT_FAILED. An object wins over the device.
  virtual DWORD waitReadable(const HANDLE* objects, std::size_t count,
                             const Deadline& deadline) noexcept = 0;
  virtual DWORD waitWritable(const HANDLE* objects, std::size_t count,
                             const Deadline& deadline) noexcept = 0;

  /// MS_CTS_ON, MS_DSR_ON, MS_RING_ON, MS_RLSD_ON.
  virtual bool modemStatus(DWORD* status) noexcept = 0;

  /// Which events (EV_CTS, ...) count from now on; ends an outstanding wait with no event.
  virtual bool setEventMask(DWORD mask) noexcept = 0;
  /// Sets `event` once one of the events has happened since the last wait, which may be now. One
  /// wait at a time; `event` must stay until it is set or the mask is set. Fails with 6 in a forked
  /// copy, as setting a mask does: the thread that watches stays behind.
  virtual bool startEventWait(HANDLE event) noexcept = 0;
  /// False when a failure has ended the latest wait, with the last error of that; 996 while the
  /// wait goes on.
  virtual bool eventResult() noexcept = 0;
};

}  // namespace qm::platform
