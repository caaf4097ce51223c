// Puts off a suspension of the calling thread while it is inside a short piece that holds an
// internal lock. Whoever suspends a thread may then use the library without meeting a lock that
// the suspended thread holds. Costs a few nanoseconds; may be nested.
#pragma once

namespace qm::platform {

class SuspensionDeferral {
 public:
  SuspensionDeferral() noexcept;
  ~SuspensionDeferral();
  SuspensionDeferral(const SuspensionDeferral&) = delete;
  SuspensionDeferral& operator=(const SuspensionDeferral&) = delete;
};

}  // namespace qm::platform
