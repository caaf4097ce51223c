#include "programs/Interrupt.h"

#include <atomic>
#include <csignal>

namespace programs {
namespace {

std::atomic<bool> seen{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

void onInterrupt(int) { seen = true; }

}  // namespace

void noteInterrupts() {
  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
}

bool interrupted() { return seen; }

}  // namespace programs
