// Holds a mutex for a few instructions, during which the thread cannot be suspended: whoever
// suspends a thread may go on using the library without meeting a lock that the thread holds.
#pragma once

#include <mutex>

#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform {

template <class Mutex>
class ShortLock {
 public:
  explicit ShortLock(Mutex& mutex) : guard_(mutex) {}

 private:
  SuspensionDeferral deferral_;  // first, so that it covers the taking of the mutex
  std::lock_guard<Mutex> guard_;
};

}  // namespace qm::platform
