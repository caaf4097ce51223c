// A sine tone with soft edges. For platform/posix/ only.
#pragma once

#include "qmutils/platform/posix/sample_source.h"
#include "qmutils/platform/types.h"

namespace qm::platform::posix {

class Tone : public SampleSource {
 public:
  /// Of `percent` (0 to 100) of the largest amplitude. Any duration costs the same memory.
  Tone(DWORD hertz, DWORD milliseconds, unsigned percent) noexcept;

  std::size_t read(Sample* samples, std::size_t count) noexcept override;

 private:
  double envelope() const noexcept;

  const double amplitude_;
  const unsigned hertz_;
  const std::uint64_t length_;  // frames, as the two below
  const std::uint64_t edge_;    // how long it takes to rise, and to fall
  std::uint64_t next_ = 0;
  unsigned phase_ = 0;  // of the next frame, in periods times the rate: whole numbers do not drift
};

}  // namespace qm::platform::posix
