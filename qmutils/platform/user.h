// Who runs the program, and with what rights. Any thread may call these functions; they fail
// (false) with the last error set: 1332 for a user without a name, 2221 for a name that is
// nobody's.
#pragma once

#include <string>

namespace qm::platform {

/// Throws std::bad_alloc.
bool userName(std::string* name);

/// Whether a user may administer the machine: the superuser, and who is in one of the groups whose
/// members may become it. Throws std::bad_alloc.
bool isAdministrator(const char* user, bool* administrator);

/// The folder of the system's own programs and data.
const char* systemFolder() noexcept;

}  // namespace qm::platform
