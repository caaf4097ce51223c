#include "qmutils/platform/module.h"

#include <limits.h>
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

namespace {

// A module handle is the address of the module's program headers: never null, different for each
// loaded module, and checked against the loader's list before it is used.
HINSTANCE handleOf(const dl_phdr_info& module) noexcept {
  return reinterpret_cast<HINSTANCE>(const_cast<ElfW(Phdr)*>(module.dlpi_phdr));
}

/// The loader names the program first.
int takeFirst(dl_phdr_info* module, std::size_t, void* result) {
  *static_cast<HINSTANCE*>(result) = handleOf(*module);
  return 1;
}

struct Search {
  HINSTANCE wanted;
  char name[PATH_MAX];
};

/// Copies the name, which goes when the module is unloaded.
int copyNameOfWanted(dl_phdr_info* module, std::size_t, void* argument) {
  auto* search = static_cast<Search*>(argument);
  if (handleOf(*module) != search->wanted) return 0;
  std::snprintf(search->name, sizeof search->name, "%s", module->dlpi_name);
  return 1;
}

/// Where the program was started from, also when its file has been replaced or removed since.
std::string programPath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length < 0) {
    failWithErrno(errno);
    return {};
  }
  path[length] = '\0';
  std::string_view text(path);
  constexpr std::string_view kRemoved = " (deleted)";
  if (text.ends_with(kRemoved) && access(path, F_OK) != 0) text.remove_suffix(kRemoved.size());
  return std::string(text);
}

}  // namespace

HINSTANCE programModule() noexcept {
  HINSTANCE program = nullptr;
  dl_iterate_phdr(takeFirst, &program);
  return program;
}

std::string modulePath(HINSTANCE module) {
  if (module == nullptr || module == programModule()) return programPath();
  Search search{module, ""};
  if (dl_iterate_phdr(copyNameOfWanted, &search) == 0) {
    failWith(126);
    return {};
  }
  char path[PATH_MAX];
  if (realpath(search.name, path) != nullptr) return path;
  // Replaced or removed since it was loaded.
  if (search.name[0] == '/') return search.name;
  failWithErrno(errno);
  return {};
}

}  // namespace qm::platform
