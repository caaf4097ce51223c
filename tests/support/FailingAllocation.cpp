#include "tests/support/FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace {

// 0: no failure is due.
thread_local int allocationsUntilFailure = 0;

void* allocate(std::size_t size) noexcept {
  if (allocationsUntilFailure > 0 && --allocationsUntilFailure == 0) return nullptr;
  return std::malloc(size != 0 ? size : 1);
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
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace qmtest {

FailingAllocation::FailingAllocation(int n) { allocationsUntilFailure = n; }
FailingAllocation::~FailingAllocation() { allocationsUntilFailure = 0; }
bool FailingAllocation::hasFailed() const { return allocationsUntilFailure == 0; }

}  // namespace qmtest
