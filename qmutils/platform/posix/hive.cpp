#include "qmutils/platform/hive.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <unordered_map>

#include "qmutils/platform/posix/hive_store.h"
#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform {

namespace {

using posix::HiveStore;
using posix::KeyPlace;

constexpr std::size_t kLongestKeyName = 255;
constexpr std::size_t kLongestValueName = 16'383;

/// What a handle stands for.
struct Key {
  HiveStore* store;
  KeyPlace place;
  std::string path;  ///< empty for a tree's root
  bool mayWrite;
};

/// The open handles. A number is used once, so a closed handle never means another key.
class KeyTable {
 public:
  HKEY add(Key key) {
    auto shared = std::make_shared<const Key>(std::move(key));
    const SuspensionDeferral notWithTheLock;
    const std::lock_guard lock(mutex_);
    const HKEY handle = reinterpret_cast<HKEY>(next_);
    keys_.emplace(handle, std::move(shared));
    next_ += 4;  // the trees' own handles are no multiples of 4
    return handle;
  }

  /// Null for a handle that is not there.
  std::shared_ptr<const Key> find(HKEY handle) const {
    const SuspensionDeferral notWithTheLock;
    const std::lock_guard lock(mutex_);
    const auto found = keys_.find(handle);
    return found == keys_.end() ? nullptr : found->second;
  }

  bool remove(HKEY handle) {
    const SuspensionDeferral notWithTheLock;
    const std::lock_guard lock(mutex_);
    return keys_.erase(handle) != 0;
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<HKEY, std::shared_ptr<const Key>> keys_;
  std::uintptr_t next_ = 0x100;
};

KeyTable& keyTable() {
  static KeyTable& table = *new KeyTable;  // threads may outlive main()
  return table;
}

/// Null when there is no such key. The trees' roots are never destroyed.
std::shared_ptr<const Key> keyOf(HKEY handle) {
  static const auto& user =
      *new auto(std::make_shared<const Key>(Key{&posix::userHive(), {}, {}, true}));
  static const auto& machine =
      *new auto(std::make_shared<const Key>(Key{&posix::machineHive(), {}, {}, true}));
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

  Key key{parent->store, {}, parent->path, how != Opening::ToRead};
  if (!key.path.empty() && !below.empty()) key.path += '\\';
  key.path += below;
  DWORD error = 0;
  switch (how) {
    case Opening::ToRead:
      error = key.store->open(parent->place, key.path, &key.place);
      break;
    case Opening::ToWrite:
      error = key.store->openToWrite(parent->place, key.path, &key.place);
      break;
    case Opening::Making:
      error = key.store->create(parent->place, parent->path.size(), key.path, &key.place);
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
  return withKey(key, [&](const Key& k) { return k.store->read(k.place, text, value); });
}

DWORD writeValue(HKEY key, const char* name, DWORD type, const void* data,
                 std::size_t size) noexcept {
  const std::string_view text = name != nullptr ? name : "";
  return withKey(key, [&](const Key& k) -> DWORD {
    if (text.size() > kLongestValueName || (data == nullptr && size != 0)) {
      return ERROR_INVALID_PARAMETER;
    }
    if (!k.mayWrite) return ERROR_ACCESS_DENIED;
    return k.store->write(k.place, text, type, data, size);
  });
}

DWORD subKeyAt(HKEY key, DWORD index, std::string* name) noexcept {
  return withKey(key, [&](const Key& k) { return k.store->subKeyAt(k.place, index, name); });
}

DWORD valueNameAt(HKEY key, DWORD index, std::string* name) noexcept {
  return withKey(key, [&](const Key& k) { return k.store->valueNameAt(k.place, index, name); });
}

DWORD keyTime(HKEY key, FILETIME* time) noexcept {
  return withKey(key, [&](const Key& k) { return k.store->time(k.place, time); });
}

}  // namespace qm::platform
