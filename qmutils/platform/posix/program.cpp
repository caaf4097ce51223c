#include "qmutils/platform/program.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace qm::platform {

namespace {

std::atomic<bool> interruptSeen{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

void onInterrupt(int) { interruptSeen = true; }

}  // namespace

void beginProgram() noexcept {
  int descriptor;
  do {
    descriptor = open("/dev/null", O_RDWR);
  } while (descriptor >= STDIN_FILENO && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) close(descriptor);
  signal(SIGXFSZ, SIG_IGN);
}

void noteInterrupts() noexcept {
  struct sigaction action = {};  // without SA_RESTART, so that a write that waits comes back
  action.sa_handler = onInterrupt;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction former;
    if (sigaction(number, nullptr, &former) != 0 || former.sa_handler == SIG_IGN) continue;
    sigaction(number, &action, nullptr);
  }
}

bool interrupted() noexcept { return interruptSeen; }

}  // namespace qm::platform
