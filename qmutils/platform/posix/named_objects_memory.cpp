#include "qmutils/platform/posix/named_objects_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform::posix {

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr const char* kPrefixVariable = "QMUTILS_OBJECT_PREFIX";

/// Sets the last error from errno; the result is an empty descriptor then.
Descriptor openWith(const ObjectName& name, int flags) noexcept {
  int fd;
  do {
    fd = ::shm_open(name.text, O_RDWR | flags, kOwnerOnly);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) failWithErrno(errno);
  return Descriptor(fd);
}

/// Reads up to `size` bytes at `offset`; gives how many were there.
std::size_t readAt(const Descriptor& object, void* buffer, std::size_t size,
                   off_t offset) noexcept {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::pread(object.get(), static_cast<char*>(buffer) + done, size - done,
                              offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  return done;
}

bool isAllZero(const Descriptor& object, std::size_t size) noexcept {
  static constexpr char kZeros[4096] = {};
  char chunk[sizeof kZeros];
  for (std::size_t offset = 0; offset < size;) {
    const std::size_t wanted = size - offset < sizeof chunk ? size - offset : sizeof chunk;
    if (readAt(object, chunk, wanted, static_cast<off_t>(offset)) != wanted) return false;
    if (std::memcmp(chunk, kZeros, wanted) != 0) return false;
    offset += wanted;
  }
  return true;
}

bool isOurs(const Descriptor& object, const SharedSectionKind& kind) noexcept {
  const off_t size = sizeOf(object);
  if (size == 0) return true;
  if (size != static_cast<off_t>(kind.size)) return false;
  std::uint32_t magic = 0;
  if (readAt(object, &magic, sizeof magic, static_cast<off_t>(kind.magicOffset)) != sizeof magic) {
    return false;
  }
  return magic == kind.magic || isAllZero(object, kind.size);
}

}  // namespace

bool ObjectName::assign(const char* plainName) noexcept {
  const char* prefix = std::getenv(kPrefixVariable);
  if (prefix == nullptr) prefix = "";
  if (std::strchr(prefix, '/') != nullptr) return failWith(ERROR_INVALID_NAME);
  const int length = std::snprintf(text, sizeof text, "/%s%s", prefix, plainName);
  if (length < 0 || length >= static_cast<int>(sizeof text)) {
    return failWith(ERROR_FILENAME_EXCED_RANGE);
  }
  return true;
}

bool Mapping::map(const Descriptor& object, std::size_t size) noexcept {
  void* address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, object.get(), 0);
  if (address == MAP_FAILED) return failWithErrno(errno);
  unmap();
  address_ = address;
  size_ = size;
  return true;
}

void Mapping::unmap() noexcept {
  // In this order, so that a copy of the process made in between does not unmap it again.
  if (void* const address = std::exchange(address_, nullptr)) ::munmap(address, size_);
}

Descriptor openObject(const ObjectName& name) noexcept { return openWith(name, 0); }

Descriptor openOrCreateObject(const ObjectName& name) noexcept { return openWith(name, O_CREAT); }

bool identify(const Descriptor& object, ObjectIdentity* identity) noexcept {
  struct stat status;
  if (::fstat(object.get(), &status) != 0) return failWithErrno(errno);
  *identity = {status.st_dev, status.st_ino};
  return true;
}

off_t sizeOf(const Descriptor& object) noexcept {
  struct stat status;
  if (::fstat(object.get(), &status) != 0) {
    failWithErrno(errno);
    return -1;
  }
  return status.st_size;
}

bool reserve(const Descriptor& object, std::size_t size) noexcept {
  int result;
  do {
    result = ::posix_fallocate(object.get(), 0, static_cast<off_t>(size));
  } while (result == EINTR);
  return result == 0 || failWithErrno(result);
}

bool openAndMap(const ObjectName& name, std::size_t size, Mapping* mapping,
                ObjectIdentity* identity, bool* fresh) noexcept {
  const Descriptor object = openOrCreateObject(name);
  if (!object.isOpen() || !identify(object, identity)) return false;
  const off_t present = sizeOf(object);
  if (present < 0) return false;
  *fresh = present == 0;
  if (*fresh) {
    if (!reserve(object, size)) {
      const DWORD reason = lastError();
      removeIfSame(name, *identity);
      return failWith(reason);
    }
  } else if (present != static_cast<off_t>(size)) {
    return failWith(ERROR_INVALID_HANDLE);
  }
  return mapping->map(object, size);
}

void removeLeavings(const ObjectName& name, const SharedSectionKind& kind) noexcept {
  const Descriptor object = openObject(name);
  if (object.isOpen() && isOurs(object, kind)) ::shm_unlink(name.text);
}

void removeIfSame(const ObjectName& name, const ObjectIdentity& identity,
                  const SharedSectionKind* kind) noexcept {
  const Descriptor object = openObject(name);
  ObjectIdentity present;
  if (!object.isOpen() || !identify(object, &present) || !(present == identity)) return;
  if (kind == nullptr || isOurs(object, *kind)) ::shm_unlink(name.text);
}

}  // namespace qm::platform::posix
