#include "qmutils/platform/standard_input.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/posix/blocking_wait.h"

namespace qm::platform {

namespace {

termios formerMode;  // of the one terminal that standard input can be

}  // namespace

long readStandardInput(char* buffer, std::size_t size, DWORD timeoutMs) noexcept {
  const Deadline deadline = Deadline::after(timeoutMs);
  if (posix::waitReady(STDIN_FILENO, POLLIN, nullptr, 0, deadline) != WAIT_OBJECT_0) return -1;
  const ssize_t count = read(STDIN_FILENO, buffer, size);
  if (count >= 0) return count;
  return errno == EINTR || errno == EAGAIN ? -1 : 0;
}

KeyByKey::KeyByKey() noexcept : changed_(tcgetattr(STDIN_FILENO, &formerMode) == 0) {
  if (!changed_) return;
  termios mode = formerMode;
  mode.c_iflag &= ~static_cast<tcflag_t>(ICRNL | INLCR | IGNCR | IXON);
  mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
  mode.c_cc[VMIN] = 1;
  mode.c_cc[VTIME] = 0;
  changed_ = tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0;
}

KeyByKey::~KeyByKey() {
  if (changed_) (void)tcsetattr(STDIN_FILENO, TCSANOW, &formerMode);
}

}  // namespace qm::platform
