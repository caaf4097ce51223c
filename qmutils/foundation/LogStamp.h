// What stands in front of a log line, as text: local time and date, level, thread, priority.
//
// The local date is worked out once a second and thread; a stamp costs a clock reading and some
// digits, and no allocation. Any thread may use it.
#pragma once

#include <cstddef>
#include <string_view>

#include "qmutils/platform/types.h"

namespace qm {

/// The time now. Views are valid until the calling thread makes its next stamp.
struct LogStamp {
  std::string_view time;  ///< "14:03:07.045 "
  std::string_view date;  ///< " 06\11\2006 "
  WORD day;               ///< of the month

  static LogStamp now() noexcept;
};

/// The tag of a line: time, date if wanted, level, thread, priority.
class LogTag {
 public:
  LogTag(const LogStamp& stamp, bool withDate, unsigned int level) noexcept;
  std::string_view view() const noexcept { return {text_, size_}; }

 private:
  void put(std::string_view text) noexcept;
  void putHex(DWORD value, std::size_t leastDigits) noexcept;

  std::size_t size_ = 0;
  char text_[96];
};

/// "SUN" to "SAT"; day 0 is Sunday.
const char* weekdayName(WORD dayOfWeek) noexcept;

}  // namespace qm
