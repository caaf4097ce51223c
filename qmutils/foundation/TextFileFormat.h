// The second interpretation of a formatted text in FPrint(): a scanner over finished text that has
// no arguments to insert and can write nowhere but into the text itself.
#pragma once

#include <cstddef>

namespace qm {

/// Rewrites a NUL-terminated text in place: "%%" becomes "%", a conversion that ends in 'n' ("%n",
/// "%5hn") disappears, every other conversion stays as it is written. Returns the new length.
std::size_t collapseFormatted(char* text) noexcept;

}  // namespace qm
