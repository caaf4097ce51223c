#include "qmutils/platform/posix/suspension.h"

#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform {
namespace posix {
namespace {

// High in the real-time range, away from the signals that run-times take from its low end.
int suspensionSignal() noexcept { return SIGRTMIN + 11; }

void onSuspensionSignal(int) {
  const int savedErrno = errno;
  ThreadRecord* record = currentThreadIfKnown();
  if (record != nullptr) {
    if (record->deferral.load(std::memory_order_relaxed) > 0) {
      record->suspensionPending.store(true, std::memory_order_relaxed);
    } else {
      parkWhileSuspended(*record);
    }
  }
  errno = savedErrno;
}

bool installHandler() noexcept {
  struct sigaction action = {};
  action.sa_handler = onSuspensionSignal;
  // Without SA_RESTART: a blocked wait comes back, sees its deadline and sleeps again.
  sigfillset(&action.sa_mask);
  return sigaction(suspensionSignal(), &action, nullptr) == 0;
}

/// Waits that belong to standing still follow the real clock and never give up by themselves.
void sleepOnWord(const FutexWord& word, std::uint32_t expected) noexcept {
  futexWait(word, expected, Deadline::after(INFINITE));
}

}  // namespace

bool prepareSuspension() noexcept {
  static const bool installed = installHandler();
  return installed;
}

void allowSuspensionSignal() noexcept {
  sigset_t signal;
  sigemptyset(&signal);
  sigaddset(&signal, suspensionSignal());
  pthread_sigmask(SIG_UNBLOCK, &signal, nullptr);
}

bool signalSuspension(const ThreadRecord& record) noexcept {
  return syscall(SYS_tgkill, getpid(), static_cast<pid_t>(record.threadId), suspensionSignal()) ==
         0;
}

void parkWhileSuspended(ThreadRecord& record) noexcept {
  FutexWord& word = record.suspension;
  std::uint32_t seen = word.load(std::memory_order_acquire);
  while ((seen & kCountMask) != 0 && (seen & kParked) == 0) {
    if (word.compare_exchange_weak(seen, seen | kParked, std::memory_order_acq_rel)) {
      futexWake(&word, INT_MAX);
      seen |= kParked;
    }
  }
  // Leaving only by exchanging (parked, count 0) for 0 means that a suspender who raised the count
  // in between still finds the thread standing.
  while ((seen & kParked) != 0) {
    if ((seen & kCountMask) == 0) {
      if (word.compare_exchange_weak(seen, 0, std::memory_order_acq_rel)) return;
      continue;
    }
    sleepOnWord(word, seen);
    seen = word.load(std::memory_order_acquire);
  }
}

void awaitParked(const ThreadRecord& record) noexcept {
  const FutexWord& word = record.suspension;
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    const std::uint32_t seen = word.load(std::memory_order_acquire);
    if ((seen & (kParked | kEnded)) != 0 || (seen & kCountMask) == 0) return;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - start.tv_sec > 1) return;
    futexWait(word, seen, Deadline::after(50));
  }
}

void deferSuspension() noexcept {
  ThreadRecord& record = currentThread();
  // A signal handler of this very thread is the only other reader, so relaxed order is enough.
  record.deferral.store(record.deferral.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

void allowSuspension() noexcept {
  ThreadRecord& record = currentThread();
  std::atomic_signal_fence(std::memory_order_seq_cst);
  const int depth = record.deferral.load(std::memory_order_relaxed) - 1;
  record.deferral.store(depth, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (depth == 0 && record.suspensionPending.load(std::memory_order_relaxed)) {
    record.suspensionPending.store(false, std::memory_order_relaxed);
    parkWhileSuspended(record);
  }
}

}  // namespace posix

SuspensionDeferral::SuspensionDeferral() noexcept { posix::deferSuspension(); }
SuspensionDeferral::~SuspensionDeferral() { posix::allowSuspension(); }

}  // namespace qm::platform
