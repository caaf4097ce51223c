#include "qmutils/platform/c_locale.h"

#include <langinfo.h>
#include <locale.h>

#include <cstdio>

namespace qm::platform {

int formatInCLocale(char* buffer, std::size_t size, const char* format,
                    std::va_list arguments) noexcept {
  // Never freed: threads may outlive main(). Null, when there is no memory, changes nothing.
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
  const locale_t former = uselocale(cLocale);
  const int length = std::vsnprintf(buffer, size, format, arguments);
  if (former != nullptr) uselocale(former);
  return length;
}

NumberMarks numberMarks() noexcept {
  NumberMarks marks;
  std::snprintf(marks.decimalPoint, sizeof marks.decimalPoint, "%s", nl_langinfo(RADIXCHAR));
  std::snprintf(marks.thousandsSeparator, sizeof marks.thousandsSeparator, "%s",
                nl_langinfo(THOUSEP));
  return marks;
}

}  // namespace qm::platform
