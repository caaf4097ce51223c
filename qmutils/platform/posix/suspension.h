// Suspending a thread: a count, and a real-time signal in whose handler the thread stands still.
//
// A thread inside a short piece that holds an internal lock (SuspensionDeferral, the dispatcher)
// parks only when it leaves the piece; otherwise most suspensions would stop a thread that holds
// the lock which the suspender needs next.
#pragma once

#include <cstdint>

#include "qmutils/platform/posix/thread_record.h"

namespace qm::platform::posix {

/// Bits of ThreadRecord::suspension beside the count.
inline constexpr std::uint32_t kParked = 0x80000000u;
inline constexpr std::uint32_t kEnded = 0x40000000u;
inline constexpr std::uint32_t kCountMask = 0x3FFFFFFFu;

/// Installs the signal handler once; false when the system refuses.
bool prepareSuspension() noexcept;

/// Lets the signal through to the calling thread, which has its starter's signal mask.
void allowSuspensionSignal() noexcept;

/// Sends the signal; the thread must exist (its end is excluded by the dispatcher's lock). False
/// when the system has no room for another signal.
bool signalSuspension(const ThreadRecord& record) noexcept;

/// Stands still while the calling thread's suspend count is above 0.
void parkWhileSuspended(ThreadRecord& record) noexcept;

/// Entering and leaving a piece in which the calling thread must not stand still (nestable).
void deferSuspension() noexcept;
void allowSuspension() noexcept;

/// Waits until the thread stands still, has ended, or one to two seconds have passed.
void awaitParked(const ThreadRecord& record) noexcept;

}  // namespace qm::platform::posix
