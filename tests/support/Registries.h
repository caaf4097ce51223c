// Empty registries of a test's own, for this process and those it launches, while the object lives.
#pragma once

#include <cstdlib>
#include <string>

#include "tests/support/TempFolder.h"

namespace qmtest {

class Registries {
 public:
  Registries() {
    setenv("QMUTILS_USER_REGISTRY", user().c_str(), 1);
    setenv("QMUTILS_MACHINE_REGISTRY", machine().c_str(), 1);
  }
  ~Registries() {
    unsetenv("QMUTILS_USER_REGISTRY");
    unsetenv("QMUTILS_MACHINE_REGISTRY");
  }
  Registries(const Registries&) = delete;
  Registries& operator=(const Registries&) = delete;

  /// The files of the two trees.
  std::string user() const { return folder_.file("user/registry.db"); }
  std::string machine() const { return folder_.file("machine/registry.db"); }
  const TempFolder& folder() const { return folder_; }

 private:
  TempFolder folder_;
};

}  // namespace qmtest
