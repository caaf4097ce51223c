#include "tests/support/FailingAllocation.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

// 0: no failure is due.
thread_local int allocationsUntilFailure = 0;
thread_local std::ptrdiff_t bytesInUse = 0;  // may fall below 0: other threads' memory ends here
thread_local std::ptrdiff_t bytesPeak = 0;

void* allocate(std::size_t size) noexcept {
  if (allocationsUntilFailure > 0 && --allocationsUntilFailure == 0) return nullptr;
  void* const memory = std::malloc(size != 0 ? size : 1);
  bytesInUse += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  bytesPeak = std::max(bytesPeak, bytesInUse);
  return memory;
}

void release(void* memory) noexcept {
  bytesInUse -= static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  std::free(memory);
}

void* allocateOrThrow(std::size_t size) {
  if (void* memory = allocate(size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { release(memory); }

namespace qmtest {

FailingAllocation::FailingAllocation(int n) { allocationsUntilFailure = n; }
FailingAllocation::~FailingAllocation() { allocationsUntilFailure = 0; }
bool FailingAllocation::hasFailed() const { return allocationsUntilFailure == 0; }

MemoryPeak::MemoryPeak() : before_(bytesInUse) { bytesPeak = bytesInUse; }
std::size_t MemoryPeak::bytes() const { return static_cast<std::size_t>(bytesPeak - before_); }

}  // namespace qmtest
