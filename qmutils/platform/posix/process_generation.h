// Tells a process from its forked copies, for what only the one that made it may use.
#pragma once

namespace qm::platform::posix {

/// Grows by one in each copy that is forked after the first call. Costs no system call.
unsigned processGeneration() noexcept;

}  // namespace qm::platform::posix
