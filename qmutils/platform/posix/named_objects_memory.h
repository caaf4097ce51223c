// The memory behind a named object: its system name, its descriptor, what it holds, its mapping.
//
// Nothing here waits or throws; failures set the last error.
#pragma once

#include <limits.h>
#include <sys/types.h>

#include <cstddef>

#include "qmutils/platform/named_objects.h"
#include "qmutils/platform/posix/descriptor.h"

namespace qm::platform::posix {

/// A system name with its leading '/' and the prefix from the environment.
struct ObjectName {
  char text[NAME_MAX + 2] = {};
  /// False with last error 206 (too long) or 123 (a separator in it).
  bool assign(const char* plainName) noexcept;
};

/// Tells an object from another one that later took its name.
struct ObjectIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const ObjectIdentity&) const = default;
};

/// Shared memory mapped into the process, unmapped with its owner.
class Mapping {
 public:
  Mapping() noexcept = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() { unmap(); }

  bool map(const Descriptor& object, std::size_t size) noexcept;
  void unmap() noexcept;
  void* address() const noexcept { return address_; }
  template <class T>
  T* as() const noexcept {
    return static_cast<T*>(address_);
  }

 private:
  void* address_ = nullptr;
  std::size_t size_ = 0;
};

/// Opens an existing object for reading and writing. The descriptor is empty on failure.
Descriptor openObject(const ObjectName& name) noexcept;
/// Opens the object or makes an empty one for this user alone.
Descriptor openOrCreateObject(const ObjectName& name) noexcept;

bool identify(const Descriptor& object, ObjectIdentity* identity) noexcept;
/// The size in bytes, or -1.
off_t sizeOf(const Descriptor& object) noexcept;
/// Gives an empty object its size, with the memory really there: writing to it later cannot fail.
bool reserve(const Descriptor& object, std::size_t size) noexcept;

/// Opens an object of `size` bytes and maps it. Creates it if it is not there and completes one
/// that was left empty; `*fresh` says so. Refused with last error 6 when it has another size.
bool openAndMap(const ObjectName& name, std::size_t size, Mapping* mapping,
                ObjectIdentity* identity, bool* fresh) noexcept;

/// Removes what dead users left: an object that is empty, all zero or carries our magic. Any other
/// content stays.
void removeLeavings(const ObjectName& name, const SharedSectionKind& kind) noexcept;
/// Removes the name if it still leads to that object, and (with `kind`) holds what is ours.
void removeIfSame(const ObjectName& name, const ObjectIdentity& identity,
                  const SharedSectionKind* kind = nullptr) noexcept;

}  // namespace qm::platform::posix
