// Makes one allocation of the calling thread fail, to prove that running out of memory shows as the
// promised code and breaks nothing. A test program that uses it gets a replaced operator new.
//
//   for (int n = 1;; ++n) {
//     FailingAllocation nth(n);
//     code = operation();
//     if (!nth.hasFailed()) break;   // the operation takes fewer than n allocations
//     ...
//   }
//
// And measures how much memory an operation has at a time.
#pragma once

#include <cstddef>

namespace qmtest {

class FailingAllocation {
 public:
  /// The n-th allocation from now on fails, n = 1 being the next.
  explicit FailingAllocation(int n);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  bool hasFailed() const;
};

/// The most memory that the calling thread has had allocated at a time since the object was made,
/// beyond what it had then.
class MemoryPeak {
 public:
  MemoryPeak();
  std::size_t bytes() const;

 private:
  std::ptrdiff_t before_;
};

}  // namespace qmtest
