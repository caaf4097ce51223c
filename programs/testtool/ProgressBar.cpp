#include "programs/testtool/ProgressBar.h"

#include <utility>

#include "qmutils/platform/terminal.h"

namespace programs {
namespace {

constexpr unsigned kWidth = 30;
constexpr unsigned kPlainStepPercent = 25;

}  // namespace

ProgressBar::ProgressBar(std::FILE* out, std::string label)
    : out_(out), label_(std::move(label)), overwrites_(qm::platform::isTerminal(out)) {}

void ProgressBar::show(unsigned done, unsigned total) {
  const auto percent = static_cast<unsigned>(total == 0 ? 100 : done * 100ull / total);
  if (!overwrites_ && percent / kPlainStepPercent == shownPercent_ / kPlainStepPercent) return;
  shownPercent_ = percent;
  std::string bar(kWidth, '.');
  bar.replace(0, percent * kWidth / 100, percent * kWidth / 100, '#');
  std::fprintf(out_, "%s%s [%s] %3u %%  %u/%u lines%s", overwrites_ ? "\r" : "", label_.c_str(),
               bar.c_str(), percent, done, total, overwrites_ ? "" : "\n");
  std::fflush(out_);
}

void ProgressBar::finish(const std::string& text) {
  // Blanks cover what is left of the bar.
  std::fprintf(out_, overwrites_ ? "\r%s  %-60s\n" : "%s  %s\n", label_.c_str(), text.c_str());
  std::fflush(out_);
}

}  // namespace programs
