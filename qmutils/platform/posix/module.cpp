#include "qmutils/platform/module.h"

#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"

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

/// What the loader's own handle of a module stands for.
struct LoadedModule {
  const link_map* map;
  HINSTANCE handle;
};

int findLoaded(dl_phdr_info* module, std::size_t, void* argument) {
  auto* loaded = static_cast<LoadedModule*>(argument);
  // Two names of one place: a module of the same address is the same one.
  if (module->dlpi_addr != loaded->map->l_addr || module->dlpi_phdr == nullptr) return 0;
  loaded->handle = handleOf(*module);
  return 1;
}

/// Null for the running program.
std::atomic<HINSTANCE> resources{nullptr};

/// Where a program was started from, also when its file has been replaced or removed since.
std::string targetOf(const char* link) {
  char path[PATH_MAX];
  const ssize_t length = readlink(link, path, sizeof path - 1);
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
  if (module == nullptr || module == programModule()) return targetOf("/proc/self/exe");
  Search search{module, ""};
  if (dl_iterate_phdr(copyNameOfWanted, &search) == 0) {
    failWith(ERROR_MOD_NOT_FOUND);
    return {};
  }
  char path[PATH_MAX];
  if (realpath(search.name, path) != nullptr) return path;
  // Replaced or removed since it was loaded.
  if (search.name[0] == '/') return search.name;
  failWithErrno(errno);
  return {};
}

std::string processModulePath(DWORD processId) {
  std::string path = targetOf(("/proc/" + std::to_string(processId) + "/exe").c_str());
  if (path.empty() && errno == ENOENT) failWith(ERROR_INVALID_PARAMETER);
  return path;
}

HINSTANCE loadLibrary(const char* path) {
  const NativePath native(path);
  if (!native.ok()) return nullptr;
  // With a separator, the loader looks for the file itself and not in the system's folders.
  std::string file(native.c_str());
  if (file.find('/') == std::string::npos) file.insert(0, "./");
  void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  LoadedModule loaded{nullptr, nullptr};
  if (library != nullptr && dlinfo(library, RTLD_DI_LINKMAP, &loaded.map) == 0) {
    dl_iterate_phdr(findLoaded, &loaded);
  }
  if (loaded.handle == nullptr) {
    // The loader's own words are all that tells a library that is missing from a broken one.
    const char* const why = dlerror();
    const bool missing =
        why != nullptr && std::strstr(why, "cannot open shared object file") != nullptr;
    failWith(missing ? ERROR_MOD_NOT_FOUND : ERROR_BAD_EXE_FORMAT);
  }
  return loaded.handle;
}

const char* moduleText(HINSTANCE module, UINT id) {
  const bool program = module == nullptr || module == programModule();
  const std::string path = program ? std::string() : modulePath(module);
  if (!program && path.empty()) return nullptr;
  void* const loaded = dlopen(program ? nullptr : path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (loaded == nullptr) return nullptr;
  using TextOf = const char* (*)(unsigned int);
  const auto textOf = reinterpret_cast<TextOf>(dlsym(loaded, "qmutils_text"));
  const char* const text = textOf != nullptr ? textOf(id) : nullptr;
  dlclose(loaded);  // only what this call has counted
  return text;
}

HINSTANCE resourceModule() noexcept {
  const HINSTANCE module = resources;
  return module != nullptr ? module : programModule();
}

HINSTANCE setResourceModule(HINSTANCE module) noexcept {
  const HINSTANCE before = resources.exchange(module);
  return before != nullptr ? before : programModule();
}

}  // namespace qm::platform
