#include "qmutils/platform/terminal.h"

#include <unistd.h>

namespace qm::platform {

bool isTerminal(std::FILE* stream) noexcept { return isatty(fileno(stream)) == 1; }

}  // namespace qm::platform
