#include "qmutils/platform/posix/wave_file.h"

#include <fcntl.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <utility>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/posix/regular_file.h"

namespace qm::platform::posix {

namespace {

constexpr std::size_t kConvertedAtOnce = 1024;  // samples
constexpr double kFullScale = 2147483648.0;     // 1.0 in a floating-point file

struct SoundCloser {
  void operator()(SNDFILE* file) const noexcept { sf_close(file); }
};
using SoundPtr = std::unique_ptr<SNDFILE, SoundCloser>;

bool isWaveFamily(int format) noexcept {
  const int type = format & SF_FORMAT_TYPEMASK;
  return type == SF_FORMAT_WAV || type == SF_FORMAT_WAVEX || type == SF_FORMAT_RF64;
}

bool isFloatingPoint(int format) noexcept {
  const int encoding = format & SF_FORMAT_SUBMASK;
  return encoding == SF_FORMAT_FLOAT || encoding == SF_FORMAT_DOUBLE;
}

Sample toSample(double value) noexcept {
  if (std::isnan(value)) return 0;
  constexpr double low = std::numeric_limits<Sample>::min();
  constexpr double high = std::numeric_limits<Sample>::max();
  return static_cast<Sample>(std::nearbyint(std::clamp(value * kFullScale, low, high)));
}

class WaveFile : public SampleSource {
 public:
  WaveFile(Descriptor descriptor, SoundPtr file, const SF_INFO& info) noexcept
      : SampleSource(static_cast<unsigned>(info.samplerate), static_cast<unsigned>(info.channels)),
        descriptor_(std::move(descriptor)),
        file_(std::move(file)),
        isFloatingPoint_(isFloatingPoint(info.format)) {}

  std::size_t read(Sample* samples, std::size_t count) noexcept override {
    const std::size_t wanted = count * channels();
    if (isFloatingPoint_) return readFloatingPoint(samples, wanted) / channels();
    const sf_count_t got = sf_read_int(file_.get(), samples, static_cast<sf_count_t>(wanted));
    return got > 0 ? static_cast<std::size_t>(got) / channels() : 0;
  }

 private:
  // The sound library's own conversion would make the loudest sample of each file full scale, or
  // let what is beyond full scale overflow.
  std::size_t readFloatingPoint(Sample* samples, std::size_t wanted) noexcept {
    double values[kConvertedAtOnce];
    const std::size_t most = kConvertedAtOnce / channels() * channels();
    for (std::size_t done = 0; done < wanted;) {
      const auto piece = static_cast<sf_count_t>(std::min(wanted - done, most));
      const sf_count_t got = sf_read_double(file_.get(), values, piece);
      if (got <= 0) return done;
      std::transform(values, values + got, samples + done, toSample);
      done += static_cast<std::size_t>(got);
    }
    return wanted;
  }

  const Descriptor descriptor_;  // before the file that reads from it
  const SoundPtr file_;
  const bool isFloatingPoint_;
};

}  // namespace

std::unique_ptr<SampleSource> openWaveFile(const char* path) noexcept {
  const NativePath native(path);
  if (!native.ok()) return nullptr;
  struct stat status;
  Descriptor descriptor = openRegularFile(native.c_str(), O_RDONLY, &status);
  if (!descriptor.isOpen()) return nullptr;
  SF_INFO info = {};
  SoundPtr file(sf_open_fd(descriptor.get(), SFM_READ, &info, SF_FALSE));
  if (file == nullptr || !isWaveFamily(info.format) || info.samplerate <= 0 || info.channels <= 0 ||
      static_cast<std::size_t>(info.channels) > kConvertedAtOnce) {
    setLastError(ERROR_INVALID_DATA);
    return nullptr;
  }
  std::unique_ptr<SampleSource> source(new (std::nothrow)
                                           WaveFile(std::move(descriptor), std::move(file), info));
  if (source == nullptr) setLastError(ERROR_NOT_ENOUGH_MEMORY);
  return source;
}

}  // namespace qm::platform::posix
