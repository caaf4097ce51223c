// Bytes in and out. Both directions are one algorithm; what differs is a table.
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/RealSecondsC.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/serial_device.h"
#include "qmutils/platform/thread.h"
#include "qmutils/transport/QMSerialCommsC.h"

using namespace qm::platform;
using Transfer = SerialDevice::Transfer;

namespace {

/// A line with the text of the thread's last error, whose code it gives.
template <class... Parts>
QMErrors::QMErrorT failed(const Parts&... parts) {
  const QMErrors::QMErrorT reason = QMErrors::lastOsError();
  qm::logError(parts..., QMErrToStr(reason));
  return reason;
}

Transfer readByte(SerialDevice& device, int& ch) {
  unsigned char byte;
  const Transfer result = device.read(&byte);
  if (result == Transfer::Done) ch = byte;
  return result;
}

Transfer writeByte(SerialDevice& device, int& ch) {
  return device.write(static_cast<unsigned char>(ch));
}

}  // namespace

struct QMSerialCommsC::DirectionC {
  const char* label;
  const char* startFailed;
  const char* waitFailed;
  const char* timedOut;
  const char* timeUnit;
  bool givesReason;  ///< the time-out's line ends with its text
  qm::CancellableWaits QMSerialCommsC::*waits;
  Transfer (*move)(SerialDevice& device, int& ch);
  DWORD (SerialDevice::*wait)(const HANDLE* objects, std::size_t count, const Deadline& deadline);
};

struct QMSerialCommsC::OutcomeC {
  QMErrors::QMErrorT code;
  const char* failed = nullptr;  ///< for the log; null when nothing has
};

QMErrors::QMErrorT QMSerialCommsC::getTimed(int& ch, DWORD timeout, void* killEvent) {
  static constexpr DirectionC kInput = {
      "QMSerialCommsC::getTimed(): ",
      "ReadFile() failed:",
      "while waiting for m_hInputEvent or m_hKillEvent: ",
      "TimedOut waiting for receiver after: ",
      " Seconds, reason:",
      true,
      &QMSerialCommsC::m_Input,
      &readByte,
      &SerialDevice::waitReadable,
  };
  return Move(kInput, ch, timeout, killEvent);
}

QMErrors::QMErrorT QMSerialCommsC::putTimed(int& ch, DWORD timeout, void* killEvent) {
  static constexpr DirectionC kOutput = {
      "QMSerialCommsC::putTimed(): ",
      "WriteFile() failed:",
      "while waiting for m_hOutputEvent or m_hKillEvent: ",
      "TimedOut waiting overlapped after: ",
      " Seconds",
      false,
      &QMSerialCommsC::m_Output,
      &writeByte,
      &SerialDevice::waitWritable,
  };
  return Move(kOutput, ch, timeout, killEvent);
}

QMErrors::QMErrorT QMSerialCommsC::Move(const DirectionC& direction, int& ch, DWORD timeout,
                                        void* killEvent) {
  const DevicePtr device = Device();
  Transfer result = Transfer::Failed;
  if (device != nullptr) {
    result = direction.move(*device, ch);
  } else {
    setLastError(ERROR_INVALID_HANDLE);
  }
  switch (result) {
    case Transfer::Done:
      return QMErrors::NoError;
    case Transfer::Ended:
      return QMErrors::EndOfFileError;
    case Transfer::Failed:
      return failed(direction.label, direction.startFailed);
    case Transfer::NotReady:
      break;
  }
  return WaitAndMove(direction, *device, ch, timeout, killEvent);
}

QMErrors::QMErrorT QMSerialCommsC::WaitAndMove(const DirectionC& direction, SerialDevice& device,
                                               int& ch, DWORD timeout, void* killEvent) {
  // Read here and not at the very beginning: what need not wait does without the clock.
  const RealSecondsC began;
  const OutcomeC outcome = AwaitAndMove(direction, device, ch, Deadline::after(timeout), killEvent);
  // Now that the wait is over: others that are cancelled do not wait for the log.
  if (outcome.failed != nullptr) {
    qm::logError(direction.label, outcome.failed, QMErrToStr(outcome.code));
  } else if (outcome.code == QMErrors::CommandTimedOut) {
    qm::logWarning(0, direction.label, direction.timedOut, began.Ago(), direction.timeUnit,
                   direction.givesReason ? QMErrToStr(outcome.code) : "");
  }
  return outcome.code;
}

QMSerialCommsC::OutcomeC QMSerialCommsC::AwaitAndMove(const DirectionC& direction,
                                                      SerialDevice& device, int& ch,
                                                      const Deadline& deadline, void* killEvent) {
  constexpr const char* kResult = "GetOverlappedResult(): returned: ";
  qm::CancellableWaits& waits = this->*direction.waits;
  const qm::CancellableWaits::WaitC pending(waits);
  const HANDLE objects[] = {waits.event(), killEvent};
  const DWORD count = killEvent != nullptr ? 2 : 1;
  for (;;) {
    // close() marks the device before it cancels what waits, so one of the two is seen.
    if (pending.isCancelled() || device.isClosed()) {
      return {QMErrors::fromOsError(ERROR_OPERATION_ABORTED), kResult};
    }
    const DWORD woken = (device.*direction.wait)(objects, count, deadline);
    if (woken == WAIT_FAILED) return {QMErrors::lastOsError(), direction.waitFailed};
    if (woken == WAIT_OBJECT_0) {
      pending.passOn();
      sleep(0, false);
      continue;
    }
    // Without another try: the event may be one that this wait has reset, and its setter would wait
    // for an answer in vain. A byte that came at the same moment stays for the next read.
    if (woken != WAIT_TIMEOUT && woken != WAIT_OBJECT_0 + count) {
      return {QMErrors::TheDeviceWasToldToDie};
    }
    switch (direction.move(device, ch)) {
      case Transfer::Done:
        return {QMErrors::NoError};
      case Transfer::Ended:
        return {QMErrors::EndOfFileError};
      case Transfer::Failed:
        if (device.isClosed()) continue;
        return {QMErrors::lastOsError(), kResult};
      case Transfer::NotReady:
        if (woken == WAIT_TIMEOUT) return {QMErrors::CommandTimedOut};
    }
  }
}

QMErrors::QMErrorT QMSerialCommsC::KillIO() {
  if (Device() == nullptr) {
    setLastError(ERROR_INVALID_HANDLE);
    return failed("QMSerialCommsC::KillIO(): ", "CancelIo() failed:");
  }
  m_Input.cancel();
  m_Output.cancel();
  return QMErrors::NoError;
}
