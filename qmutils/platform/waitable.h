// Waitable objects of one process: events, mutexes and semaphores, with waits for one, any or all
// of them. Threads and processes (thread.h, process.h) are waitable through the same handles.
//
// A handle names a reference-counted object. A null, closed or made-up handle makes every function
// fail with last error 6 and never reaches another object. Closing a handle while others wait on
// it is allowed: they go on waiting for the object itself.
//
// Any thread may use any handle. Operations that need not wait cost one atomic operation; only a
// wait that blocks, and the operation that ends it, take an internal lock. What a thread wrote
// before it set an event, left a mutex or released a semaphore is visible to the thread whose wait
// that ends.
#pragma once

#include <cstddef>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// Creation gives null and sets the last error (8 when memory runs out, 87 for bad counts).
QMUTILS_API HANDLE createEvent(bool manualReset, bool initiallySet) noexcept;
/// Recursive for its owner. When the owner's thread ends without releasing it, the mutex is
/// abandoned: the next wait takes it and reports so.
QMUTILS_API HANDLE createMutex(bool initiallyOwned) noexcept;
/// 0 <= initial <= maximum, maximum >= 1.
QMUTILS_API HANDLE createSemaphore(LONG initial, LONG maximum) noexcept;

QMUTILS_API bool setEvent(HANDLE event) noexcept;
QMUTILS_API bool resetEvent(HANDLE event) noexcept;
/// Fails with 288 when the calling thread is not the owner.
QMUTILS_API bool releaseMutex(HANDLE mutex) noexcept;
/// Fails with 298, changing nothing, when the count would pass the maximum. `previous` may be null.
QMUTILS_API bool releaseSemaphore(HANDLE semaphore, LONG count, LONG* previous) noexcept;
QMUTILS_API bool closeHandle(HANDLE handle) noexcept;

/// Waits for one object: WAIT_OBJECT_0, WAIT_ABANDONED, WAIT_TIMEOUT, or WAIT_FAILED with the last
/// error set. An auto-reset event, a semaphore and a mutex are taken by the wait that succeeds.
QMUTILS_API DWORD wait(HANDLE handle, DWORD timeoutMs) noexcept;

/// Waits until any of `count` (1..64) objects is signalled and takes the one with the lowest
/// index: WAIT_OBJECT_0 + index or WAIT_ABANDONED_0 + index.
QMUTILS_API DWORD waitAny(const HANDLE* handles, std::size_t count, DWORD timeoutMs) noexcept;

/// Waits until all are signalled at one moment and takes all of them, or none. WAIT_ABANDONED_0
/// when any of them is an abandoned mutex. The handles must differ.
QMUTILS_API DWORD waitAll(const HANDLE* handles, std::size_t count, DWORD timeoutMs) noexcept;

/// The same with an absolute deadline.
DWORD waitUntil(HANDLE handle, const Deadline& deadline) noexcept;
DWORD waitAnyUntil(const HANDLE* handles, std::size_t count, const Deadline& deadline) noexcept;

}  // namespace qm::platform
