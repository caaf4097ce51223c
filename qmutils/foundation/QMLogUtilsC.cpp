#include "qmutils/foundation/QMLogUtilsC.h"

#include <ostream>

#include "qmutils/foundation/LogStamp.h"
#include "qmutils/platform/clock.h"

void QMLogUtilsC::TimeStamp(std::ostream& os) {
  const std::string_view text = qm::LogStamp::now().time;
  os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void QMLogUtilsC::DateStamp(std::ostream& os) {
  const std::string_view text = qm::LogStamp::now().date;
  os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

const char* QMLogUtilsC::GetDayOfWeek(SYSTEMTIME* now) {
  const SYSTEMTIME local = qm::platform::localSystemTime();
  if (now != nullptr) *now = local;
  return qm::weekdayName(local.wDayOfWeek);
}
