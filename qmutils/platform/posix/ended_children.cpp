#include "qmutils/platform/posix/ended_children.h"

#include <signal.h>

namespace qm::platform::posix {

void keepEndedChildren() noexcept {
  struct sigaction action;
  if (sigaction(SIGCHLD, nullptr, &action) != 0) return;
  if (action.sa_handler != SIG_IGN && (action.sa_flags & SA_NOCLDWAIT) == 0) return;
  if (action.sa_handler == SIG_IGN) action.sa_handler = SIG_DFL;
  action.sa_flags &= ~SA_NOCLDWAIT;
  sigaction(SIGCHLD, &action, nullptr);
}

}  // namespace qm::platform::posix
