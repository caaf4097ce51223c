// Storage for process-wide state that is never destroyed: threads may outlive main(), and still
// use it.
//
//   std::mutex& lock() { static qm::Immortal<std::mutex> mutex; return mutex.value; }
#pragma once

namespace qm {

template <class T>
union Immortal {
  constexpr Immortal() : value() {}
  // Not "= default": that would destroy the value, or be deleted.
  ~Immortal() {}
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;
  T value;
};

}  // namespace qm
