// The simulated imager: the engine process that a control program launches and commands through the
// message pool. It exposes pages onto a drum that exists only as a picture.
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "programs/Protocol.h"
#include "programs/imager/ControlLink.h"
#include "programs/imager/ExposerC.h"
#include "qmutils/comms/QMMessageText.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMLogFileC.h"
#include "qmutils/platform/process.h"
#include "qmutils/platform/program.h"

namespace {

using namespace programs;

constexpr const char* kUsage =
    "usage: imager -pid N -id N [-nip] [-pr PROFILE] [-log FILE]\n"
    "The simulated imager. A control program launches it; by hand it is of little use. It ends\n"
    "when told to, on a request to terminate, and soon after its control program has ended.\n"
    "  -pid N       identifier of the control program in the message pool\n"
    "  -id N        identifier of this imager, another one\n"
    "  -nip         no panel of its own (there is none)\n"
    "  -pr PROFILE  the profile that jobs are exposed with, for the log\n"
    "  -log FILE    write a log file\n"
    "Exit status: 0 stopped in an orderly way, 1 the pool failed or the control program is gone,\n"
    "2 bad command line.\n";

constexpr DWORD kReceiveTimeoutMs = 500;
constexpr auto kParentLookInterval = std::chrono::milliseconds(500);

struct Options {
  unsigned short parentId = 0;
  unsigned short ownId = 0;
  std::string profile;
  std::string logFile;
  bool help = false;
};

bool parseId(const char* text, unsigned short& id) {
  const auto [rest, error] = std::from_chars(text, text + std::strlen(text), id);
  return error == std::errc() && *rest == '\0' && id != 0;
}

bool parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      options.help = true;
      return true;
    }
    if (option == "-nip") continue;
    if (i + 1 == argc) return false;
    const char* const value = argv[++i];
    if (option == "-pid") {
      if (!parseId(value, options.parentId)) return false;
    } else if (option == "-id") {
      if (!parseId(value, options.ownId)) return false;
    } else if (option == "-pr") {
      options.profile = value;
    } else if (option == "-log") {
      options.logFile = value;
    } else {
      return false;
    }
  }
  return options.parentId != 0 && options.ownId != 0 && options.parentId != options.ownId;
}

/// Handles one message; false when it asks the imager to end.
bool handle(const char* text, const ControlLink& link, ExposerC& exposer) {
  qm::MessagePacket packet;
  const QMErrors::QMErrorT decoded = QMExtractMessagePacket(text, packet);
  if (decoded != QMErrors::NoError) {
    link.reportFailure(0, {decoded, "a message that cannot be read", ""}, nullptr);
  } else if (packet.nType == qm::imager::kTypeReply && packet.nCode == qm::imager::kCodeWhoAmI) {
    qm::logInfo(1, "imager: ", "commanded by ", packet.pString);
  } else if (packet.nType == qm::imager::kTypeCommand && packet.nCode == qm::imager::kCodeStop) {
    return false;
  } else if (packet.nType == qm::imager::kTypeCommand && packet.nCode == qm::imager::kCodeExpose) {
    const unsigned job = link.jobOf(packet.nVal);
    if (!exposer.expose(job, packet.pString)) {
      link.reportFailure(job, {QMErrors::MemoryAllocationFailed, "no memory", ""}, nullptr);
    }
  } else {
    link.reportFailure(0, {QMErrors::InvalidOption, "unknown message", ""}, nullptr);
  }
  return true;
}

/// Answers messages until told to stop, the pool fails, or nobody is left to command the imager.
QMErrors::QMErrorT serve(const ControlLink& link, ExposerC& exposer) {
  char text[256];
  auto nextLook = std::chrono::steady_clock::now() + kParentLookInterval;
  for (;;) {
    const QMErrors::QMErrorT received = SvReceiveMessage(text, sizeof text, kReceiveTimeoutMs);
    if (qm::platform::interrupted()) return QMErrors::NoError;
    // Also while messages keep coming: others than the control program may send.
    if (const auto now = std::chrono::steady_clock::now(); now >= nextLook) {
      if (qm::platform::parentIsGone()) return QMErrors::TheProcessHasDied;
      nextLook = now + kParentLookInterval;
    }
    if (received == QMErrors::CommandTimedOut) continue;
    if (received != QMErrors::NoError) return received;
    if (!handle(text, link, exposer)) return QMErrors::NoError;
  }
}

}  // namespace

int main(int argc, char** argv) {
  qm::platform::beginProgram();
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (options.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  QMLogFileC logFile(options.logFile.empty() ? nullptr : options.logFile.c_str(), false, false,
                     false);
  QMLogFileC::SetDebugLevel(2);
  QMLogStreamC(QMLogFileC::DebugOut, QMLogFileC::SetLogName, QMLogFileC::SetDebugLevel,
               QMLogFileC::GetDebugLevel);
  qm::logInfo(1, "imager: ", "started with profile ", options.profile);

  qm::platform::noteInterrupts();
  QMErrors::QMErrorT result = SvOpenComms(options.ownId);
  if (result == QMErrors::NoError) {
    const ControlLink link(options.parentId, options.ownId);
    ExposerC exposer(link);
    result = exposer.start();
    if (result == QMErrors::NoError) {
      result = link.reportStarted();
    }
    // An imager of which nobody knows that it is there is of no use to anybody.
    if (result == QMErrors::NoError) {
      link.askIdentity();
      result = serve(link, exposer);
    }
    exposer.finish();
    SvCloseComms();
  }
  if (result != QMErrors::NoError) {
    qm::logError("imager: ", "ends with ", QMErrToStr(result));
    std::fprintf(stderr, "imager: %s\n", QMErrToStr(result));
    return 1;
  }
  return 0;
}
