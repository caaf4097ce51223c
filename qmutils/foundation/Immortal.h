// Storage for process-wide state that is never destroyed: threads may outlive main(), and still
// use it.
//
//   std::mutex& lock() { static qm::Immortal<std::mutex> mutex; return mutex.value; }
#pragma once

#include <utility>

namespace qm {

template <class T>
union Immortal {
  template <class... Arguments>
  constexpr explicit Immortal(Arguments&&... arguments)
      : value(std::forward<Arguments>(arguments)...) {}
  // Not "= default": that would destroy the value, or be deleted.
  ~Immortal() {}
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;
  T value;
};

}  // namespace qm
