// Opening a file that must be a plain one. For platform/posix/ only.
#pragma once

#include <sys/stat.h>

#include "qmutils/platform/posix/descriptor.h"

namespace qm::platform {

/// Opens by the system's own path, close-on-exec, with the status as it is then. Never waits: a
/// pipe would, and has no end either. Not open, with the last error set, when it cannot be opened;
/// 5 for anything but a regular file.
Descriptor openRegularFile(const char* nativePath, int flags, struct stat* status) noexcept;

}  // namespace qm::platform
