// Sleeping on a word of memory that processes share, until another one changes it and wakes the
// sleepers.
//
// Every sleep is short: the caller looks at its condition again after at most kLookAgainMs, because
// whoever should wake it may have been killed before the wake. A wait may end early for no reason.
#pragma once

#include <atomic>
#include <cstdint>

#include "qmutils/platform/clock.h"

namespace qm::platform::posix {

using SharedWord = std::atomic<std::uint32_t>;
static_assert(SharedWord::is_always_lock_free, "a lock inside an atomic would not be shared");

inline constexpr DWORD kLookAgainMs = 100;

/// Sleeps while `word` holds `expected`, for at most `longestMs` and kLookAgainMs; while a test
/// drives the clock, for at most a millisecond.
void sharedWait(const SharedWord& word, std::uint32_t expected, DWORD longestMs) noexcept;

void sharedWake(const SharedWord& word, int count) noexcept;

}  // namespace qm::platform::posix
