#include "qmutils/platform/posix/hive_store.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/environment.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform::posix {

namespace {

using Query = HiveConnection::Query;
using Run = HiveConnection::Run;

constexpr std::size_t kMostKnown = 64;

std::int64_t now() noexcept { return static_cast<std::int64_t>(utcTicks()); }

/// 0 when the key is there, else 1018.
DWORD expectKey(HiveConnection& file, std::int64_t key) {
  Run query(file, Query::KeyTime);
  const DWORD error = query.with(key).step();
  if (error != 0) return error;
  return query.hasRow() ? 0 : ERROR_KEY_DELETED;
}

/// The key of a path; 0 when there is none.
DWORD findKey(HiveConnection& file, std::string_view path, std::int64_t* key) {
  Run query(file, Query::FindKey);
  const DWORD error = query.with(path).step();
  *key = error == 0 && query.hasRow() ? query.number(0) : 0;
  return error;
}

DWORD touchKey(HiveConnection& file, std::int64_t key) {
  Run query(file, Query::TouchKey);
  const DWORD error = query.with(key).with(now()).step();
  if (error != 0) return error;
  return query.hasRow() ? 0 : ERROR_KEY_DELETED;
}

DWORD insertKey(HiveConnection& file, std::int64_t parent, std::string_view path,
                std::int64_t* key) {
  const DWORD touched = touchKey(file, parent);
  if (touched != 0) return touched;
  Run query(file, Query::InsertKey);
  const std::string_view name = path.substr(path.rfind('\\') + 1);
  const DWORD error = query.with(parent).with(name).with(path).with(now()).step();
  if (error == 0) *key = query.number(0);
  return error;
}

/// Makes each missing level from the top down.
DWORD makeLevels(HiveConnection& file, std::int64_t parent, std::size_t parentLength,
                 std::string_view path, std::int64_t* key) {
  const DWORD gone = expectKey(file, parent);
  if (gone != 0) return gone;
  *key = parent;
  for (std::size_t end = parentLength; end < path.size();) {
    end = std::min(path.find('\\', end + 1), path.size());
    const std::int64_t above = *key;
    DWORD error = findKey(file, path.substr(0, end), key);
    if (error == 0 && *key == 0) error = insertKey(file, above, path.substr(0, end), key);
    if (error != 0) return error;
  }
  return 0;
}

/// Makes the folders above a file.
DWORD makeFolders(const std::string& path, mode_t mode) {
  for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    if (mkdir(path.substr(0, at).c_str(), mode) != 0 && errno != EEXIST) {
      struct stat status;  // a folder that is there may be refused for another reason
      const int reason = errno;
      if (stat(path.substr(0, at).c_str(), &status) != 0) return lastErrorFromErrno(reason);
    }
  }
  return 0;
}

std::string homeFolder() {
  std::string home = environment("HOME");
  if (!home.empty()) return home;
  std::vector<char> buffer(16 * 1024);
  passwd entry, *found = nullptr;
  getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? found->pw_dir : "";
}

std::string userFile() {
  std::string path = environment("QMUTILS_USER_REGISTRY");
  if (!path.empty()) return path;
  std::string folder = environment("XDG_CONFIG_HOME");
  if (folder.empty() || folder[0] != '/') {  // others are to be ignored
    folder = homeFolder();
    if (folder.empty()) return {};
    folder += "/.config";
  }
  return folder + "/qmutils/registry.db";
}

std::string machineFile() {
  std::string path = environment("QMUTILS_MACHINE_REGISTRY");
  return path.empty() ? QMUTILS_STATE_DIR "/registry.db" : path;
}

}  // namespace

// Threads may outlive main(), and still save: the stores are never destroyed.
HiveStore& userHive() {
  static HiveStore& store = *new HiveStore(userFile, 0700, 0600);
  return store;
}

HiveStore& machineHive() {
  static HiveStore& store = *new HiveStore(machineFile, 0755, 0644);
  return store;
}

/// Runs `work` on the open file. Without a file the root is there and empty, and `ifNoFile` the
/// result; another key must have been deleted with it.
template <class Work>
DWORD HiveStore::reading(const KeyPlace& place, DWORD ifNoFile, const Work& work) {
  const std::string path = locate_();
  const SuspensionDeferral notWithTheLock;
  const std::lock_guard lock(readLock_);
  const bool root = place.key == KeyPlace::kRoot;
  const DWORD error = path.empty() ? ERROR_FILE_NOT_FOUND : reader_.open(path, false);
  if (error == ERROR_FILE_NOT_FOUND) return root ? ifNoFile : ERROR_KEY_DELETED;
  if (error != 0) return error;
  if (!root && place.store != reader_.identity()) return ERROR_KEY_DELETED;
  const DWORD result = work(reader_);
  if (result == ERROR_KEY_DELETED) known_.clear();
  return result;
}

DWORD HiveStore::findKnown(HiveConnection& file, std::string_view path, std::int64_t* key) {
  if (knownStore_ != file.identity()) known_.clear();
  knownStore_ = file.identity();
  const auto known = known_.find(path);
  if (known != known_.end()) {
    *key = known->second;
    return 0;
  }
  const DWORD error = findKey(file, path, key);
  if (error != 0 || *key == 0) return error;
  if (known_.size() == kMostKnown) known_.clear();
  known_.emplace(path, *key);
  return 0;
}

/// The same for writing, `work` being one transaction: all of it, or nothing.
template <class Work>
DWORD HiveStore::writing(const KeyPlace& place, bool create, const Work& work) {
  const std::string path = locate_();
  if (path.empty()) return ERROR_PATH_NOT_FOUND;
  const SuspensionDeferral notWithTheLock;
  const std::lock_guard lock(writeLock_);
  const bool root = place.key == KeyPlace::kRoot;
  for (bool again = true;; again = false) {
    if (create) {
      const DWORD error = makeFile(path);
      if (error != 0) return error;
    }
    DWORD error = writer_.open(path, true);
    if (error == ERROR_FILE_NOT_FOUND && !root) return ERROR_KEY_DELETED;
    if (error != 0) return error;
    if (!root && place.store != writer_.identity()) return ERROR_KEY_DELETED;
    error = writer_.run(Query::Begin);
    if (error == 0) error = work(writer_);
    if (error == 0) error = writer_.run(Query::Commit);
    if (error == 0) return 0;
    writer_.run(Query::Rollback);
    // The file was taken away or replaced meanwhile: nothing was written.
    if (again && error == ERROR_REGISTRY_IO_FAILED && !writer_.isStillNamed()) continue;
    return error;
  }
}

/// Makes an empty file where there is none. The system lets go of a process's locks on a file when
/// the process closes any descriptor of it; so the reader must not be at it meanwhile.
DWORD HiveStore::makeFile(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0 || errno != ENOENT) return 0;  // opening it will tell
  const DWORD error = makeFolders(path, folderMode_);
  if (error != 0) return error;
  const std::lock_guard lock(readLock_);
  const Descriptor made(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode_));
  return made.isOpen() || errno == EEXIST ? 0 : lastErrorFromErrno(errno);
}

DWORD HiveStore::open(const KeyPlace& parent, std::string_view path, KeyPlace* place) {
  const DWORD ifNoFile = path.empty() ? 0 : ERROR_FILE_NOT_FOUND;
  return reading(parent, ifNoFile, [&](HiveConnection& file) {
    const DWORD error = findKnown(file, path, &place->key);
    place->store = file.identity();
    if (error != 0 || place->key != 0) return error;
    const DWORD gone = expectKey(file, parent.key);
    return gone != 0 ? gone : ERROR_FILE_NOT_FOUND;
  });
}

DWORD HiveStore::openToWrite(const KeyPlace& parent, std::string_view path, KeyPlace* place) {
  const std::string file = locate_();
  if (file.empty()) return ERROR_PATH_NOT_FOUND;
  const SuspensionDeferral notWithTheLock;
  const std::lock_guard lock(writeLock_);
  DWORD error = writer_.open(file, true);
  if (error != 0) return error;
  place->store = writer_.identity();
  if (parent.key != KeyPlace::kRoot && parent.store != place->store) return ERROR_KEY_DELETED;
  error = findKey(writer_, path, &place->key);
  if (error != 0 || place->key != 0) return error;
  error = expectKey(writer_, parent.key);
  return error != 0 ? error : ERROR_FILE_NOT_FOUND;
}

DWORD HiveStore::create(const KeyPlace& parent, std::size_t parentLength, std::string_view path,
                        KeyPlace* place) {
  // Most keys are there already, and need no turn at writing.
  const DWORD error = openToWrite(parent, path, place);
  if (error != ERROR_FILE_NOT_FOUND) return error;
  return writing(parent, parent.key == KeyPlace::kRoot, [&](HiveConnection& file) {
    place->store = file.identity();
    return makeLevels(file, parent.key, parentLength, path, &place->key);
  });
}

DWORD HiveStore::read(const KeyPlace& place, std::string_view name, RegistryValue* value) {
  return reading(place, ERROR_FILE_NOT_FOUND, [&](HiveConnection& file) -> DWORD {
    Run query(file, Query::ReadValue);
    const DWORD error = query.with(place.key).with(name).step();
    if (error != 0) return error;
    if (!query.hasRow()) return ERROR_KEY_DELETED;
    if (query.isNull(0)) return ERROR_FILE_NOT_FOUND;
    value->name = query.bytes(0);
    value->type = static_cast<DWORD>(query.number(1));
    value->data = query.bytes(2);
    return 0;
  });
}

DWORD HiveStore::write(const KeyPlace& place, std::string_view name, DWORD type, const void* data,
                       std::size_t size) {
  return writing(place, place.key == KeyPlace::kRoot, [&](HiveConnection& file) {
    const DWORD error = touchKey(file, place.key);
    if (error != 0) return error;
    Run query(file, Query::WriteValue);
    return query.with(place.key).with(name).with(std::int64_t{type}).withBytes(data, size).step();
  });
}

DWORD HiveStore::itemAt(Query query, const KeyPlace& place, DWORD index, std::string* name) {
  return reading(place, ERROR_NO_MORE_ITEMS, [&](HiveConnection& file) -> DWORD {
    Run item(file, query);
    const DWORD error = item.with(place.key).with(std::int64_t{index}).step();
    if (error != 0) return error;
    if (item.hasRow()) {
      *name = item.bytes(0);
      return 0;
    }
    const DWORD gone = expectKey(file, place.key);
    return gone != 0 ? gone : ERROR_NO_MORE_ITEMS;
  });
}

DWORD HiveStore::subKeyAt(const KeyPlace& place, DWORD index, std::string* name) {
  return itemAt(Query::SubKeyAt, place, index, name);
}

DWORD HiveStore::valueNameAt(const KeyPlace& place, DWORD index, std::string* name) {
  return itemAt(Query::ValueNameAt, place, index, name);
}

DWORD HiveStore::time(const KeyPlace& place, FILETIME* time) {
  *time = {};
  return reading(place, 0, [&](HiveConnection& file) -> DWORD {
    Run query(file, Query::KeyTime);
    const DWORD error = query.with(place.key).step();
    if (error != 0) return error;
    if (!query.hasRow()) return ERROR_KEY_DELETED;
    *time = fileTimeFromTicks(static_cast<std::uint64_t>(query.number(0)));
    return 0;
  });
}

}  // namespace qm::platform::posix
