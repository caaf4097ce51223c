#include "tests/support/SoundCapture.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdlib>
#include <cstring>

namespace qmtest {
namespace {

constexpr const char* kConfiguration = R"(
pcm.null { type null }
pcm.capture {
  @args [ FILE ]
  @args.FILE { type string }
  type file
  slave.pcm "null"
  file $FILE
  format raw
}
)";

template <class Sample>
std::vector<Sample> samplesIn(const std::string& file) {
  const std::string bytes = readFile(file);
  std::vector<Sample> samples(bytes.size() / sizeof(Sample));
  if (!samples.empty()) {
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(Sample));
  }
  return samples;
}

}  // namespace

SoundCapture::SoundCapture() {
  const std::string configuration = folder_.file("asound.conf");
  writeFile(configuration, kConfiguration);
  setenv("ALSA_CONFIG_PATH", configuration.c_str(), 1);
  useDevice("capture:FILE=" + file());
}

SoundCapture::~SoundCapture() {
  unsetenv("QMUTILS_SOUND_DEVICE");
  unsetenv("QMUTILS_TONE_VOLUME");
  unsetenv("ALSA_CONFIG_PATH");
}

void SoundCapture::useDevice(const std::string& name) const {
  setenv("QMUTILS_SOUND_DEVICE", name.c_str(), 1);
}

Samples SoundCapture::samples() const { return samplesIn<std::int32_t>(file()); }

void writeWave(const std::string& path, int format, int rate, int channels,
               const Samples& samples) {
  SF_INFO info = {};
  info.samplerate = rate;
  info.channels = channels;
  info.format = format;
  SNDFILE* const file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
  sf_command(file, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE);
  const auto count = static_cast<sf_count_t>(samples.size());
  EXPECT_EQ(sf_write_int(file, samples.data(), count), count);
  EXPECT_EQ(sf_close(file), 0);
}

std::string makeWave(const TempFolder& folder, const std::string& name, int milliseconds) {
  Samples samples(static_cast<std::size_t>(milliseconds) * 8);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::int32_t>(i % 0x7FFF + 1) << 16;
  }
  writeWave(folder.file(name), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1, samples);
  return folder.file(name);
}

}  // namespace qmtest
