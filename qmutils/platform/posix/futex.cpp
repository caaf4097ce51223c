#include "qmutils/platform/posix/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace qm::platform::posix {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kDrivenClockSliceNanoseconds = 1'000'000;

std::int64_t systemMonotonicNanoseconds() noexcept {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

}  // namespace

void futexWait(const FutexWord& word, std::uint32_t expected, const Deadline& deadline) noexcept {
  std::int64_t until = deadline.nanoseconds();
  const bool driven = timeSourceReplaced();
  if (driven) until = systemMonotonicNanoseconds() + kDrivenClockSliceNanoseconds;
  timespec time{static_cast<time_t>(until / kNanosecondsPerSecond),
                static_cast<long>(until % kNanosecondsPerSecond)};
  const bool limited = driven || !deadline.never();
  const long result = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected,
                              limited ? &time : nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
  if (result != 0 && errno == EINTR) {
    // A library call gives an instrumented build the chance to run the handler of a signal that
    // arrived during the raw system call.
    (void)systemMonotonicNanoseconds();
  }
}

void futexWake(const FutexWord* word, int count) noexcept {
  syscall(SYS_futex, word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
}

}  // namespace qm::platform::posix
