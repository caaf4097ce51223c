#include "tests/support/LogCapture.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <mutex>

namespace qmtest {

namespace {

std::mutex mutex;
std::vector<LogCapture::Line> captured;
std::atomic<unsigned> level;

void capture(unsigned messageLevel, int mode, char* text) {
  std::lock_guard lock(mutex);
  captured.push_back({messageLevel, mode, text});
}
unsigned capturedLevel() { return level; }

// What the log stream does without hooks; a hook cannot be uninstalled, so these stand in.
void writeToStandardError(unsigned, int, char* text) { std::fputs(text, stderr); }
unsigned showEverything() { return UINT_MAX; }

}  // namespace

LogCapture::LogCapture(unsigned debugLevel) {
  QMLogStreamC::GetHooks(&formerOutput_, &formerSetName_, &formerSetLevel_, &formerGetLevel_);
  clear();
  level = debugLevel;
  QMLogStreamC(capture, nullptr, nullptr, capturedLevel);
}

LogCapture::~LogCapture() {
  QMLogStreamC(formerOutput_ != nullptr ? formerOutput_ : writeToStandardError, formerSetName_,
               formerSetLevel_, formerGetLevel_ != nullptr ? formerGetLevel_ : showEverything);
}

void LogCapture::setDebugLevel(unsigned debugLevel) { level = debugLevel; }

std::vector<LogCapture::Line> LogCapture::lines() const {
  std::lock_guard lock(mutex);
  return captured;
}

std::string LogCapture::text() const {
  std::string all;
  for (const Line& line : lines()) all += line.text;
  return all;
}

bool LogCapture::contains(const std::string& part) const {
  return text().find(part) != std::string::npos;
}

void LogCapture::clear() {
  std::lock_guard lock(mutex);
  captured.clear();
}

}  // namespace qmtest
