// Sleeping on a 32-bit word until another thread changes it and wakes the sleepers.
//
// The word is private to the process. A wait may end early for no reason (a signal, a wake meant
// for an earlier user of the same memory), so callers look at their condition again.
#pragma once

#include <atomic>
#include <cstdint>

#include "qmutils/platform/clock.h"

namespace qm::platform::posix {

using FutexWord = std::atomic<std::uint32_t>;

/// Sleeps while `word` holds `expected`, at the latest until the deadline. While a test drives the
/// clock, it sleeps at most a millisecond.
void futexWait(const FutexWord& word, std::uint32_t expected, const Deadline& deadline) noexcept;

/// Wakes up to `count` sleepers. The memory may be gone already: nothing is read or written there.
void futexWake(const FutexWord* word, int count) noexcept;

}  // namespace qm::platform::posix
