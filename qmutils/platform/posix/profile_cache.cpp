#include "qmutils/platform/posix/profile_cache.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>

#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform::posix {

namespace {

constexpr off_t kLargest = off_t{512} * 1024;

constexpr std::int64_t nanoseconds(const timespec& time) noexcept {
  return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

/// What differs after every change of a file. Nobody can set the time of the last change of status
/// back, as the time of the last write can be.
struct Stamp {
  explicit Stamp(const struct stat& status) noexcept
      : device(status.st_dev),
        inode(status.st_ino),
        size(status.st_size),
        written(nanoseconds(status.st_mtim)),
        changed(nanoseconds(status.st_ctim)) {}
  Stamp() noexcept = default;
  bool operator==(const Stamp&) const = default;

  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t written = 0;
  std::int64_t changed = 0;
};

/// False when the file may change once more without another time: the clock of file times stands
/// still for up to 10 ms, and where it counts in seconds for up to two of them.
bool isSettled(const Stamp& stamp, const timespec& time) noexcept {
  constexpr std::int64_t kMillisecond = 1'000'000;
  const bool coarse = stamp.written % kMillisecond == 0 || stamp.changed % kMillisecond == 0;
  return nanoseconds(time) - stamp.changed > (coarse ? 3000 : 50) * kMillisecond;
}

struct Cache {
  struct Entry {
    Stamp stamp;
    SharedProfile text;
    std::uint64_t lastUse = 0;
  };
  std::mutex mutex;
  Entry entries[8];
  std::uint64_t uses = 0;
};

/// Never destroyed: threads may outlive main(). A process is forked while no other thread is inside
/// the lock.
Cache& cache() {
  static Cache& made = *new Cache;
  static const int registered = pthread_atfork(
      [] { made.mutex.lock(); }, [] { made.mutex.unlock(); }, [] { made.mutex.unlock(); });
  (void)registered;
  return made;
}

}  // namespace

SharedProfile knownProfile(const struct stat& status) {
  const Stamp stamp(status);
  Cache& known = cache();
  const SuspensionDeferral deferral;
  const std::lock_guard lock(known.mutex);
  for (Cache::Entry& entry : known.entries) {
    if (entry.text == nullptr || entry.stamp != stamp) continue;
    entry.lastUse = ++known.uses;
    return entry.text;
  }
  return nullptr;
}

void rememberProfile(const struct stat& status, const timespec& time, const SharedProfile& text) {
  const Stamp stamp(status);
  if (stamp.size > kLargest || !isSettled(stamp, time)) return;
  Cache& known = cache();
  SharedProfile given = text;  // then the one that has to go, destroyed outside of the lock
  const SuspensionDeferral deferral;
  const std::lock_guard lock(known.mutex);
  Cache::Entry& oldest = *std::ranges::min_element(known.entries, {}, &Cache::Entry::lastUse);
  oldest.stamp = stamp;
  oldest.lastUse = ++known.uses;
  oldest.text.swap(given);
}

}  // namespace qm::platform::posix
