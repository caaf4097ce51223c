#include "qmutils/platform/c_locale.h"

#include <langinfo.h>
#include <locale.h>

#include <cstdio>
#include <string_view>

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
  const std::string_view point = nl_langinfo(RADIXCHAR);
  const std::string_view separator = nl_langinfo(THOUSEP);
  return {point.size() == 1 ? point[0] : '.', separator.empty()       ? '\0'
                                              : separator.size() == 1 ? separator[0]
                                                                      : ' '};
}

}  // namespace qm::platform
