#include "qmutils/transport/QMSerialCommsC.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <utility>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/serial_device.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;

namespace {

constexpr const char* kOpen = "QMSerialCommsC::open(): ";
constexpr int kFailAndBad = 6;  // of clear(flags)

const char* osErrorText() { return QMErrToStr(QMErrors::lastOsError()); }

constexpr BYTE kParities[] = {NOPARITY, ODDPARITY, EVENPARITY, MARKPARITY, SPACEPARITY};
constexpr BYTE kStopBits[] = {ONESTOPBIT, ONE5STOPBITS, TWOSTOPBITS};

constexpr unsigned kXonXoff = 1;
constexpr unsigned kRtsCts = 2;

const char* flowOf(const DCB& dcb) {
  const bool anyXon = dcb.fOutX || dcb.fInX;
  if (!dcb.fOutxCtsFlow && !anyXon) return "none";
  if (dcb.fOutxCtsFlow && !anyXon) return "rts/cts";
  return !dcb.fOutxCtsFlow && dcb.fOutX && dcb.fInX ? "xon/xoff" : "undefined.";
}

const char* orUnknown(const qm::SharedText& name) {
  return name.c_str() != nullptr ? name.c_str() : "unknown";
}

qm::SharedText portName(unsigned number) {
  char name[16];
  std::snprintf(name, sizeof name, "COM%u", number);
  return qm::SharedText::copyOf(name).value_or(qm::SharedText());
}

}  // namespace

// --- the settings -------------------------------------------------------------------------------

QMSerialCommsC::QMSerialCommSpecC::QMSerialCommSpecC(unsigned portNumber, unsigned baud,
                                                     unsigned dataBits, unsigned parity,
                                                     unsigned stopBits, unsigned flow,
                                                     unsigned inQueue, unsigned outQueue)
    : QMSerialCommSpecC(nullptr, baud, dataBits, parity, stopBits, flow, inQueue, outQueue) {
  m_PortName = portName(portNumber);
}

QMSerialCommsC::QMSerialCommSpecC::QMSerialCommSpecC(const char* portName, unsigned baud,
                                                     unsigned dataBits, unsigned parity,
                                                     unsigned stopBits, unsigned flow,
                                                     unsigned inQueue, unsigned outQueue)
    : m_PortName(qm::SharedText::copyOf(portName).value_or(qm::SharedText())),
      m_nBaud(baud),
      m_nDataBits(dataBits),
      m_nParity(parity),
      m_nStopBits(stopBits),
      m_nFlow(flow),
      m_nInQueue(inQueue),
      m_nOutQueue(outQueue) {}

QMErrors::QMErrorT QMSerialCommsC::Translate(const char* port, DCB& dcb,
                                             QMSerialCommSpecC& settings) {
  dcb.BaudRate = settings.m_nBaud;
  // A size beyond a byte stays one that no line has.
  dcb.ByteSize = static_cast<BYTE>(std::min(settings.m_nDataBits, 255u));
  if (settings.m_nStopBits >= std::size(kStopBits)) {
    qm::logError("QMSerialCommsC::Translate(): ", "Invalid number of stop bits: ",
                 settings.m_nStopBits, ", for: ", port);
    return QMErrors::FailedToSetUpSerialComms;
  }
  dcb.StopBits = kStopBits[settings.m_nStopBits];
  dcb.Parity = settings.m_nParity < std::size(kParities) ? kParities[settings.m_nParity] : NOPARITY;
  dcb.fParity = dcb.Parity != NOPARITY;
  dcb.fDtrControl = DTR_CONTROL_ENABLE;
  dcb.fOutxDsrFlow = 0;
  dcb.fDsrSensitivity = 0;
  dcb.fErrorChar = 0;
  dcb.fNull = 0;
  dcb.fAbortOnError = 0;
  const bool byXon = settings.m_nFlow == kXonXoff;
  const bool byRts = settings.m_nFlow == kRtsCts;
  dcb.fOutxCtsFlow = byRts;
  dcb.fRtsControl = byRts ? RTS_CONTROL_ENABLE : RTS_CONTROL_DISABLE;
  dcb.fOutX = byXon;
  dcb.fInX = byXon;
  if (!byRts) dcb.fTXContinueOnXoff = 0;
  return QMErrors::NoError;
}

// --- opening and closing ------------------------------------------------------------------------

QMSerialCommsC::QMSerialCommsC(void* hKillEvent)
    : QMThreadC("QMSerialCommsC", nullptr, INFINITE, 0), m_hKillEvent(hKillEvent) {}

QMSerialCommsC::~QMSerialCommsC() {
  (void)stop();  // logs its failures
  close();
  if (m_hStatusCheckEvent != nullptr) closeHandle(m_hStatusCheckEvent);
}

QMSerialCommsC::DevicePtr QMSerialCommsC::Device() const {
  const ShortLock guard(m_PortLock);
  return m_pDevice;
}

/// Takes the place of the device that is open, which is closed. May be null.
void QMSerialCommsC::Install(const DevicePtr& device) {
  DevicePtr former = device;
  {
    const ShortLock guard(m_PortLock);
    former.swap(m_pDevice);
  }
  if (former != nullptr) {
    former->close();
    m_Input.cancel();
    m_Output.cancel();
  }
  // A worker that is alive watches the former one, or found none, and will notice in a moment.
  if (former != device) m_bWorkerEnding = true;
}

QMErrors::QMErrorT QMSerialCommsC::open(QMSerialCommSpecC& settings) {
  close();
  const qm::SharedText port = settings.m_PortName;
  {
    const ShortLock guard(m_PortLock);
    m_Descriptor = port;
  }
  const char* const name = port.orEmpty();
  const DevicePtr device = SerialDevice::open(name);
  if (device == nullptr) {
    qm::logError(kOpen, "Failed opening: ", name, " ", osErrorText());
    return QMErrors::FailedToOpenSerialComms;
  }
  const QMErrors::QMErrorT result = SetUp(*device, name, settings);
  if (result == QMErrors::NoError) {
    Install(device);
  } else {
    device->close();
  }
  return result;
}

QMErrors::QMErrorT QMSerialCommsC::SetUp(SerialDevice& device, const char* name,
                                         QMSerialCommSpecC& settings) {
  constexpr QMErrors::QMErrorT kFailed = QMErrors::FailedToSetUpSerialComms;
  if (!device.setQueueSizes(settings.m_nInQueue, settings.m_nOutQueue)) {
    qm::logError(kOpen, "Failed setting I/O queue sizes for: ", name, " ", osErrorText());
    return kFailed;
  }
  DCB dcb{};
  if (!device.lineState(&dcb)) {
    qm::logError(kOpen, "GetCommState(", name, " ) returned with:", osErrorText());
    return kFailed;
  }
  const QMErrors::QMErrorT translated = Translate(name, dcb, settings);
  if (translated != QMErrors::NoError) return FailOpen(translated);
  if (!device.setLineState(dcb)) {
    qm::logError(kOpen, "Failed setting up comport:", name,
                 ", SetCommState() returned: ", osErrorText());
    return kFailed;
  }
  if (!device.setImmediateReads()) {
    qm::logError(kOpen, "Failed setting up comport:", name,
                 ", SetCommTimeouts() returned: ", osErrorText());
    return kFailed;
  }
  return fail() ? FailOpen(kFailed) : QMErrors::NoError;
}

QMErrors::QMErrorT QMSerialCommsC::FailOpen(QMErrors::QMErrorT code) {
  clear(kFailAndBad);
  return code;
}

void QMSerialCommsC::close() { Install(nullptr); }

// --- state and texts ----------------------------------------------------------------------------

void QMSerialCommsC::clear(int flags) {
  unsigned bits = 0;
  if ((flags & 1) != 0) bits |= kEof;
  if ((flags & 2) != 0) bits |= kFail;
  if ((flags & 4) != 0) bits |= kBad;
  m_nState |= bits;
}

void QMSerialCommsC::GetComportDescriptor(std::ostream& os) {
  qm::SharedText port;
  {
    const ShortLock guard(m_PortLock);
    port = m_Descriptor;
  }
  os << orUnknown(port) << '\0';
}

bool QMSerialCommsC::Print(char ch) {
  int value = static_cast<unsigned char>(ch);
  if (putTimed(value, m_dwOutputTimeout, m_hKillEvent) == QMErrors::NoError) return true;
  clear(kFailAndBad);
  return false;
}

QMSerialCommsC& operator<<(QMSerialCommsC& port, const char* text) {
  while (text != nullptr && *text != '\0' && port.Print(*text)) ++text;
  return port;
}

QMSerialCommsC& operator<<(QMSerialCommsC& port, const char& ch) {
  (void)port.Print(ch);
  return port;
}

QMSerialCommsC& operator>>(QMSerialCommsC& port, char& ch) {
  int value = 0;
  if (port.getTimed(value, port.m_dwInputTimeout, port.m_hKillEvent) == QMErrors::NoError) {
    ch = static_cast<char>(value);
  } else {
    port.clear(kFailAndBad);
  }
  return port;
}

std::ostream& operator<<(std::ostream& os, QMSerialCommsC& port) {
  qm::SharedText name;
  QMSerialCommsC::DevicePtr device;
  {
    const ShortLock guard(port.m_PortLock);
    name = port.m_Descriptor;
    device = port.m_pDevice;
  }
  os << orUnknown(name) << ": ";
  DCB dcb{};
  if (device == nullptr || !device->lineState(&dcb)) return os << "could not get comm state.";
  return os << dcb;
}

std::ostream& operator<<(std::ostream& os, DCB& dcb) {
  char text[128];  // as one piece, whatever the stream's number format
  std::snprintf(
      text, sizeof text, "Baud = %u, Parity = %u, Data bits = %u, Stop bits = %u, Flow = %s",
      static_cast<unsigned>(dcb.BaudRate), dcb.Parity, dcb.ByteSize, dcb.StopBits, flowOf(dcb));
  return os << text;
}
