#include "qmutils/concurrency/QMCriticalSection.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>

#include "qmutils/foundation/PointerText.h"

QMErrors::QMErrorT QMInitializeCriticalSectionEx(QMCriticalSectionC** cell,
                                                 int reportByMessageBox) {
  if (cell == nullptr) return QMErrors::BadCommandLineArguments;
  *cell = new (std::nothrow) QMCriticalSectionC(reportByMessageBox);
  return *cell != nullptr ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
}

QMCriticalSectionC** QMCreateCriticalSection(int reportByMessageBox) {
  auto** cell = new (std::nothrow) QMCriticalSectionC*(nullptr);
  if (cell != nullptr) (void)QMInitializeCriticalSectionEx(cell, reportByMessageBox);
  return cell;
}

QMErrors::QMErrorT QMEnterCriticalSectionEx(QMCriticalSectionC** cell, const char* locker,
                                            unsigned tag, DWORD timeoutMs) {
  if (cell == nullptr || *cell == nullptr) return QMErrors::BadCommandLineArguments;
  return (*cell)->EnterCriticalSection(locker, timeoutMs, 1, tag);
}

QMErrors::QMErrorT QMLeaveCriticalSectionEx(QMCriticalSectionC** cell, const char* locker,
                                            unsigned tag) {
  if (cell == nullptr || *cell == nullptr) return QMErrors::BadCommandLineArguments;
  unsigned remaining = 0;
  return (*cell)->LeaveCriticalSection(locker, &remaining, tag);
}

QMErrors::QMErrorT QMDeleteCriticalSection(QMCriticalSectionC** cell) {
  if (cell == nullptr) return QMErrors::NoError;
  delete *cell;
  *cell = nullptr;
  return QMErrors::NoError;
}

QMErrors::QMErrorT QMDestroyCriticalSection(QMCriticalSectionC** cell) {
  (void)QMDeleteCriticalSection(cell);
  delete cell;
  return QMErrors::NoError;
}

unsigned QMCriticalSectionToString(QMCriticalSectionC** cell, char* buffer, unsigned bufferLength) {
  const qm::PointerText address(cell);
  const std::string_view text = cell != nullptr ? address.view() : "Invalid (NULL pointer).";
  const auto length = static_cast<unsigned>(text.size()) + 1;
  if (buffer != nullptr && bufferLength != 0) {
    const unsigned copied = std::min(bufferLength, length);
    std::memcpy(buffer, text.data(), std::min<std::size_t>(copied, text.size()));
    if (copied == length) buffer[length - 1] = '\0';
  }
  return length;
}
