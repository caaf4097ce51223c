// What a sound consists of: frames of samples, one sample a channel. For platform/posix/ only.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qm::platform::posix {

/// The one form of all sounds, which holds every sample of integer formats exactly; rate, channels
/// and the card's own format are the sound system's affair.
using Sample = std::int32_t;

class SampleSource {
 public:
  SampleSource(unsigned rate, unsigned channels) noexcept : rate_(rate), channels_(channels) {}
  SampleSource(const SampleSource&) = delete;
  SampleSource& operator=(const SampleSource&) = delete;
  virtual ~SampleSource() = default;

  /// Frames per second.
  unsigned rate() const noexcept { return rate_; }
  unsigned channels() const noexcept { return channels_; }

  /// The next frames, at most `count` (1 or more), each with its channels side by side. Gives their
  /// number; 0 at the end of the sound.
  virtual std::size_t read(Sample* samples, std::size_t count) noexcept = 0;

 private:
  const unsigned rate_;
  const unsigned channels_;
};

}  // namespace qm::platform::posix
