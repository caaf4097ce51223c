// The C runtime's locale: formatting that does not follow it, for texts that programs read, and the
// marks it uses in numbers, for texts that operators type.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace qm::platform {

/// vsnprintf() under the "C" locale. Any thread may call it; the thread's own locale stays.
int formatInCLocale(char* buffer, std::size_t size, const char* format,
                    std::va_list arguments) noexcept;

/// Marks in numbers; each may be several bytes or empty.
struct NumberMarks {
  char decimalPoint[8];
  char thousandsSeparator[8];
};

/// Of the calling thread's current locale. Must not meet a change of the process's locale.
NumberMarks numberMarks() noexcept;

}  // namespace qm::platform
