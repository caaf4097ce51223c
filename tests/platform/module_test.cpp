#include "qmutils/platform/module.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <filesystem>
#include <string>

#include "qmutils/platform/error.h"

namespace qm::platform {
namespace {

HINSTANCE moduleNamed(const char* part) {
  struct Search {
    const char* part;
    HINSTANCE found;
  } search{part, nullptr};
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* argument) {
        auto* wanted = static_cast<Search*>(argument);
        if (std::string(info->dlpi_name).find(wanted->part) == std::string::npos) return 0;
        wanted->found = reinterpret_cast<HINSTANCE>(const_cast<ElfW(Phdr)*>(info->dlpi_phdr));
        return 1;
      },
      &search);
  return search.found;
}

TEST(Module, KnowsTheProgramAndLoadedLibraries) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  ASSERT_NE(programModule(), nullptr);
  EXPECT_EQ(modulePath(programModule()), self);
  EXPECT_EQ(modulePath(nullptr), self);
  const std::string library = modulePath(moduleNamed("libc.so"));
  EXPECT_TRUE(std::filesystem::path(library).is_absolute());
  EXPECT_NE(library.find("libc"), std::string::npos);
  int local = 0;
  setLastError(0);
  EXPECT_EQ(modulePath(reinterpret_cast<HINSTANCE>(&local)), "");
  EXPECT_EQ(lastError(), 126u);
}

}  // namespace
}  // namespace qm::platform
