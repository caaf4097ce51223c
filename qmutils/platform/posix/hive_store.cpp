#include "qmutils/platform/posix/hive_store.h"

#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <utility>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/environment.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/suspension_deferral.h"

namespace qm::platform::posix {

namespace {

using Query = HiveConnection::Query;
using Run = HiveConnection::Run;

constexpr DWORD kLongestWaitMs = 20'000;
constexpr std::size_t kMostKnown = 64;

std::int64_t now() noexcept { return static_cast<std::int64_t>(utcTicks()); }

/// One of a store's locks, for as long as a call may take. A thread that has it is not suspended.
class Turn {
 public:
  Turn(std::mutex& mutex, const Deadline& deadline) noexcept : mutex_(mutex) {
    do {
      deferral_.emplace();
      isMine_ = mutex.try_lock();
      if (isMine_) return;
      deferral_.reset();
    } while (waitAWhile(deadline));
  }
  ~Turn() {
    if (isMine_) mutex_.unlock();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  bool isMine() const noexcept { return isMine_; }

 private:
  /// Looking again and again, as a call has a deadline and the lock none.
  bool waitAWhile(const Deadline& deadline) noexcept {
    constexpr long kLongestPauseNanoseconds = 1'000'000;
    if (deadline.passed()) return false;
    nanosleep(&pause_, nullptr);
    pause_.tv_nsec = std::min(2 * pause_.tv_nsec, kLongestPauseNanoseconds);
    return true;
  }

  std::mutex& mutex_;
  std::optional<SuspensionDeferral> deferral_;
  bool isMine_ = false;
  timespec pause_ = {0, 20'000};
};

/// Undone unless it was committed, also when memory runs out in the middle of it.
class Transaction {
 public:
  Transaction(HiveConnection& file, Query begin) noexcept : file_(file), begun_(file.run(begin)) {}
  ~Transaction() {
    if (!committed_) file_.run(Query::Rollback);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  DWORD begun() const noexcept { return begun_; }
  DWORD commit() noexcept {
    const DWORD error = file_.run(Query::Commit);
    committed_ = error == 0;
    return error;
  }

 private:
  HiveConnection& file_;
  const DWORD begun_;
  bool committed_ = false;
};

/// 0 when the key is there, else 1018.
DWORD expectKey(HiveConnection& file, std::int64_t key) {
  if (key == HiveStore::kRoot) return 0;
  Run query(file, Query::KeyTime);
  const DWORD error = query.with(key).step();
  if (error != 0) return error;
  return query.hasRow() ? 0 : ERROR_KEY_DELETED;
}

/// 2 when there is no key of that path, 1018 when its parent has gone.
DWORD findKey(HiveConnection& file, std::string_view path, std::int64_t parent, std::int64_t* key) {
  {
    Run query(file, Query::FindKey);
    const DWORD error = query.with(path).with(parent).step();
    if (error != 0) return error;
    if (query.hasRow()) {
      *key = query.number(0);
      return 0;
    }
  }
  const DWORD gone = expectKey(file, parent);
  return gone != 0 ? gone : ERROR_FILE_NOT_FOUND;
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
    DWORD error = findKey(file, path.substr(0, end), above, key);
    if (error == ERROR_FILE_NOT_FOUND) {
      error = insertKey(file, above, path.substr(0, end), key);
    }
    if (error != 0) return error;
  }
  return 0;
}

DWORD putValue(HiveConnection& file, std::int64_t key, std::string_view name, DWORD type,
               const void* data, std::size_t size) {
  Run query(file, Query::WriteValue);
  return query.with(key).with(name).with(std::int64_t{type}).withBytes(data, size).step();
}

RegistryValue valueOf(const Run& row) {
  return {std::string(row.bytes(0)), static_cast<DWORD>(row.number(1)), std::string(row.bytes(2))};
}

DWORD readValues(HiveConnection& file, std::int64_t key, std::vector<RegistryValue>& values) {
  Run query(file, Query::Values);
  DWORD error = query.with(key).step();
  for (; error == 0 && query.hasRow(); error = query.step()) values.push_back(valueOf(query));
  return error;
}

/// A key and all below it, from within one transaction.
DWORD collectTree(HiveConnection& file, std::int64_t key, std::vector<RegistryContent>& tree) {
  std::string top;
  {
    Run query(file, Query::KeyPath);
    const DWORD error = query.with(key).step();
    if (error != 0) return error;
    if (!query.hasRow()) return ERROR_KEY_DELETED;
    top = query.bytes(0);
  }
  std::vector<std::int64_t> keys = {key};
  tree.emplace_back();
  {
    // ']' follows '\', and the empty path of the root comes before all others.
    const std::string from = top.empty() ? top : top + '\\';
    const std::string to = top.empty() ? "\xff" : top + ']';
    Run query(file, Query::KeysBelow);
    DWORD error = query.with(from).with(to).step();
    for (; error == 0 && query.hasRow(); error = query.step()) {
      keys.push_back(query.number(0));
      tree.push_back({std::string(query.bytes(1).substr(from.size())), {}});
    }
    if (error != 0) return error;
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const DWORD error = readValues(file, keys[i], tree[i].values);
    if (error != 0) return error;
  }
  return 0;
}

/// What was made stays after a power cut.
void flushFolder(const std::string& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.isOpen()) fsync(opened.get());
}

/// Makes the folders above a file.
DWORD makeFolders(const std::string& path, mode_t mode) {
  for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    const std::string folder = path.substr(0, at);
    if (mkdir(folder.c_str(), mode) == 0) {
      flushFolder(folder.substr(0, folder.rfind('/') + 1));
      continue;
    }
    const int reason = errno;
    struct stat status;  // a folder that is there may be refused for another reason
    if (stat(folder.c_str(), &status) != 0) return lastErrorFromErrno(reason);
  }
  return 0;
}

/// SQLite takes some names for other things than files.
std::string asFileName(std::string path) {
  return path.empty() || path[0] == '/' ? path : "./" + path;
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
  std::string path = asFileName(environment("QMUTILS_USER_REGISTRY"));
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
  const std::string path = asFileName(environment("QMUTILS_MACHINE_REGISTRY"));
  return path.empty() ? QMUTILS_STATE_DIR "/registry.db" : path;
}

}  // namespace

namespace {

void lockAllForFork() {
  userHive().beforeFork();
  machineHive().beforeFork();
}

void unlockAllAfterFork() {
  machineHive().afterFork();
  userHive().afterFork();
}

/// Once: a fork waits for what is being read or saved.
void watchForks() {
  static const int registered =
      pthread_atfork(lockAllForFork, unlockAllAfterFork, unlockAllAfterFork);
  (void)registered;
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

void HiveStore::beforeFork() {
  writeLock_.lock();
  readLock_.lock();
}

void HiveStore::afterFork() {
  readLock_.unlock();
  writeLock_.unlock();
}

/// Runs `work` on the open file. Without a file the root is there and empty, and `ifNoFile` the
/// result; another key must have been deleted with it.
template <class Work>
DWORD HiveStore::reading(std::int64_t key, DWORD ifNoFile, const Work& work) {
  watchForks();
  const std::string path = locate_();
  const Deadline deadline = Deadline::after(kLongestWaitMs);
  const Turn turn(readLock_, deadline);
  if (!turn.isMine()) return ERROR_BUSY;
  const DWORD error = path.empty() ? ERROR_FILE_NOT_FOUND : reader_.open(path, false, deadline);
  if (error == ERROR_FILE_NOT_FOUND) return key == kRoot ? ifNoFile : ERROR_KEY_DELETED;
  return error != 0 ? error : work(reader_);
}

/// The same for writing, `work` being one transaction: all of it, or nothing.
template <class Work>
DWORD HiveStore::writing(std::int64_t key, bool create, const Work& work) {
  watchForks();
  const std::string path = locate_();
  if (path.empty()) return ERROR_PATH_NOT_FOUND;
  const Deadline deadline = Deadline::after(kLongestWaitMs);
  const Turn turn(writeLock_, deadline);
  if (!turn.isMine()) return ERROR_BUSY;
  for (bool again = true;; again = false) {
    DWORD error = create ? makeFile(path, deadline) : 0;
    if (error == 0) error = writer_.open(path, true, deadline);
    if (error == ERROR_FILE_NOT_FOUND && key != kRoot) return ERROR_KEY_DELETED;
    if (error != 0) return error;
    Transaction transaction(writer_, Query::BeginWrite);
    error = transaction.begun();
    if (error == 0) error = work(writer_);
    if (error == 0) error = transaction.commit();
    if (error == 0) return 0;
    // The file was taken away or replaced meanwhile: nothing was written.
    if (!again || writer_.isStillNamed()) return error;
  }
}

/// Makes an empty file where there is none. The system lets go of a process's locks on a file when
/// the process closes any descriptor of it; so the reader must not be at it meanwhile.
DWORD HiveStore::makeFile(const std::string& path, const Deadline& deadline) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0 || errno != ENOENT) return 0;  // opening it will tell
  const DWORD error = makeFolders(path, folderMode_);
  if (error != 0) return error;
  const Turn turn(readLock_, deadline);
  if (!turn.isMine()) return ERROR_BUSY;
  const Descriptor made(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode_));
  return made.isOpen() || errno == EEXIST ? 0 : lastErrorFromErrno(errno);
}

DWORD HiveStore::findKnown(HiveConnection& file, std::string_view path, std::int64_t parent,
                           std::int64_t* key) {
  if (knownStamp_ != file.stamp()) known_.clear();
  knownStamp_ = file.stamp();
  const auto known = known_.find(path);
  if (known != known_.end()) {
    *key = known->second;
    return expectKey(file, parent);
  }
  const DWORD error = findKey(file, path, parent, key);
  timespec time;
  clock_gettime(CLOCK_REALTIME, &time);
  if (error != 0 || !isSettled(file.stamp(), time)) return error;
  if (known_.size() == kMostKnown) known_.clear();
  known_.emplace(path, *key);
  return 0;
}

DWORD HiveStore::open(std::int64_t parent, std::string_view path, std::int64_t* key) {
  *key = kRoot;
  const DWORD ifNoFile = path.empty() ? 0 : ERROR_FILE_NOT_FOUND;
  return reading(parent, ifNoFile,
                 [&](HiveConnection& file) { return findKnown(file, path, parent, key); });
}

DWORD HiveStore::openToWrite(std::int64_t parent, std::string_view path, std::int64_t* key) {
  watchForks();
  const std::string name = locate_();
  if (name.empty()) return ERROR_PATH_NOT_FOUND;
  const Deadline deadline = Deadline::after(kLongestWaitMs);
  const Turn turn(writeLock_, deadline);
  if (!turn.isMine()) return ERROR_BUSY;
  const DWORD error = writer_.open(name, true, deadline);
  if (error == ERROR_FILE_NOT_FOUND && parent != kRoot) return ERROR_KEY_DELETED;
  return error != 0 ? error : findKey(writer_, path, parent, key);
}

DWORD HiveStore::create(std::int64_t parent, std::size_t parentLength, std::string_view path,
                        std::int64_t* key) {
  // Most keys are there already, and need no turn at writing.
  const DWORD error = openToWrite(parent, path, key);
  if (error != ERROR_FILE_NOT_FOUND) return error;
  return writing(parent, parent == kRoot, [&](HiveConnection& file) {
    return makeLevels(file, parent, parentLength, path, key);
  });
}

DWORD HiveStore::read(std::int64_t key, std::string_view name, RegistryValue* value) {
  return reading(key, ERROR_FILE_NOT_FOUND, [&](HiveConnection& file) -> DWORD {
    Run query(file, Query::ReadValue);
    const DWORD error = query.with(key).with(name).step();
    if (error != 0) return error;
    if (!query.hasRow()) return ERROR_KEY_DELETED;
    if (query.isNull(0)) return ERROR_FILE_NOT_FOUND;
    *value = valueOf(query);
    return 0;
  });
}

DWORD HiveStore::write(std::int64_t key, std::string_view name, DWORD type, const void* data,
                       std::size_t size) {
  return writing(key, key == kRoot, [&](HiveConnection& file) {
    const DWORD error = touchKey(file, key);
    return error != 0 ? error : putValue(file, key, name, type, data, size);
  });
}

DWORD HiveStore::itemAt(Query query, std::int64_t key, DWORD index, std::string* name) {
  return reading(key, ERROR_NO_MORE_ITEMS, [&](HiveConnection& file) -> DWORD {
    {
      Run item(file, query);
      const DWORD error = item.with(key).with(std::int64_t{index}).step();
      if (error != 0) return error;
      if (item.hasRow()) {
        *name = item.bytes(0);
        return 0;
      }
    }
    const DWORD gone = expectKey(file, key);
    return gone != 0 ? gone : ERROR_NO_MORE_ITEMS;
  });
}

DWORD HiveStore::subKeyAt(std::int64_t key, DWORD index, std::string* name) {
  const DWORD error = itemAt(Query::SubKeyAt, key, index, name);
  // Of a damaged file: such a name would lead back to the key itself, or elsewhere.
  const bool impossible = name->empty() || name->find('\\') != std::string::npos;
  return error == 0 && impossible ? ERROR_BADDB : error;
}

DWORD HiveStore::valueNameAt(std::int64_t key, DWORD index, std::string* name) {
  return itemAt(Query::ValueNameAt, key, index, name);
}

DWORD HiveStore::time(std::int64_t key, FILETIME* time) {
  *time = {};
  return reading(key, 0, [&](HiveConnection& file) -> DWORD {
    Run query(file, Query::KeyTime);
    const DWORD error = query.with(key).step();
    if (error != 0) return error;
    if (!query.hasRow()) return ERROR_KEY_DELETED;
    *time = fileTimeFromTicks(static_cast<std::uint64_t>(query.number(0)));
    return 0;
  });
}

DWORD HiveStore::readTree(std::int64_t key, std::vector<RegistryContent>* tree) {
  tree->assign(1, {});  // a root without a file
  return reading(key, 0, [&](HiveConnection& file) {
    tree->clear();
    const Transaction transaction(file, Query::BeginRead);
    return transaction.begun() != 0 ? transaction.begun() : collectTree(file, key, *tree);
  });
}

DWORD HiveStore::writeTree(std::int64_t key, std::string_view path,
                           const std::vector<RegistryContent>& tree) {
  return writing(key, key == kRoot, [&](HiveConnection& file) {
    DWORD error = 0;
    for (const RegistryContent& content : tree) {
      std::string whole(path);
      if (!whole.empty() && !content.path.empty()) whole += '\\';
      whole += content.path;
      std::int64_t at = 0;
      error = makeLevels(file, key, path.size(), whole, &at);
      if (error == 0 && !content.values.empty()) error = touchKey(file, at);
      for (const RegistryValue& value : content.values) {
        if (error != 0) return error;
        error = putValue(file, at, value.name, value.type, value.data.data(), value.data.size());
      }
      if (error != 0) return error;
    }
    return error;
  });
}

}  // namespace qm::platform::posix
