// Threads: starting, identifiers, suspension with counts, priorities, sleeping.
//
// A thread's handle is waitable (waitable.h) and signalled once the thread has ended. All functions
// may be called from any thread; failures set the last error (6 for a handle that is no thread).
#pragma once

#include <atomic>

#include "qmutils/platform/types.h"

namespace qm::platform {

using ThreadEntry = DWORD (*)(void* argument);

/// Starts a thread; `id` (may be null) receives its identifier before the thread runs. The result
/// of `entry` is the exit code. Null with the last error set when the system refuses. The caller
/// closes the handle; the thread does not depend on it.
HANDLE startThread(ThreadEntry entry, void* argument, DWORD* id) noexcept;

/// A thread that knows its handle and identifier itself, whose starter need not wait for it.
struct ThreadPlace {
  std::atomic<HANDLE> handle{nullptr};
  std::atomic<DWORD> id{0};
};
/// The same without waiting for the thread: handle and identifier are put into `place`, which must
/// last, before the thread runs; the handle also before this returns. The identifier, 0 until then,
/// may be waited for. When the system refuses, the handle is null and the identifier all ones.
bool startThread(ThreadEntry entry, void* argument, ThreadPlace& place) noexcept;

/// The system's identifier of the calling thread; never 0.
DWORD currentThreadId() noexcept;

/// STILL_ACTIVE (259) while the thread runs.
bool threadExitCode(HANDLE thread, DWORD* code) noexcept;

/// Raises the suspend count and returns once the thread stands still, which may be a moment later
/// while it is inside a short critical piece of the library. Gives the previous count, or all ones
/// on failure (last error 6; 5 for a thread that has ended). Between suspending and resuming a
/// thread the caller must not wait for what that thread may hold, the memory allocator included.
DWORD suspendThread(HANDLE thread) noexcept;
/// Lowers the suspend count; the thread goes on when it reaches 0. Gives the previous count (0: it
/// was not suspended, or it has ended), or all ones on failure.
DWORD resumeThread(HANDLE thread) noexcept;

/// Win32 priority numbers (-15, -2..2, 15). The number is stored and reported as given; making the
/// system schedule by it is best effort. Other numbers fail with 87.
bool setThreadPriority(HANDLE thread, int priority) noexcept;
/// THREAD_PRIORITY_ERROR_RETURN on failure.
int threadPriority(HANDLE thread) noexcept;
int currentThreadPriority() noexcept;

using AsyncCall = void (*)(void* argument);
/// Queues a call that the thread runs in its next alertable sleep.
bool queueAsyncCall(HANDLE thread, AsyncCall call, void* argument) noexcept;

/// Sleeps; 0 ms yields the processor. Alertable sleeps end early with WAIT_IO_COMPLETION after
/// running the calls queued for this thread; otherwise the result is 0.
DWORD sleep(DWORD milliseconds, bool alertable) noexcept;

}  // namespace qm::platform
