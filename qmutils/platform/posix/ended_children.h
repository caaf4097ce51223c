// How children ended. For platform/posix/ only.
#pragma once

namespace qm::platform::posix {

/// To be called before a child is started: a program that was started with SIGCHLD ignored would
/// never learn how its children end, so the signal gets its usual meaning back.
void keepEndedChildren() noexcept;

}  // namespace qm::platform::posix
