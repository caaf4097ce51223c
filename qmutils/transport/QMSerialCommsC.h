// A serial port: bytes in and out under time-outs, waits that a kill event or KillIO() ends, and
// line events for listeners.
//
//   QMSerialCommsC port(killEvent);
//   QMSerialCommsC::QMSerialCommSpecC settings(1, 9600, 8, 0, 0, 0, 4096, 4096);   // COM1, 8N1
//   if (port.open(settings) == QMErrors::NoError) {
//     port << "PING\r";
//     int ch;
//     while (port.getTimed(ch, 500, killEvent) == QMErrors::NoError) handle(ch);
//   }
//
// Any thread may call anything at any time; usually one reads and one writes. close() ends the
// reads and writes that wait on other threads, which must have returned when the object is
// destroyed. A byte that arrives when a read gives up stays for the next read. Moving a byte that
// need not wait costs one system call; a wait sleeps in the system.
//
// While listeners are registered, a worker thread watches the open port and delivers its modem
// lines to all of them: at once when one is added, and whenever something happens on the line. It
// ends with the first failure, as when the port is closed; add a listener again after opening.
// Listeners are not told of failures.
//
// Failures are logged and returned as codes, those of the system with bit 29; nothing throws.
#pragma once

#include <atomic>
#include <iosfwd>
#include <memory>
#include <mutex>

#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/concurrency/QMEventMulticasterC.h"
#include "qmutils/concurrency/QMThreadC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/SharedText.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"
#include "qmutils/transport/CancellableWaits.h"
#include "qmutils/transport/IQMSerialCommsEventListener.h"

namespace qm::platform {
class Deadline;
class SerialDevice;
}  // namespace qm::platform

class QMUTILS_API QMSerialCommsC : public QMThreadC {
 public:
  class QMSerialCommSpecC;

  /// `hKillEvent` ends the waits of the stream operators; not owned, may be null.
  explicit QMSerialCommsC(void* hKillEvent = nullptr);
  /// Stops the worker and closes the port.
  ~QMSerialCommsC() override;

  /// Opens the port for this process alone, closing the one that was open. 0; 316 "Failed to open
  /// serial comms"; 318 "Failed to set up serial comms", also when fail() was set before. After a
  /// failure no port is open.
  QMErrors::QMErrorT open(QMSerialCommSpecC& settings);
  /// Reads and writes that wait end with 995, as does the worker. The system may hold up the last
  /// thread that was using the port until the output has left: with flow control stalled for 30 s,
  /// unless the device is set otherwise.
  void close();

  /// Puts the settings into a device control block. 318 for stop bits other than 0, 1, 2;
  /// `port` is for the log.
  static QMErrors::QMErrorT Translate(const char* port, DCB& dcb, QMSerialCommSpecC& settings);

  /// Reads a byte into `ch` (0..255), waiting up to `timeout` ms. 0; 2013 "Command timed out";
  /// 33338 "The device was told to die" when it had to wait and `killEvent` (may be null) was
  /// signalled; 2007 "End of file error" when the device is gone; 995 after KillIO() or close(); 6
  /// when no port is open. A byte that is there is read whatever the kill event says.
  QMErrors::QMErrorT getTimed(int& ch, DWORD timeout, void* killEvent);
  /// Writes the low byte of `ch`; codes as above.
  QMErrors::QMErrorT putTimed(int& ch, DWORD timeout, void* killEvent);
  /// Ends the reads and writes of all threads that wait now with 995. 6 when no port is open.
  QMErrors::QMErrorT KillIO();

  // For the stream operators; ms, INFINITE at first. Both return the value before.
  DWORD SetInputTimeout(DWORD timeout) { return m_dwInputTimeout.exchange(timeout); }
  DWORD SetOutputTimeout(DWORD timeout) { return m_dwOutputTimeout.exchange(timeout); }
  void SetKillEvent(void* hKillEvent) { m_hKillEvent = hKillEvent; }

  bool bad() const { return (m_nState & kBad) != 0; }
  bool fail() const { return (m_nState & kFail) != 0; }
  bool eof() const { return (m_nState & kEof) != 0; }
  /// False only when both bad() and fail() are set; installed drivers rely on going on after one.
  bool good() const { return (m_nState & (kBad | kFail)) != (kBad | kFail); }
  void clear() { m_nState = 0; }
  /// Sets bits: flag 1 sets eof, 2 fail, 4 bad. Installed programs pass these numbers, in which bad
  /// and eof stand the other way round than in the state.
  void clear(int flags);

  /// Writes the port's name, or "unknown" before the first open(), and a NUL.
  void GetComportDescriptor(std::ostream& os);

  /// Has the listener told of the modem lines; one that is registered already stays where it is.
  /// All listeners are told the present state. Must stay until it is removed. 0; 2001; a lock's
  /// code; 1006, 2011 or an OS code when the worker cannot be started, and then the listener is
  /// registered all the same.
  QMErrors::QMErrorT AddCommsEventListener(IQMSerialCommsEventListener& listener);
  /// On return the listener is not being called any more, unless it removes itself. 0, also when
  /// it was not registered; a lock's code; a code of stop().
  QMErrors::QMErrorT RemoveCommsEventListener(IQMSerialCommsEventListener& listener);
  /// Changes that follow each other within `ms` are delivered once, `ms` after the last; 0 (at
  /// first) delivers each at once.
  void SetComEventDebounceTimeOutMS(DWORD ms) { m_dwDebounceMs = ms; }

  QMUTILS_API friend QMSerialCommsC& operator<<(QMSerialCommsC& port, const char* text);
  QMUTILS_API friend QMSerialCommsC& operator<<(QMSerialCommsC& port, const char& ch);
  QMUTILS_API friend QMSerialCommsC& operator>>(QMSerialCommsC& port, char& ch);
  QMUTILS_API friend std::ostream& operator<<(std::ostream& os, QMSerialCommsC& port);

 protected:
  /// The worker. 33338 when it was stopped while it waited; else the failure that ended it; 0 when
  /// no listener was left.
  QMErrors::QMErrorT run() override;

 private:
  using DevicePtr = std::shared_ptr<qm::platform::SerialDevice>;
  struct DirectionC;
  struct OutcomeC;
  struct WatchC;

  static constexpr unsigned kBad = 1;
  static constexpr unsigned kFail = 2;
  static constexpr unsigned kEof = 4;

  DevicePtr Device() const;
  void Install(const DevicePtr& device);
  QMErrors::QMErrorT SetUp(qm::platform::SerialDevice& device, const char* name,
                           QMSerialCommSpecC& settings);
  QMErrors::QMErrorT FailOpen(QMErrors::QMErrorT code);

  QMErrors::QMErrorT Move(const DirectionC& direction, int& ch, DWORD timeout, void* killEvent);
  QMErrors::QMErrorT WaitAndMove(const DirectionC& direction, qm::platform::SerialDevice& device,
                                 int& ch, DWORD timeout, void* killEvent);
  OutcomeC AwaitAndMove(const DirectionC& direction, qm::platform::SerialDevice& device, int& ch,
                        const qm::platform::Deadline& deadline, void* killEvent);
  bool Print(char ch);

  QMErrors::QMErrorT Watch();
  QMErrors::QMErrorT AwaitLines(WatchC& watch);
  QMErrors::QMErrorT DeliverLines(WatchC& watch);
  bool EndsUnheard(const WatchC& watch);
  QMErrors::QMErrorT StartWorker(QMCriticalSectionC::QMCriticalSectionUserC& user,
                                 const char* locker);
  QMErrors::QMErrorT SignalStatusCheck();

  // The port, under m_PortLock. Threads that use the device have a share of it of their own.
  mutable std::mutex m_PortLock;
  qm::SharedText m_Descriptor;
  DevicePtr m_pDevice;

  qm::CancellableWaits m_Input;   // m_hInputEvent
  qm::CancellableWaits m_Output;  // m_hOutputEvent
  std::atomic<void*> m_hKillEvent;
  std::atomic<DWORD> m_dwInputTimeout{INFINITE};
  std::atomic<DWORD> m_dwOutputTimeout{INFINITE};
  std::atomic<unsigned> m_nState{0};

  QMEventMulticasterC<IQMSerialCommsEventListener> m_Listeners;
  QMCriticalSectionC m_RegistrationCS;
  std::atomic<void*> m_hStatusCheckEvent{nullptr};  // created under the section
  std::atomic<DWORD> m_dwDebounceMs{0};
  // The worker that is alive will end by itself, so that starting needs to wait for its end.
  std::atomic<bool> m_bWorkerEnding{false};
  // The worker's own.
  const qm::platform::SerialDevice* m_pWatched = nullptr;
  bool m_bWatchAgain = false;
};

/// A port and its line settings.
class QMUTILS_API QMSerialCommsC::QMSerialCommSpecC {
 public:
  /// `baud` bits per second, not 0; `dataBits` 5..8; `parity` 1 odd, 2 even, 3 mark, 4 space, else
  /// none; `stopBits` 0 one, 1 one and a half (with 5 data bits), 2 two (with 6 to 8); `flow` 1
  /// xon/xoff, 2 rts/cts, else none; the queue sizes in bytes.
  QMSerialCommSpecC(unsigned portNumber, unsigned baud, unsigned dataBits, unsigned parity,
                    unsigned stopBits, unsigned flow, unsigned inQueue, unsigned outQueue);
  /// The name is copied: "COM1", or a path of the system.
  QMSerialCommSpecC(const char* portName, unsigned baud, unsigned dataBits, unsigned parity,
                    unsigned stopBits, unsigned flow, unsigned inQueue, unsigned outQueue);

 private:
  friend class QMSerialCommsC;

  qm::SharedText m_PortName;  // none when memory ran out; such a port is not found
  unsigned m_nBaud;
  unsigned m_nDataBits;
  unsigned m_nParity;
  unsigned m_nStopBits;
  unsigned m_nFlow;
  unsigned m_nInQueue;
  unsigned m_nOutQueue;
};

// Each character in turn under the port's time-out and kill event. A failure sets fail and bad and
// ends the text.
QMUTILS_API QMSerialCommsC& operator<<(QMSerialCommsC& port, const char* text);
QMUTILS_API QMSerialCommsC& operator<<(QMSerialCommsC& port, const char& ch);
QMSerialCommsC& operator<<(QMSerialCommsC& port, int number) = delete;  // its text, or a character?
QMUTILS_API QMSerialCommsC& operator>>(QMSerialCommsC& port, char& ch);

/// The port's name, ": ", and its settings or "could not get comm state.".
QMUTILS_API std::ostream& operator<<(std::ostream& os, QMSerialCommsC& port);
/// "Baud = 9600, Parity = 0, Data bits = 8, Stop bits = 0, Flow = none", or "rts/cts", "xon/xoff",
/// and "undefined." for any other mixture.
QMUTILS_API std::ostream& operator<<(std::ostream& os, DCB& dcb);
