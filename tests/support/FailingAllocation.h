// Makes one allocation of the calling thread fail, to prove that running out of memory shows as the
// promised code and breaks nothing. A test program that uses it gets a replaced operator new.
//
//   for (int n = 1;; ++n) {
//     FailingAllocation nth(n);
//     code = operation();
//     if (!nth.hasFailed()) break;   // the operation takes fewer than n allocations
//     ...
//   }
#pragma once

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

}  // namespace qmtest
