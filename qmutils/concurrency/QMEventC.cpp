#include "qmutils/concurrency/QMEventC.h"

#include <ostream>

#include "qmutils/foundation/PointerText.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/waitable.h"

namespace {

void describe(std::ostream& os, void* handle, DWORD result, QMErrors::QMErrorT osError) {
  os << "QMEventC::IsEventSignalled(): Event:" << qm::PointerText(handle);
  switch (result) {
    case WAIT_OBJECT_0:
      os << " is valid AND signalled.";
      break;
    case WAIT_OBJECT_0 + 1:
      os << " is valid AND QMThreadC::EndEvent is signalled.";
      break;
    case WAIT_ABANDONED:
    case WAIT_TIMEOUT:
      os << " is valid but NOT signalled.";
      break;
    default:
      os << " is invalid: " << QMErrToStr(osError);
      break;
  }
}

}  // namespace

bool QMEventC::IsEventSignalled(void* handle, DWORD* resultOut, DWORD timeoutMs,
                                std::ostream* report) {
  const DWORD result = qm::platform::wait(handle, timeoutMs);
  const QMErrors::QMErrorT osError = QMErrors::lastOsError();
  if (resultOut != nullptr) *resultOut = result;
  if (report != nullptr) describe(*report, handle, result, osError);
  return result != WAIT_TIMEOUT;
}
