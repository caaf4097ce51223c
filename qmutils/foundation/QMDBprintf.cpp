#include "qmutils/foundation/QMDBprintf.h"

#include <atomic>
#include <cstdarg>

#include "qmutils/platform/c_locale.h"

namespace {

std::atomic<QMDBCallback> installedCallback{nullptr};
std::atomic<unsigned int> currentLevel{0};

}  // namespace

QMDBCallback QMDBNewRegisterCallback(QMDBCallback callback) {
  installedCallback = callback;
  return callback;
}

void QMDBprintf(unsigned int level, int mode, const char* format, ...) {
  const QMDBCallback callback = installedCallback;
  if (callback == nullptr || format == nullptr) return;
  char text[2052];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = qm::platform::formatInCLocale(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length >= 0) callback(level, mode, text);
}

unsigned int QMDBSetLevel(unsigned int level) { return currentLevel = level; }
unsigned int QMDBGetLevel() { return currentLevel; }
