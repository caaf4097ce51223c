// One tree of the registry in one SQLite file. For platform/posix/ only.
//
// Keys stand in a table with their whole path, so that a key is found by one look-up however deep
// it is. Identifiers of keys are random; so who remembers one never means another key, whatever
// happens to the key or the file. The root is 1, and there even when there is no file.
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
#include <vector>

#include "qmutils/platform/hive.h"
#include "qmutils/platform/posix/hive_connection.h"

namespace qm::platform::posix {

class HiveStore {
 public:
  static constexpr std::int64_t kRoot = 1;

  /// Gives the file's path; empty where the system has no place for it.
  using Locate = std::string (*)();
  HiveStore(Locate locate, mode_t folderMode, mode_t fileMode) noexcept
      : locate_(locate), folderMode_(folderMode), fileMode_(fileMode) {}

  // `path` is the key's whole path, without '\' at its ends; `parent` a key on it that must still
  // be there.
  DWORD open(std::int64_t parent, std::string_view path, std::int64_t* key);
  DWORD openToWrite(std::int64_t parent, std::string_view path, std::int64_t* key);
  /// Makes what is missing of the path behind the parent's, which is its first `parentLength`
  /// characters.
  DWORD create(std::int64_t parent, std::size_t parentLength, std::string_view path,
               std::int64_t* key);
  DWORD read(std::int64_t key, std::string_view name, RegistryValue* value);
  DWORD write(std::int64_t key, std::string_view name, DWORD type, const void* data,
              std::size_t size);
  DWORD subKeyAt(std::int64_t key, DWORD index, std::string* name);
  DWORD valueNameAt(std::int64_t key, DWORD index, std::string* name);
  DWORD time(std::int64_t key, FILETIME* time);
  DWORD readTree(std::int64_t key, std::vector<RegistryContent>* tree);
  DWORD writeTree(std::int64_t key, std::string_view path,
                  const std::vector<RegistryContent>& tree);

  // Around a fork: the child must not find a lock taken by a thread that it does not have.
  void beforeFork();
  void afterFork();

 private:
  using Query = HiveConnection::Query;

  template <class Work>
  DWORD reading(std::int64_t key, DWORD ifNoFile, const Work& work);
  template <class Work>
  DWORD writing(std::int64_t key, bool create, const Work& work);
  DWORD findKnown(HiveConnection& file, std::string_view path, std::int64_t parent,
                  std::int64_t* key);
  DWORD makeFile(const std::string& path, const Deadline& deadline);
  DWORD itemAt(Query query, std::int64_t key, DWORD index, std::string* name);

  const Locate locate_;
  const mode_t folderMode_;
  const mode_t fileMode_;
  std::mutex readLock_;
  HiveConnection reader_;  // under readLock_
  /// Keys found lately in a file of that stamp: opening one of them again costs no look into the
  /// file. Programs load their settings one by one, opening the same key for each. Under readLock_.
  std::map<std::string, std::int64_t, std::less<>> known_;
  FileStamp knownStamp_;
  std::mutex writeLock_;   // taken before readLock_ where both are needed
  HiveConnection writer_;  // under writeLock_
};

HiveStore& userHive();
HiveStore& machineHive();

}  // namespace qm::platform::posix
