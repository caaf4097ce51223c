#include "qmutils/platform/posix/process_generation.h"

#include <pthread.h>

namespace qm::platform::posix {

unsigned processGeneration() noexcept {
  static unsigned generation = 0;  // changes only where no other thread exists yet
  static const int registered = pthread_atfork(nullptr, nullptr, [] { ++generation; });
  (void)registered;
  return generation;
}

}  // namespace qm::platform::posix
