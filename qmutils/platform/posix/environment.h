// Environment variables that say where things are. For platform/posix/ only.
#pragma once

#include <stdlib.h>

#include <string>

namespace qm::platform::posix {

/// Empty when it is not set, and in programs that run with other rights than their user's: who
/// calls them must not choose their files.
inline std::string environment(const char* name) {
  const char* const text = secure_getenv(name);
  return text != nullptr ? text : "";
}

}  // namespace qm::platform::posix
