#include "qmutils/platform/module.h"

#include <limits.h>
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

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

}  // namespace

HINSTANCE programModule() noexcept {
  HINSTANCE program = nullptr;
  dl_iterate_phdr(takeFirst, &program);
  return program;
}

std::string modulePath(HINSTANCE module) {
  Search search{module, "/proc/self/exe"};
  if (module != nullptr && module != programModule() &&
      dl_iterate_phdr(copyNameOfWanted, &search) == 0) {
    failWith(126);
    return {};
  }
  char path[PATH_MAX];
  if (realpath(search.name, path) == nullptr) {
    failWithErrno(errno);
    return {};
  }
  return path;
}

}  // namespace qm::platform
