#include "qmutils/foundation/QMTimeC.h"

#include "qmutils/foundation/QMTime.h"
#include "qmutils/platform/clock.h"

std::int64_t QMTimeC::GetTimeMS() {
  return static_cast<std::int64_t>(qm::platform::fileTimeTicks(GetLocalTimeAsFileTime()) / 10'000);
}
