#include <cstdio>
#include <cstring>
#include <string>

#include "programs/testtool/Command.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/QMDBprintf.h"
#include "qmutils/platform/program.h"

namespace programs {
namespace {

// Identifiers that no program of the suite uses.
constexpr unsigned short kOwnId = 65535;
constexpr DWORD kWatchStepMs = 200;
constexpr std::size_t kLongestMessage = 255;
constexpr std::size_t kLongestDump = 64 << 10;  // 200 messages

int poolFailure(const char* action, QMErrors::QMErrorT code) {
  std::fprintf(stderr, "testtool pool: %s: %s (system error %u)\n", action, QMErrToStr(code),
               static_cast<unsigned>(SvGetCommsOSError()));
  return kFailure;
}

std::string shown;

/// Notes what counts of the dump that the pool writes when it is closed: the number of messages,
/// and the identifier and text of each ("DestID=7, Taken=1, Msg=<text>"; free places are not
/// taken). It is called with the pool locked, so it must not wait for anybody.
void noteDumpLine(unsigned, int, char* text) {
  char line[300] = "";
  int count = 0;
  unsigned id = 0;
  int taken = 0;
  int start = 0;
  if (std::sscanf(text, "pChan->nMessages: %d", &count) == 1) {
    std::snprintf(line, sizeof line, "messages: %d\n", count);
  } else if (std::sscanf(text, "DestID=%u, Taken=%d, Msg=<%n", &id, &taken, &start) == 2 &&
             taken != 0 && start != 0) {
    const char* const end = std::strrchr(text, '>');
    const auto size = static_cast<int>(end != nullptr ? end - text - start : 0);
    std::snprintf(line, sizeof line, "%u: %.*s\n", id, size, text + start);
  }
  if (shown.size() + sizeof line <= shown.capacity()) shown += line;
}

int show() {
  const QMErrors::QMErrorT opened = SvOpenComms(kOwnId);
  if (opened != QMErrors::NoError) return poolFailure("cannot join", opened);
  if (SvIsOverloaded() != 0) std::puts("The pool is overloaded.");
  shown.reserve(kLongestDump);
  QMDBNewRegisterCallback(noteDumpLine);
  SvCloseComms();
  QMDBNewRegisterCallback(nullptr);
  std::fputs(shown.c_str(), stdout);
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
  qm::platform::noteInterrupts();
  std::fprintf(stderr, "watching %u, Ctrl-C ends\n", static_cast<unsigned>(id));
  while (!qm::platform::interrupted() &&
         (result == QMErrors::NoError || result == QMErrors::CommandTimedOut)) {
    char text[256];
    result = SvReceiveMessage(text, sizeof text, kWatchStepMs);
    if (result == QMErrors::NoError) {
      std::puts(text);
      if (std::fflush(stdout) != 0) break;  // messages are not taken for nobody
    }
  }
  const bool ended = qm::platform::interrupted() || result == QMErrors::NoError;
  const int status = ended ? kSuccess : poolFailure("cannot receive", result);
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
