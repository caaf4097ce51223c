// Sleeping on a word of memory that processes share, until another one changes it and wakes the
// sleepers.
//
// Every sleep is short: the caller looks at its condition again after at most kLookAgain, because
// whoever should wake it may have been killed before the wake. A wait may end early for no reason.
#pragma once

#include <atomic>
#include <cstdint>

#include "qmutils/platform/clock.h"

namespace qm::platform::posix {

using SharedWord = std::atomic<std::uint32_t>;
static_assert(SharedWord::is_always_lock_free, "a lock inside an atomic would not be shared");

inline constexpr std::int64_t kLookAgainNanoseconds = 100'000'000;

/// Sleeps while `word` holds `expected`, for at most `longest` nanoseconds and not beyond the
/// deadline; while a test drives the clock, for at most a millisecond.
void sharedWait(const SharedWord& word, std::uint32_t expected, const Deadline& deadline,
                std::int64_t longest = kLookAgainNanoseconds) noexcept;

void sharedWake(const SharedWord& word, int count) noexcept;

/// How long the next look may be off: `longest`, or what is left until the deadline if that is
/// less; at most a millisecond while a test drives the clock.
std::int64_t nextLook(const Deadline& deadline, std::int64_t longest) noexcept;

}  // namespace qm::platform::posix
