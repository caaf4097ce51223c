// The registry: two trees of keys, the user's and the machine's. A key holds sub-keys and named
// values, each a type number and any bytes.
//
//   HKEY key = nullptr;
//   if (createKey(HKEY_CURRENT_USER, "SOFTWARE\\Press", &key) == 0) {
//     writeValue(key, "plates", REG_DWORD, &count, sizeof count);
//     closeKey(key);
//   }
//
// Names are found without regard to the case of A-Z and have the spelling they were first given;
// levels of a path are separated by '\', and '/' is a character like others. What a writing call
// has reported is on the disk and survives a kill or a power cut of any process; a call does all or
// nothing. Any number of processes and threads may use a tree at a time; a call waits up to 20 s
// for others, and so does a fork.
//
// The user's tree is in the file that QMUTILS_USER_REGISTRY names, else in the user's configuration
// folder; the machine's in that of QMUTILS_MACHINE_REGISTRY, else in the folder of the machine's
// state that was chosen when the library was built. A tree whose file is not there is empty. Only
// writing makes a file.
//
// All functions give 0 or a system error number, among them 2 no such key, 5 denied, 6 no handle of
// a key, 8 no memory, 87 a name that is too long or a path of more than 512 levels, 112 disk full,
// 161 a path with an empty level, 170 others are busy for too long, 259 no more items, 1009 a file
// that holds no registry (which is never written to) or a damaged one, 1016 one that cannot be read
// or written, 1018 a key that has been deleted. None throws.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "qmutils/platform/types.h"

namespace qm::platform {

/// Opens `subKey` below `parent`, a key or one of the two trees. An empty path (or null) stands for
/// the parent, one '\' at the end is allowed. With `mayWrite` the key may be written through the
/// handle: 5 when the tree's file may not be. The caller closes the key.
DWORD openKey(HKEY parent, const char* subKey, bool mayWrite, HKEY* key) noexcept;
/// The same with `mayWrite`, and makes what is missing of the path.
DWORD createKey(HKEY parent, const char* subKey, HKEY* key) noexcept;
/// A tree's own handle may be closed and goes on.
DWORD closeKey(HKEY key) noexcept;
/// Everything is on the disk already; only a bad handle fails.
DWORD flushKey(HKEY key) noexcept;

struct RegistryValue {
  std::string name;  ///< as it was first written
  DWORD type = 0;
  std::string data;
};
/// 2 when there is no value of that name. A null name counts as empty.
DWORD readValue(HKEY key, const char* name, RegistryValue* value) noexcept;
DWORD writeValue(HKEY key, const char* name, DWORD type, const void* data,
                 std::size_t size) noexcept;

// Sub-keys and values by number, sorted by name; 259 behind the last.
DWORD subKeyAt(HKEY key, DWORD index, std::string* name) noexcept;
DWORD valueNameAt(HKEY key, DWORD index, std::string* name) noexcept;

/// What a key holds, and where it stands below the one that a tree begins with.
struct RegistryContent {
  std::string path;  ///< empty for the first
  std::vector<RegistryValue> values;
};
/// A key with all below it, as it is at one moment; parents stand before their sub-keys.
DWORD readTree(HKEY key, std::vector<RegistryContent>* tree) noexcept;
/// Puts a tree into a key, all of it or nothing. What is there already stays unless it has the same
/// name.
DWORD writeTree(HKEY key, const std::vector<RegistryContent>& tree) noexcept;

/// When something in the key was last written or made, UTC.
DWORD keyTime(HKEY key, FILETIME* time) noexcept;

}  // namespace qm::platform
