#include "qmutils/platform/hive.h"

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <unordered_map>

#include "qmutils/platform/posix/hive_store.h"
#include "qmutils/platform/short_lock.h"

namespace qm::platform {

namespace {

using posix::HiveStore;

constexpr std::size_t kLongestKeyName = 255;
constexpr std::size_t kLongestValueName = 16'383;
constexpr std::ptrdiff_t kDeepestPath = 512;

/// What a handle stands for.
struct Key {
  HiveStore* store;
  std::int64_t id;
  std::string path;  ///< empty for a tree's root
  bool mayWrite;
};

/// The open handles. A number is used once, so a closed handle never means another key.
class KeyTable {
 public:
  HKEY add(Key key) {
    auto shared = std::make_shared<const Key>(std::move(key));
    const ShortLock lock(mutex_);
    const HKEY handle = reinterpret_cast<HKEY>(next_);
    keys_.emplace(handle, std::move(shared));
    next_ += 4;  // the trees' own handles are no multiples of 4
    return handle;
  }

  /// Null for a handle that is not there.
  std::shared_ptr<const Key> find(HKEY handle) const noexcept {
    const ShortLock lock(mutex_);
    const auto found = keys_.find(handle);
    return found == keys_.end() ? nullptr : found->second;
  }

  bool remove(HKEY handle) noexcept {
    std::shared_ptr<const Key> removed;  // destroyed outside of the lock
    const ShortLock lock(mutex_);
    const auto found = keys_.find(handle);
    if (found == keys_.end()) return false;
    removed = std::move(found->second);
    keys_.erase(found);
    return true;
  }

  // Around a fork.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<HKEY, std::shared_ptr<const Key>> keys_;
  std::uintptr_t next_ = 0x100;
};

/// Never destroyed: threads may outlive main().
KeyTable& keyTable() noexcept {
  alignas(KeyTable) static std::byte storage[sizeof(KeyTable)];
  static KeyTable& table = *new (storage) KeyTable;
  static const int registered =
      pthread_atfork([] { table.lock(); }, [] { table.unlock(); }, [] { table.unlock(); });
  (void)registered;
  return table;
}

/// Null when there is no such key. The trees' roots are never destroyed.
std::shared_ptr<const Key> keyOf(HKEY handle) {
  static const auto& user =
      *new auto(std::make_shared<const Key>(Key{&posix::userHive(), HiveStore::kRoot, {}, true}));
  static const auto& machine = *new auto(
      std::make_shared<const Key>(Key{&posix::machineHive(), HiveStore::kRoot, {}, true}));
  if (handle == HKEY_CURRENT_USER) return user;
  if (handle == HKEY_LOCAL_MACHINE) return machine;
  return keyTable().find(handle);
}

/// 0, or what is wrong with the path of a sub-key. Takes off the '\' that may end it.
DWORD checkPath(std::string_view& path) {
  if (path.ends_with('\\') && path.size() > 1) path.remove_suffix(1);
  std::size_t start = 0;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('\\', start), path.size());
    if (end == start) return ERROR_BAD_PATHNAME;
    if (end - start > kLongestKeyName) return ERROR_INVALID_PARAMETER;
    if (end == path.size()) break;
    start = end + 1;
  }
  return 0;
}

enum class Opening { ToRead, ToWrite, Making };

DWORD openAs(Opening how, HKEY parentHandle, const char* subKey, HKEY* handle) try {
  *handle = nullptr;
  const std::shared_ptr<const Key> parent = keyOf(parentHandle);
  if (parent == nullptr) return ERROR_INVALID_HANDLE;
  std::string_view below = subKey != nullptr ? subKey : "";
  const DWORD wrong = checkPath(below);
  if (wrong != 0) return wrong;

  Key key{parent->store, HiveStore::kRoot, parent->path, how != Opening::ToRead};
  if (!key.path.empty() && !below.empty()) key.path += '\\';
  key.path += below;
  if (std::ranges::count(key.path, '\\') >= kDeepestPath) return ERROR_INVALID_PARAMETER;
  DWORD error = 0;
  switch (how) {
    case Opening::ToRead:
      error = key.store->open(parent->id, key.path, &key.id);
      break;
    case Opening::ToWrite:
      error = key.store->openToWrite(parent->id, key.path, &key.id);
      break;
    case Opening::Making:
      error = key.store->create(parent->id, parent->path.size(), key.path, &key.id);
      break;
  }
  if (error == 0) *handle = keyTable().add(std::move(key));
  return error;
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

/// Runs `work` on the key of a handle.
template <class Work>
DWORD withKey(HKEY handle, const Work& work) noexcept try {
  const std::shared_ptr<const Key> key = keyOf(handle);
  return key == nullptr ? ERROR_INVALID_HANDLE : work(*key);
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace

DWORD openKey(HKEY parent, const char* subKey, bool mayWrite, HKEY* key) noexcept {
  return openAs(mayWrite ? Opening::ToWrite : Opening::ToRead, parent, subKey, key);
}

DWORD createKey(HKEY parent, const char* subKey, HKEY* key) noexcept {
  return openAs(Opening::Making, parent, subKey, key);
}

DWORD closeKey(HKEY key) noexcept {
  if (key == HKEY_CURRENT_USER || key == HKEY_LOCAL_MACHINE) return 0;
  return keyTable().remove(key) ? 0 : ERROR_INVALID_HANDLE;
}

DWORD flushKey(HKEY key) noexcept {
  return withKey(key, [](const Key&) -> DWORD { return 0; });
}

DWORD readValue(HKEY key, const char* name, RegistryValue* value) noexcept {
  const std::string_view text = name != nullptr ? name : "";
  return withKey(key, [&](const Key& k) { return k.store->read(k.id, text, value); });
}

DWORD writeValue(HKEY key, const char* name, DWORD type, const void* data,
                 std::size_t size) noexcept {
  const std::string_view text = name != nullptr ? name : "";
  return withKey(key, [&](const Key& k) -> DWORD {
    if (text.size() > kLongestValueName || (data == nullptr && size != 0)) {
      return ERROR_INVALID_PARAMETER;
    }
    if (!k.mayWrite) return ERROR_ACCESS_DENIED;
    return k.store->write(k.id, text, type, data, size);
  });
}

DWORD subKeyAt(HKEY key, DWORD index, std::string* name) noexcept {
  return withKey(key, [&](const Key& k) { return k.store->subKeyAt(k.id, index, name); });
}

DWORD valueNameAt(HKEY key, DWORD index, std::string* name) noexcept {
  return withKey(key, [&](const Key& k) { return k.store->valueNameAt(k.id, index, name); });
}

DWORD readTree(HKEY key, std::vector<RegistryContent>* tree) noexcept {
  return withKey(key, [&](const Key& k) { return k.store->readTree(k.id, tree); });
}

DWORD writeTree(HKEY key, const std::vector<RegistryContent>& tree) noexcept {
  return withKey(key, [&](const Key& k) -> DWORD {
    return k.mayWrite ? k.store->writeTree(k.id, k.path, tree) : ERROR_ACCESS_DENIED;
  });
}

DWORD keyTime(HKEY key, FILETIME* time) noexcept {
  return withKey(key, [&](const Key& k) { return k.store->time(k.id, time); });
}

}  // namespace qm::platform
