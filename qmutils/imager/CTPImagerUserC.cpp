// Starting, watching and stopping the imager process.
#include "qmutils/imager/CTPImagerUserC.h"

#include <cstdio>
#include <new>
#include <string>

#include "qmutils/comms/PoolSection.h"
#include "qmutils/comms/QMMessageText.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMErrorC.h"
#include "qmutils/imager/ImagerProtocol.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/process.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

using namespace qm::platform;
using QMErrors::NoError;
using QMErrors::QMErrorT;

namespace {

constexpr DWORD kSendTimeoutMs = 2000;
// Short, so that the end of the process and a request to stop are noticed soon; a receiver that
// times out simply looks again.
constexpr DWORD kReceiveTimeoutMs = 200;
constexpr DWORD kLastWordsTimeoutMs = 20;  // for others that use the pool at that moment
constexpr int kStartRounds = 300;
constexpr DWORD kStartRoundMs = 200;
constexpr DWORD kStopBudgetMs = 60000;
constexpr DWORD kKillTimeoutMs = 10000;
constexpr DWORD kGiveUpMs = 3000;
constexpr WORD kShowMinimised = 2;
constexpr std::size_t kMessageSize = 256;

constexpr const char* kStartImager = "CTPImagerUserC::StartImager(): ";
constexpr const char* kStopImager = "CTPImagerUserC::StopImager(): ";
constexpr const char* kRun = "CTPImagerUser::run(): ";

void stack(const char* function, QMErrorT code, const std::string& reason) {
  (void)QMErrorC::Stack(function, code, reason.c_str());
}

std::string replaced(const char* format, const std::string& name) {
  std::string text;
  for (const char* c = format; *c != '\0'; ++c) {
    if (c[0] == '%' && c[1] == 's') {
      text += name;
      ++c;
    } else {
      text += *c;
    }
  }
  return text;
}

}  // namespace

CTPImagerUserC::CTPImagerUserC(const char* imagerCommand, const char* identity)
    : QMThreadC("CTPImagerUserC", nullptr, INFINITE, 0),
      m_ImagerCommand(imagerCommand != nullptr ? imagerCommand : ""),
      m_Identity(identity != nullptr ? identity : ""),
      m_hNews(createEvent(false, false)) {}

CTPImagerUserC::CTPImagerUserC(const CTPImagerUserC& other)
    : CTPImagerUserC(other.m_ImagerCommand.c_str(), other.m_Identity.c_str()) {
  *this = other;
}

CTPImagerUserC& CTPImagerUserC::operator=(const CTPImagerUserC& other) {
  m_ImagerCommand = other.m_ImagerCommand;
  m_Identity = other.m_Identity;
  m_Start = other.m_Start;
  return *this;
}

CTPImagerUserC::~CTPImagerUserC() {
  ReleaseImager();
  closeHandle(m_hNews);
}

// --- starting -----------------------------------------------------------------------------------

QMErrorT CTPImagerUserC::StartImager(ImagerStartDataC& data) try {
  if (m_hProcess != nullptr) return NoError;
  m_Start = data;
  QMErrorT result = Launch();
  if (result == NoError) result = StartWorker();
  return result == NoError ? AwaitStarted() : result;
} catch (const std::bad_alloc&) {
  LeavePool();
  return QMErrors::MemoryAllocationFailed;
}

/// Joins the pool and creates the process.
QMErrorT CTPImagerUserC::Launch() {
  const std::string commandLine = m_ImagerCommand + " -pid " + std::to_string(m_Start.m_nParentID) +
                                  " -id " + std::to_string(m_Start.m_nChildID) + " -nip" +
                                  " -pr \"" + m_Start.m_Profile + "\"";
  qm::logInfo(1, kStartImager, "About to launch process: ", commandLine);
  // A worker that is still there leaves the pool when it ends, so it must go first.
  (void)stop();
  const QMErrorT joined = SvOpenComms(m_Start.m_nParentID);
  if (joined != NoError) {
    stack(kStartImager, joined, "SvOpenComms() failed");
    return joined;
  }
  ProcessInformation process;
  if (!createProcess(commandLine.c_str(), m_Start.m_nPriorityClass | DETACHED_PROCESS,
                     kShowMinimised, &process)) {
    stack(kStartImager, QMErrors::ErrorUnableToCreateProcess,
          std::string("While creating process: ") + QMErrToStr(QMErrors::lastOsError()));
    LeavePool();
    return QMErrors::ErrorUnableToCreateProcess;
  }
  m_hProcess = process.process;
  m_hMainThread = process.mainThread;
  m_dwProcessId = process.processId;
  m_dwThreadId = process.threadId;
  return NoError;
}

QMErrorT CTPImagerUserC::StartWorker() {
  m_bImagerDied = false;
  m_bImagerStarted = false;
  m_bStoppingImager = false;
  m_ReceiveError = NoError;
  const QMErrorT started = start();
  if (started != NoError) {
    stack(kStartImager, started, "while starting thread");
    LeavePool();
  }
  return started;
}

QMErrorT CTPImagerUserC::AwaitStarted() {
  const char* const reason = "While waiting for imager to start";
  for (int round = 0; round < kStartRounds; ++round) {
    if (m_bImagerStarted) return NoError;
    if (m_bImagerDied) {
      stack(kStartImager, QMErrors::ImagerHasDied, reason);
      LeavePool();
      return QMErrors::ImagerHasDied;
    }
    const bool working = IsAlive();   // asked first: the worker notes an error before it ends
    if (m_ReceiveError != NoError) {  // it has left the pool
      (void)stop();
      return m_ReceiveError;
    }
    if (!working) return GiveUpStarting();
    const Deadline roundEnd = Deadline::after(kStartRoundMs);
    while (!m_bImagerStarted && !m_bImagerDied && m_ReceiveError == NoError &&
           waitUntil(m_hNews, roundEnd) == WAIT_OBJECT_0) {
    }
    // The system may have had no event for us; one look a round does as well.
    if (m_hNews == nullptr) sleep(roundEnd.remainingMs(), false);
  }
  stack(kStartImager, QMErrors::CommandTimedOut, reason);
  (void)StopImager();
  LeavePool();
  return QMErrors::CommandTimedOut;
}

/// The worker was told to stop meanwhile. The imager is asked to end, but not waited for as long as
/// one that may be exposing: it has no job yet.
QMErrorT CTPImagerUserC::GiveUpStarting() {
  qm::logWarning(0, kStartImager, "Signalled to die while waiting for imager to start");
  stack(kStartImager, QMErrors::TheWaitWasForcedToExit, "While waiting for imager to start");
  const bool joined = SvOpenComms(m_Start.m_nParentID) == NoError;
  if (joined) (void)SendCommand(qm::imager::kCodeStop, m_Start.m_nChildID, "");
  if (wait(m_hProcess, kGiveUpMs) != WAIT_OBJECT_0) KillImager();
  if (joined) LeavePool();
  ReleaseImager();
  return QMErrors::TheWaitWasForcedToExit;
}

/// The thread that closes the pool owns its mutex until that thread ends, so it is the worker, or
/// when there is none a thread made for it.
void CTPImagerUserC::LeavePool() {
  (void)stop();
  const auto close = [](void*) -> DWORD {
    SvCloseComms();
    return 0;
  };
  void* const closer = startThread(close, nullptr, nullptr);
  if (closer == nullptr) {
    qm::logError(kStartImager, "cannot leave the pool: ", QMErrToStr(QMErrors::lastOsError()));
    return;
  }
  (void)wait(closer, INFINITE);
  closeHandle(closer);
}

// --- the worker ---------------------------------------------------------------------------------

QMErrorT CTPImagerUserC::run() {
  try {
    Watch();
  } catch (const std::bad_alloc&) {
    m_ReceiveError = QMErrors::MemoryAllocationFailed;
  }
  SvCloseComms();
  m_bStoppingImager = false;
  setEvent(m_hNews);
  return m_ReceiveError;
}

void CTPImagerUserC::Watch() {
  bool watching = true;
  while (watching && m_ReceiveError == NoError) {
    const DWORD state = WaitForSingleObject(m_hProcess, 0);
    switch (state) {
      case WAIT_OBJECT_0 + 1:
        watching = false;
        break;
      case WAIT_TIMEOUT: {
        const QMErrorT received = ReceiveOne(kReceiveTimeoutMs, true);
        if (received != QMErrors::CommandTimedOut) m_ReceiveError = received;
        (void)Sleep(0);
        break;
      }
      default:
        DispatchLastWords();
        ReportDeath(state == WAIT_OBJECT_0);
        // Nothing more can come; the object stays in this state until StopImager().
        (void)wait(GetEndEvent(), INFINITE);
        watching = false;
        break;
    }
  }
}

/// What the imager sent before it ended, such as the reason, comes before the report of its end.
void CTPImagerUserC::DispatchLastWords() {
  const DWORD osError = lastError();  // of the wait, for the report
  for (int i = 0; i < qm::kPoolSlots && ReceiveOne(kLastWordsTimeoutMs, false) == NoError; ++i) {
  }
  setLastError(osError);
}

/// `hasEnded`: else the process could not be looked at.
void CTPImagerUserC::ReportDeath(bool hasEnded) {
  const QMErrorT osError = QMErrors::lastOsError();
  if (m_bStoppingImager) return;
  if (hasEnded) m_bStoppingImager = true;
  const std::string text = m_ImagerCommand + ": " + QMErrToStr(osError);
  qm::logError(kRun, text);
  if (hasEnded) stack(kRun, QMErrors::TheProcessHasDied, text);
  HandleImagerError(text.c_str());
  m_bImagerDied = true;
  setEvent(m_hNews);
}

/// Receives and dispatches one message. 2013 when none came, which is normal.
QMErrorT CTPImagerUserC::ReceiveOne(DWORD timeoutMs, bool imagerLives) {
  char text[kMessageSize];
  const QMErrorT received = SvReceiveMessage(text, sizeof text, timeoutMs);
  if (received == NoError) {
    Dispatch(text, imagerLives);
  } else if (received != QMErrors::CommandTimedOut) {
    stack(kRun, received, std::string("SvReceiveMessage() returned: ") + QMErrToStr(received));
  }
  return received;
}

void CTPImagerUserC::Dispatch(const char* text, bool imagerLives) {
  qm::MessagePacket packet;
  const QMErrorT decoded = QMExtractMessagePacket(text, packet);
  if (decoded != NoError) {
    stack(kRun, decoded, std::string("SvReceiveMessage() returned: ") + QMErrToStr(decoded));
    return;
  }
  using namespace qm::imager;
  if (packet.nType == kTypeReply && packet.nCode == kCodeStarted) {
    m_bImagerStarted = true;
    setEvent(m_hNews);
  } else if (packet.nType == kTypeReply && packet.nCode == kCodeWhoAmI) {
    // Sent to nobody, the answer would lie in the pool.
    if (imagerLives && !m_Identity.empty()) (void)ReplyWhoAmI(m_Identity.c_str());
  } else if (m_bStoppingImager && (packet.nType == kTypeProgress || packet.nType == kTypeError)) {
    QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
    log._LogWarning();
    log << kRun << "m_bStoppingImager defined ignoring:" << packet << std::endl;
  } else {
    const QMErrorT handled = HandleImagerMessage(packet);
    if (handled != NoError) stack(kRun, handled, "HandleImagerMessage() failed");
  }
}

// --- stopping -----------------------------------------------------------------------------------

QMErrorT CTPImagerUserC::StopImager() {
  if (m_hProcess == nullptr) return NoError;
  m_bStoppingImager = true;
  bool rejoined = false;
  QMErrorT result = QMErrors::MemoryAllocationFailed;
  try {
    if (wait(m_hProcess, 0) != WAIT_OBJECT_0) {
      const QMErrorT sent = SendStop(&rejoined);
      if (sent != NoError) {
        stack(kStopImager, sent, std::string("SendMessage() returned: ") + QMErrToStr(sent));
      }
    }
    result = AwaitImagerEnd();
  } catch (const std::bad_alloc&) {  // the result says so
  }
  if (rejoined) LeavePool();
  ReleaseImager();
  return result;
}

QMErrorT CTPImagerUserC::SendStop(bool* rejoined) {
  // A program that ends stops all its threads first; the worker has then left the pool.
  if (!IsAlive()) {
    const QMErrorT joined = SvOpenComms(m_Start.m_nParentID);
    if (joined != NoError) return joined;
    *rejoined = true;
  }
  return SendCommand(qm::imager::kCodeStop, m_Start.m_nChildID, "");
}

QMErrorT CTPImagerUserC::AwaitImagerEnd() {
  for (;;) {
    const DWORD result = WaitForSingleObject(m_hMainThread, kStopBudgetMs);
    const QMErrorT osError = QMErrors::lastOsError();
    switch (result) {
      case WAIT_OBJECT_0:
        qm::logInfo(1, kStopImager, "Imager Thread signalled so process has died");
        return NoError;
      case WAIT_OBJECT_0 + 1:
        qm::logWarning(0, kStopImager,
                       "Signalled to die while still monitoring the imager process, the imager "
                       "process may still be active.");
        stack(kStopImager, QMErrors::TheWaitWasForcedToExit,
              "While monitoring imager process. The imager process may still be active.");
        return QMErrors::TheWaitWasForcedToExit;
      case WAIT_TIMEOUT:
        if (AskWhetherToWait()) continue;
        KillImager();
        stack(kStopImager, QMErrors::CommandTimedOut, "timed out waiting for imager to die");
        return QMErrors::CommandTimedOut;
      default:
        qm::logWarning(0, kStopImager,
                       "Error waiting on handle monitoring the imager process, the imager process "
                       "may still be active.");
        stack(kStopImager, osError,
              "While monitoring imager process. The imager process may still be active.");
        return osError;
    }
  }
}

bool CTPImagerUserC::AskWhetherToWait() const {
  const std::string question = replaced(
      "The program %s did not die in time. It could be it is waiting for user input, do you want "
      "to continue waiting for the program %s to end?\n \nBy clicking No, an attempt will be made "
      "to kill the process.",
      m_ImagerCommand);
  return messageBox(question.c_str(), "CTPImagerUserC::StopImager()",
                    MB_TASKMODAL | MB_YESNO | MB_ICONWARNING) == IDYES;
}

void CTPImagerUserC::KillImager() {
  if (terminateProcess(m_hProcess, static_cast<DWORD>(QMErrors::TheDeviceWasToldToDie)) ||
      wait(m_hProcess, 0) == WAIT_OBJECT_0) {
    (void)wait(m_hProcess, kKillTimeoutMs);
    return;
  }
  const std::string text = replaced(
      "Failed to kiil the program %s.\n \nCeck your task manager to ensure the program %s is "
      "properly removed from the system.",
      m_ImagerCommand);
  messageBox(text.c_str(), "CTPImagerUserC::StopImager()", MB_TASKMODAL | MB_OK | MB_ICONWARNING);
}

/// The worker looks at the handles, so it ends first.
void CTPImagerUserC::ReleaseImager() {
  (void)stop();
  for (std::atomic<void*>* handle : {&m_hProcess, &m_hMainThread}) {
    void* const held = handle->exchange(nullptr);
    if (held != nullptr) closeHandle(held);
  }
  DropUnreadJobs();
}

// --- messages -----------------------------------------------------------------------------------

QMErrorT CTPImagerUserC::SendMessage(const QMErrors::QMMessagePacketT& packet) {
  char text[kMessageSize];
  const QMErrorT rendered = QMCreateMessageFromPacket(packet, text, sizeof text);
  return rendered == NoError ? SvSendMessage(text, kSendTimeoutMs, m_Start.m_nChildID) : rendered;
}

QMErrorT CTPImagerUserC::SendCommand(int code, int value, const char* text) {
  QMErrors::QMMessagePacketT packet;
  packet.nType = qm::imager::kTypeCommand;
  packet.nCode = code;
  packet.nID = m_Start.m_nParentID;
  packet.nVal = value;
  packet.pString = const_cast<char*>(text);
  return SendMessage(packet);
}

QMErrorT CTPImagerUserC::ReplyWhoAmI(const char* identity) {
  QMErrors::QMMessagePacketT packet;
  packet.nType = qm::imager::kTypeReply;
  packet.nCode = qm::imager::kCodeWhoAmI;
  packet.nID = m_Start.m_nParentID;
  packet.pString = const_cast<char*>(identity);
  return SendMessage(packet);
}

QMErrorT CTPImagerUserC::ReplyCopyInfo(unsigned a, unsigned b, unsigned c) {
  char text[32];
  std::snprintf(text, sizeof text, "%u;%u", a, b);
  QMErrors::QMMessagePacketT packet;
  packet.nType = qm::imager::kTypeReply;
  packet.nCode = qm::imager::kCodeCopyInfo;
  packet.nID = m_Start.m_nParentID;
  packet.nVal = static_cast<int>(m_Start.m_nChildID + c);
  packet.pString = text;
  return SendMessage(packet);
}

QMErrorT CTPImagerUserC::SaveImageControl(const char* path, const ICFC::ExposeInfoC& info) const {
  return ICFC(m_Start.m_Profile.c_str()).Save(path, info);
}
