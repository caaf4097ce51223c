// The stamps of log lines: local time of day, date and weekday, in the forms that log readers
// expect. Any thread may call these; the local date is worked out once a second and thread.
#pragma once

#include <iosfwd>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMLogUtilsC {
 public:
  /// "14:03:07.045 "
  static void TimeStamp(std::ostream& os);
  /// " 06\11\2006 ": day, month, year, with backslashes.
  static void DateStamp(std::ostream& os);
  /// Fills `now` (may be null) with the local time; "SUN" to "SAT".
  static const char* GetDayOfWeek(SYSTEMTIME* now);
};
