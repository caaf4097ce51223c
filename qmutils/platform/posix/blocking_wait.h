// The waits that block: for waitable objects, and for these together with a descriptor.
// For platform/posix/ only.
#pragma once

#include <cstddef>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/types.h"

namespace qm::platform::posix {

/// Waits for any (the lowest signalled index) or all of `count` (1..64) objects, without the quick
/// look that waitable.h's functions take first. Results as there.
DWORD blockingWait(const HANDLE* handles, std::size_t count, bool all,
                   const Deadline& deadline) noexcept;

/// Waits until one of `count` (0..64) objects is signalled, which is then taken, or the descriptor
/// is ready for `events` (POLLIN, POLLOUT; an error or a hang-up counts as ready, and so does a
/// number that is no descriptor). WAIT_OBJECT_0 + index of the object, or WAIT_OBJECT_0 + count for
/// the descriptor; WAIT_ABANDONED_0 + index; WAIT_TIMEOUT; WAIT_FAILED with the last error set. An
/// object wins over the descriptor; with a deadline that has passed both are looked at once.
///
/// The thread sleeps in the system until one of them happens. The first such wait of a thread opens
/// a descriptor, which is closed when the thread ends.
DWORD waitReady(int descriptor, short events, const HANDLE* handles, std::size_t count,
                const Deadline& deadline) noexcept;

}  // namespace qm::platform::posix
