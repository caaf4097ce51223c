#include "qmutils/platform/posix/tone.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace qm::platform::posix {

namespace {

constexpr unsigned kRate = 48'000;
// For tones that come close to half of the usual rate, or go beyond.
constexpr unsigned kHighRate = 96'000;
constexpr DWORD kHighestAtUsualRate = 20'000;
constexpr unsigned kEdgeMs = 5;

unsigned rateFor(DWORD hertz) noexcept { return hertz > kHighestAtUsualRate ? kHighRate : kRate; }

}  // namespace

Tone::Tone(DWORD hertz, DWORD milliseconds, unsigned percent) noexcept
    : SampleSource(rateFor(hertz), 1),
      amplitude_(std::numeric_limits<Sample>::max() / 100.0 * percent),
      hertz_(hertz),
      length_(std::uint64_t{milliseconds} * rate() / 1000),
      edge_(std::min<std::uint64_t>(rate() * kEdgeMs / 1000, length_ / 2)) {}

/// A raised cosine at both ends: a tone that began or ended at once would click.
double Tone::envelope() const noexcept {
  const std::uint64_t fromEnd = std::min(next_, length_ - 1 - next_);
  if (fromEnd >= edge_) return 1;
  const double part = static_cast<double>(fromEnd) / static_cast<double>(edge_);
  return (1 - std::cos(std::numbers::pi * part)) / 2;
}

std::size_t Tone::read(Sample* samples, std::size_t count) noexcept {
  const std::uint64_t frames = std::min<std::uint64_t>(count, length_ - next_);
  for (std::uint64_t i = 0; i < frames; ++i, ++next_) {
    const double angle = 2 * std::numbers::pi * phase_ / rate();
    samples[i] = static_cast<Sample>(std::nearbyint(amplitude_ * envelope() * std::sin(angle)));
    phase_ = (phase_ + hertz_) % rate();
  }
  return static_cast<std::size_t>(frames);
}

}  // namespace qm::platform::posix
