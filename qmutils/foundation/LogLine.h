// One diagnostic line of the library in one call: prefix, function label, text, end of line.
//
//   qm::logError("QMThreadC::start(): ", "while creating m_hEndEvent: ", QMErrToStr(code));
//
// The parts are written back to back through a QMLogStreamC of its own, so a line is assembled
// without locks and delivered whole. Any thread may call these.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMLogStreamC.h"

namespace qm {

/// Level 0, " ERROR: ".
template <class... Parts>
void logError(const Parts&... parts) {
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log._LogError();
  (log << ... << parts) << std::endl;
}

/// True when a line of that level is shown. Asked first, as a line that is not shown then costs no
/// stream.
inline bool isShown(unsigned level) noexcept {
  QMLogGetLevelFn getLevel = nullptr;
  QMLogStreamC::GetDBGetLevelFn(&getLevel);
  return getLevel == nullptr || level < getLevel();
}

/// " WARNING: ".
template <class... Parts>
void logWarning(unsigned level, const Parts&... parts) {
  if (!isShown(level)) return;
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log.SetMessageLevel(level);
  log._LogWarning();
  (log << ... << parts) << std::endl;
}

/// " INFO: ".
template <class... Parts>
void logInfo(unsigned level, const Parts&... parts) {
  if (!isShown(level)) return;
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log.SetMessageLevel(level);
  log._LogInfo();
  (log << ... << parts) << std::endl;
}

/// Logs that memory has run out, and gives the code for that.
inline QMErrors::QMErrorT logNoMemory(const char* label) {
  logError(label, QMErrToStr(QMErrors::MemoryAllocationFailed));
  return QMErrors::MemoryAllocationFailed;
}

}  // namespace qm
