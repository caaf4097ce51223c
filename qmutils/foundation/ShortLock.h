// Holds a mutex for a few instructions, during which the thread cannot be suspended: whoever
// suspends a thread may go on using the library without meeting a lock that the thread holds.
#pragma once

#include <mutex>

#include "qmutils/platform/suspension_deferral.h"

namespace qm {

class ShortLock {
 public:
  explicit ShortLock(std::mutex& mutex) : guard_(mutex) {}

 private:
  platform::SuspensionDeferral deferral_;  // first, so that it covers the taking of the mutex
  std::lock_guard<std::mutex> guard_;
};

}  // namespace qm
