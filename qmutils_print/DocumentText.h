// Any text as UTF-8. Internal to the library.
#pragma once

#include <string>
#include <string_view>

namespace qm {

/// The text itself when it is UTF-8. Else each byte that is not stands for the character of its own
/// number, as in single-byte text of older files.
std::string documentText(std::string_view text);

}  // namespace qm
