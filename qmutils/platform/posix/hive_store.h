// One tree of the registry in one SQLite file. For platform/posix/ only.
//
// Keys stand in a table with their whole path, so that a key is found by one look-up however deep
// it is. Identifiers of keys are never used again, and each file has an identity of its own; so who
// remembers both never means another key, whatever happens to the key or the file.
//
// The rollback journal (not a write-ahead log) is what lets users read who may not write in the
// folder. Reading and writing have a connection each, so that a thread waiting to write does not
// keep others from reading. Any thread may use a store. Results as in hive.h; may throw
// std::bad_alloc.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "qmutils/platform/hive.h"
#include "qmutils/platform/posix/hive_connection.h"

namespace qm::platform::posix {

/// Which key of which file.
struct KeyPlace {
  static constexpr std::int64_t kRoot = 1;
  std::int64_t store = 0;    ///< the file's identity; any for the root
  std::int64_t key = kRoot;  ///< the root is there even when there is no file
};

class HiveStore {
 public:
  /// Gives the file's path; empty where the system has no place for it.
  using Locate = std::string (*)();
  HiveStore(Locate locate, mode_t folderMode, mode_t fileMode) noexcept
      : locate_(locate), folderMode_(folderMode), fileMode_(fileMode) {}

  // `path` is the key's whole path, without '\' at its ends; `parent` a key on it that must still
  // be there.
  DWORD open(const KeyPlace& parent, std::string_view path, KeyPlace* place);
  DWORD openToWrite(const KeyPlace& parent, std::string_view path, KeyPlace* place);
  /// Makes what is missing of the path behind the parent's, which is its first `parentLength`
  /// characters.
  DWORD create(const KeyPlace& parent, std::size_t parentLength, std::string_view path,
               KeyPlace* place);
  DWORD read(const KeyPlace& place, std::string_view name, RegistryValue* value);
  DWORD write(const KeyPlace& place, std::string_view name, DWORD type, const void* data,
              std::size_t size);
  DWORD subKeyAt(const KeyPlace& place, DWORD index, std::string* name);
  DWORD valueNameAt(const KeyPlace& place, DWORD index, std::string* name);
  DWORD time(const KeyPlace& place, FILETIME* time);

 private:
  using Query = HiveConnection::Query;

  template <class Work>
  DWORD reading(const KeyPlace& place, DWORD ifNoFile, const Work& work);
  template <class Work>
  DWORD writing(const KeyPlace& place, bool create, const Work& work);
  DWORD findKnown(HiveConnection& file, std::string_view path, std::int64_t* key);
  DWORD makeFile(const std::string& path);
  DWORD itemAt(Query query, const KeyPlace& place, DWORD index, std::string* name);

  const Locate locate_;
  const mode_t folderMode_;
  const mode_t fileMode_;
  std::mutex readLock_;
  HiveConnection reader_;  // under readLock_
  /// Keys found lately: opening one of them again costs no look into the file. Programs load their
  /// settings one by one, opening the same key for each. Who reads a key asks whether it still is
  /// there, so what has been deleted meanwhile shows then. Under readLock_.
  std::map<std::string, std::int64_t, std::less<>> known_;
  std::int64_t knownStore_ = 0;
  std::mutex writeLock_;   // taken before readLock_ where both are needed
  HiveConnection writer_;  // under writeLock_
};

HiveStore& userHive();
HiveStore& machineHive();

}  // namespace qm::platform::posix
