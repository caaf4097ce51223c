// INI files that were read lately, by what the system says about the file: a look-up in a file that
// has not changed takes none apart. For platform/posix/ only.
//
// At most eight files of half a megabyte stay in memory until the process ends; what a file is
// taken apart into can be a few times as large. Any thread may call the functions.
#pragma once

#include <sys/stat.h>
#include <time.h>

#include <memory>

#include "qmutils/platform/posix/profile_text.h"

namespace qm::platform::posix {

using SharedProfile = std::shared_ptr<const ProfileText>;

/// The file's text; null when it is not known, or was another one. May throw std::bad_alloc at the
/// first call.
SharedProfile knownProfile(const struct stat& status);

/// Remembers the text of a file: `status` and `time` are those before it was read. A file that had
/// changed just before is not taken: another change could leave it with the same times.
void rememberProfile(const struct stat& status, const timespec& time, const SharedProfile& text);

}  // namespace qm::platform::posix
