#include "qmutils/platform/posix/named_objects_words.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace qm::platform::posix {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kDrivenClockLook = 1'000'000;

}  // namespace

std::int64_t nextLook(const Deadline& deadline, std::int64_t longest) noexcept {
  if (timeSourceReplaced()) longest = std::min(longest, kDrivenClockLook);
  if (deadline.never()) return longest;
  return std::min(longest, deadline.nanoseconds() - monotonicNanoseconds());
}

void sharedWait(const SharedWord& word, std::uint32_t expected, const Deadline& deadline,
                std::int64_t longest) noexcept {
  const std::int64_t span = nextLook(deadline, longest);
  if (span <= 0) return;
  const timespec time{static_cast<time_t>(span / kNanosecondsPerSecond),
                      static_cast<long>(span % kNanosecondsPerSecond)};
  // FUTEX_WAIT measures its relative time on the monotonic clock. Whatever the result, the caller
  // looks at the word again.
  syscall(SYS_futex, &word, FUTEX_WAIT, expected, &time, nullptr, 0);
}

void sharedWake(const SharedWord& word, int count) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAKE, count, nullptr, nullptr, 0);
}

}  // namespace qm::platform::posix
