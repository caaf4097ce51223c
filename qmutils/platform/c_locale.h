// The C runtime's locale: formatting that does not follow it, for texts that programs read, and the
// marks it uses in numbers, for texts that operators type.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace qm::platform {

/// vsnprintf() under the "C" locale. Any thread may call it; the thread's own locale stays.
int formatInCLocale(char* buffer, std::size_t size, const char* format,
                    std::va_list arguments) noexcept;

/// Marks in numbers, as streams write them: where the locale has a mark of several bytes, which is
/// some kind of blank, they write a blank.
struct NumberMarks {
  char decimalPoint;
  char thousandsSeparator;  ///< NUL for none
};

/// Of the calling thread's current locale. Must not meet a change of the process's locale.
NumberMarks numberMarks() noexcept;

}  // namespace qm::platform
