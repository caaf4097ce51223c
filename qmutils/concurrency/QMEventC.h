// Asking whether an event is signalled, within a time, with an answer in words. Used to poll the
// kill and end events of worker threads.
//
// Holds nothing but the handle, which it does not own. Any thread may use any object.
#pragma once

#include <iosfwd>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMEventC {
 public:
  explicit QMEventC(void* handle = nullptr) : m_hEvent(handle) {}
  QMEventC(const QMEventC&) = default;
  QMEventC& operator=(const QMEventC&) = default;
  virtual ~QMEventC() = default;

  bool IsEventSignalled(DWORD* resultOut, DWORD timeoutMs, std::ostream* report) const {
    return IsEventSignalled(m_hEvent, resultOut, timeoutMs, report);
  }

  /// Waits up to `timeoutMs` for the handle. False only for a time-out: a wait that fails counts as
  /// signalled, so that a dead handle ends the caller's polling loop. The wait's result (0
  /// signalled, 128 abandoned, 258 time-out, 0xFFFFFFFF failed) is stored through `resultOut`;
  /// `report` receives one sentence without a line end. Both may be null.
  static bool IsEventSignalled(void* handle, DWORD* resultOut, DWORD timeoutMs,
                               std::ostream* report);

  /// True for every handle that is not null.
  bool IsEventValid() const { return IsEventValid(m_hEvent); }
  static bool IsEventValid(void* handle) { return handle != nullptr; }

 private:
  void* m_hEvent;
};
