#include "qmutils/platform/user.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

namespace {

// Members of these may become the superuser on the distributions in use.
constexpr const char* kAdministrators[] = {"sudo", "wheel", "admin"};

constexpr std::size_t kMostBuffer = 1 << 20;

/// One of the system's look-ups that want a buffer of a size nobody knows: grows it until the entry
/// fits. False with the last error set: `ifNone` when there is no such entry.
template <class Entry, class Call>
bool lookUp(Entry& entry, std::vector<char>& buffer, DWORD ifNone, const Call& call) {
  for (buffer.resize(1024); buffer.size() <= kMostBuffer; buffer.resize(2 * buffer.size())) {
    Entry* found = nullptr;
    const int error = call(&entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE) continue;
    if (found != nullptr) return true;
    // Some systems say so in one of these ways.
    const bool none = error == 0 || error == ENOENT || error == ESRCH;
    return none ? failWith(ifNone) : failWithErrno(error);
  }
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
}

bool isMember(const std::vector<gid_t>& groups, const char* group) {
  struct group entry;
  std::vector<char> buffer;
  const bool exists =
      lookUp(entry, buffer, ERROR_NONE_MAPPED,
             [&](struct group* g, char* text, std::size_t size, struct group** found) {
               return getgrnam_r(group, g, text, size, found);
             });
  return exists && std::ranges::find(groups, entry.gr_gid) != groups.end();
}

}  // namespace

bool userName(std::string* name) {
  passwd entry;
  std::vector<char> buffer;
  const bool exists = lookUp(entry, buffer, ERROR_NONE_MAPPED,
                             [](passwd* p, char* text, std::size_t size, passwd** found) {
                               return getpwuid_r(geteuid(), p, text, size, found);
                             });
  if (!exists) return false;
  *name = entry.pw_name;
  return true;
}

bool isAdministrator(const char* user, bool* administrator) {
  passwd entry;
  std::vector<char> buffer;
  const bool exists = lookUp(entry, buffer, NERR_UserNotFound,
                             [&](passwd* p, char* text, std::size_t size, passwd** found) {
                               return getpwnam_r(user, p, text, size, found);
                             });
  if (!exists) return false;
  int count = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  while (getgrouplist(user, entry.pw_gid, groups.data(), &count) < 0) {
    groups.resize(std::max(static_cast<std::size_t>(count), groups.size() + 1));
    count = static_cast<int>(groups.size());
  }
  groups.resize(static_cast<std::size_t>(count));
  *administrator = entry.pw_uid == 0 ||
                   std::ranges::any_of(kAdministrators,
                                       [&](const char* group) { return isMember(groups, group); });
  return true;
}

const char* systemFolder() noexcept { return "/usr"; }

}  // namespace qm::platform
