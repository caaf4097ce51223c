// Any text as UTF-8. Internal to the library.
#pragma once

#include <string>
#include <string_view>

namespace qm {

/// The text itself when it is UTF-8. Each byte that is not stands for its character in
/// Windows-1252, as in single-byte text of older files.
std::string documentText(std::string_view text);

}  // namespace qm
