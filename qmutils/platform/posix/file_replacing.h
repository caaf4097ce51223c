// What replacing a file by a new one takes. For platform/posix/ only.
#pragma once

#include <sys/stat.h>

#include "qmutils/platform/posix/native_path.h"

namespace qm::platform {

/// Follows symbolic links, also to a file that does not exist yet; false with the last error set.
bool resolveLinks(NativePath* path) noexcept;

/// Gives the open file mode and owner of the one it replaces; false with the last error set. Only
/// the superuser can give a file away; for others a foreign target becomes theirs, and its group
/// stays where they belong to it.
bool takeModeAndOwner(int file, const struct stat& target) noexcept;

}  // namespace qm::platform
