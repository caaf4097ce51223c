#include "programs/testtool/LineExchange.h"

#include <atomic>
#include <cstdio>
#include <utility>

#include "programs/testtool/Command.h"
#include "qmutils/foundation/QMLogStreamC.h"

namespace programs {

namespace {

constexpr std::size_t kLongestLine = 64 << 10;

std::atomic<unsigned> shownLevel{0};
std::atomic<bool> failed{false};
std::mutex printing;

}  // namespace

void showLogLines(unsigned level) {
  shownLevel = level;
  const QMLogStreamC hooks(nullptr, nullptr, nullptr, [] { return shownLevel + 1; });
}

std::vector<std::string> LineCollector::add(std::string_view piece) {
  std::vector<std::string> lines;
  for (const char c : piece) {
    if (c != '\n') pending_ += c;
    if (c != '\n' && pending_.size() < kLongestLine) continue;
    if (c == '\n' && pending_.ends_with('\r')) pending_.pop_back();
    lines.push_back(std::exchange(pending_, {}));
  }
  return lines;
}

std::string LineCollector::rest() { return std::exchange(pending_, {}); }

void printLine(std::string_view prefix, std::string_view line) {
  const std::string text = std::string(prefix) + shownText(line) + "\n";
  const std::lock_guard lock(printing);
  std::fwrite(text.data(), 1, text.size(), stdout);
  if (std::fflush(stdout) != 0) failed = true;
}

bool outputHasFailed() { return failed; }

void TextQueue::add(std::string_view text) {
  const std::lock_guard lock(mutex_);
  text_ += text;
}

std::string TextQueue::take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(text_, {});
}

std::size_t TextQueue::size() {
  const std::lock_guard lock(mutex_);
  return text_.size();
}

}  // namespace programs
