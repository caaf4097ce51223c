// Sounds of a test go to a file instead of a card, in this process and those it launches, while the
// object lives; the device takes them as fast as it gets them. And wave files to play.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/TempFolder.h"

namespace qmtest {

using Samples = std::vector<std::int32_t>;

class SoundCapture {
 public:
  SoundCapture();
  ~SoundCapture();
  SoundCapture(const SoundCapture&) = delete;
  SoundCapture& operator=(const SoundCapture&) = delete;

  /// What has been played last, as far as it has been written; channels side by side.
  Samples samples() const;

  void useDevice(const std::string& name) const;

  const TempFolder& folder() const { return folder_; }

 private:
  std::string file() const { return folder_.file("capture"); }

  TempFolder folder_;
};

/// Writes a file with libsndfile. `format` is one of its numbers, `samples` are scaled to 32 bits.
void writeWave(const std::string& path, int format, int rate, int channels, const Samples& samples);
/// A file of that length, in 16 bits and mono at 8 kHz, whose samples tell their places.
std::string makeWave(const TempFolder& folder, const std::string& name, int milliseconds);

}  // namespace qmtest
