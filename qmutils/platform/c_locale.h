// Formatting that does not follow the locale the program has set: for texts that programs read.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace qm::platform {

/// vsnprintf() under the "C" locale. Any thread may call it; the thread's own locale stays.
int formatInCLocale(char* buffer, std::size_t size, const char* format,
                    std::va_list arguments) noexcept;

}  // namespace qm::platform
