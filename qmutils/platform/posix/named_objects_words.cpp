#include "qmutils/platform/posix/named_objects_words.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace qm::platform::posix {

namespace {

constexpr DWORD kDrivenClockLookMs = 1;
constexpr long kNanosecondsPerMillisecond = 1'000'000;

}  // namespace

void sharedWait(const SharedWord& word, std::uint32_t expected, DWORD longestMs) noexcept {
  const DWORD longest = timeSourceReplaced() ? kDrivenClockLookMs : kLookAgainMs;
  const timespec time{0,
                      static_cast<long>(std::min(longestMs, longest)) * kNanosecondsPerMillisecond};
  // FUTEX_WAIT measures its relative time on the monotonic clock. Whatever the result, the caller
  // looks at its condition again.
  syscall(SYS_futex, &word, FUTEX_WAIT, expected, &time, nullptr, 0);
}

void sharedWake(const SharedWord& word, int count) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAKE, count, nullptr, nullptr, 0);
}

}  // namespace qm::platform::posix
