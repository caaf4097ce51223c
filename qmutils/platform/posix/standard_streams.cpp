#include "qmutils/platform/standard_streams.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/blocking_wait.h"
#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

long readStandardInput(char* buffer, std::size_t size, DWORD timeoutMs, HANDLE wake) noexcept {
  const Deadline deadline = Deadline::after(timeoutMs);
  const DWORD handles = wake != nullptr ? 1 : 0;
  const DWORD result = posix::waitReady(STDIN_FILENO, POLLIN, &wake, handles, deadline);
  if (result != WAIT_OBJECT_0 + handles) return -1;
  const ssize_t count = read(STDIN_FILENO, buffer, size);
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return -1;
  setLastError(ERROR_SUCCESS);
  if (count < 0) (void)failWithErrno(errno);
  return std::max<long>(count, 0);
}

bool takesOutput(std::FILE* stream) noexcept {
  const Deadline now = Deadline::after(0);
  return posix::waitReady(fileno(stream), POLLOUT, nullptr, 0, now) == WAIT_OBJECT_0;
}

KeyByKey::KeyByKey() noexcept : changed_(false) {
  termios mode;
  static_assert(sizeof mode <= sizeof formerMode_ && alignof(termios) <= 8);
  // Of a terminal that does not control us there is no background.
  const pid_t foreground = tcgetpgrp(STDIN_FILENO);
  if (foreground >= 0 && foreground != getpgrp()) return;
  if (tcgetattr(STDIN_FILENO, &mode) != 0) return;
  std::memcpy(formerMode_, &mode, sizeof mode);
  mode.c_iflag &= ~static_cast<tcflag_t>(ICRNL | INLCR | IGNCR | IXON);
  mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
  mode.c_cc[VMIN] = 1;
  mode.c_cc[VTIME] = 0;
  changed_ = tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0;
}

KeyByKey::~KeyByKey() {
  if (!changed_) return;
  termios mode;
  std::memcpy(&mode, formerMode_, sizeof mode);
  (void)tcsetattr(STDIN_FILENO, TCSANOW, &mode);
}

}  // namespace qm::platform
