#include <cstdio>
#include <string>

#include "programs/Interrupt.h"
#include "programs/testtool/Command.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/QMDBprintf.h"

namespace programs {
namespace {

// Identifiers that no program of the suite uses.
constexpr unsigned short kOwnId = 65535;
constexpr DWORD kWatchStepMs = 200;
constexpr std::size_t kLongestMessage = 255;

int poolFailure(const char* action, QMErrors::QMErrorT code) {
  std::fprintf(stderr, "testtool pool: %s: %s (system error %u)\n", action, QMErrToStr(code),
               static_cast<unsigned>(SvGetCommsOSError()));
  return kFailure;
}

/// Prints what counts of the dump that the pool writes when it is closed: the number of messages,
/// and the identifier and text of each ("DestID=7, Taken=1, Msg=<text>"; free places are not
/// taken).
void printDumpLine(unsigned, int, char* text) {
  int count = 0;
  unsigned id = 0;
  int taken = 0;
  int start = 0;
  if (std::sscanf(text, "pChan->nMessages: %d", &count) == 1) {
    std::printf("messages: %d\n", count);
  } else if (std::sscanf(text, "DestID=%u, Taken=%d, Msg=<%n", &id, &taken, &start) == 2 &&
             taken != 0 && start != 0) {
    const std::string message = text + start;
    std::printf("%u: %s\n", id, message.substr(0, message.rfind('>')).c_str());
  }
}

int show() {
  const QMErrors::QMErrorT opened = SvOpenComms(kOwnId);
  if (opened != QMErrors::NoError) return poolFailure("cannot join", opened);
  if (SvIsOverloaded() != 0) std::puts("The pool is overloaded.");
  QMDBNewRegisterCallback(printDumpLine);
  SvCloseComms();
  QMDBNewRegisterCallback(nullptr);
  return kSuccess;
}

int send(unsigned short destination, const std::string& text) {
  QMErrors::QMErrorT result = SvOpenComms(kOwnId);
  if (result != QMErrors::NoError) return poolFailure("cannot join", result);
  result = SvSendMessage(text.c_str(), 2000, destination);
  const int status = result == QMErrors::NoError ? kSuccess : poolFailure("cannot send", result);
  SvCloseComms();
  return status;
}

int watch(unsigned short id) {
  QMErrors::QMErrorT result = SvOpenComms(id);
  if (result != QMErrors::NoError) return poolFailure("cannot join", result);
  noteInterrupts();
  std::fprintf(stderr, "watching %u, Ctrl-C ends\n", static_cast<unsigned>(id));
  while (!interrupted() && (result == QMErrors::NoError || result == QMErrors::CommandTimedOut)) {
    char text[256];
    result = SvReceiveMessage(text, sizeof text, kWatchStepMs);
    if (result == QMErrors::NoError) {
      std::puts(text);
      std::fflush(stdout);
    }
  }
  const int status = interrupted() ? kSuccess : poolFailure("cannot receive", result);
  SvCloseComms();
  return status;
}

bool parseId(const std::string& text, unsigned short& id) {
  long long number = 0;
  if (!parseNumber(text, 1LL, 65535LL, number)) return false;
  id = static_cast<unsigned short>(number);
  return true;
}

int run(const Arguments& arguments) {
  unsigned short id = 0;
  if (arguments.size() == 1 && arguments[0] == "show") return show();
  if (arguments.size() == 3 && arguments[0] == "send") {
    if (arguments[2].size() > kLongestMessage) {
      return usageError(kPoolCommand, "a message has at most 255 characters");
    }
    return parseId(arguments[1], id) ? send(id, arguments[2])
                                     : usageError(kPoolCommand, "an identifier is 1 to 65535");
  }
  if (arguments.size() == 2 && arguments[0] == "watch") {
    return parseId(arguments[1], id) ? watch(id)
                                     : usageError(kPoolCommand, "an identifier is 1 to 65535");
  }
  return usageError(kPoolCommand, "give show, send or watch");
}

}  // namespace

const Command kPoolCommand = {
    "pool", "look into the message pool, send to it, watch it",
    "usage: testtool pool show | send ID TEXT | watch ID\n"
    "  show           print the number of messages, and of each its identifier and text\n"
    "  send ID TEXT   send a message, for instance '3;5;1;2;;', to an identifier\n"
    "  watch ID       join under an identifier and print what arrives for it, until Ctrl-C;\n"
    "                 messages already waiting for it are discarded, as for any program that "
    "joins\n"
    "The pool lives as long as some program uses it, and a message as long as the pool. Programs "
    "of\n"
    "one suite share the environment variable QMUTILS_OBJECT_PREFIX.\n",
    run};

}  // namespace programs
