#include "qmutils/platform/posix/profile_cache.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>

#include "qmutils/platform/posix/file_stamp.h"
#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform::posix {

namespace {

constexpr off_t kLargest = off_t{512} * 1024;

struct Cache {
  struct Entry {
    FileStamp stamp;
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
  const FileStamp stamp(status);
  const SuspensionDeferral deferral;  // also while the first call makes the cache
  Cache& known = cache();
  const std::lock_guard lock(known.mutex);
  for (Cache::Entry& entry : known.entries) {
    if (entry.text == nullptr || entry.stamp != stamp) continue;
    entry.lastUse = ++known.uses;
    return entry.text;
  }
  return nullptr;
}

void rememberProfile(const struct stat& status, const timespec& time, const SharedProfile& text) {
  const FileStamp stamp(status);
  if (stamp.size > kLargest || !isSettled(stamp, time)) return;
  SharedProfile given = text;  // then the one that has to go, destroyed outside of the lock
  const SuspensionDeferral deferral;
  Cache& known = cache();
  const std::lock_guard lock(known.mutex);
  Cache::Entry& oldest = *std::ranges::min_element(known.entries, {}, &Cache::Entry::lastUse);
  oldest.stamp = stamp;
  oldest.lastUse = ++known.uses;
  oldest.text.swap(given);
}

}  // namespace qm::platform::posix
