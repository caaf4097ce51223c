#include "qmutils/platform/posix/sound_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <new>

extern "C" {  // some versions of this header leave a function without
#include <alsa/error.h>
}
#include <alsa/asoundlib.h>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/posix/environment.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform::posix {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;  // nanoseconds
constexpr std::int64_t kMs = kSecond / 1000;

constexpr std::size_t kPieceFrames = 1024;
constexpr unsigned kBufferMicroseconds = 200'000;
// Short, as a sound is filled up with silence to a whole period.
constexpr unsigned kPeriodMicroseconds = 10'000;
constexpr DWORD kLookEveryMs = 50;  // a quarter of the buffer

constexpr std::int64_t kAhead = kSecond / 2;
// How much faster than ours the clock of a card may be: it must not run dry because we hold back.
constexpr std::int64_t kClockDeviation = 1000;  // one in so many
constexpr std::int64_t kPatience = 5 * kSecond;
constexpr std::int64_t kPatienceAtEnd = kSecond;
constexpr unsigned kMostRecoveries = 20;  // in which the device takes nothing

/// Keeps the sound system's own complaints off standard error while it lives: whoever fails tells
/// by a code. The calling thread's only, as the handler of the process is the host's.
class QuietSoundSystem {
 public:
  QuietSoundSystem() noexcept : former_(snd_lib_error_set_local(&ignore)) {}
  ~QuietSoundSystem() { snd_lib_error_set_local(former_); }
  QuietSoundSystem(const QuietSoundSystem&) = delete;
  QuietSoundSystem& operator=(const QuietSoundSystem&) = delete;

 private:
  static void ignore(const char*, int, const char*, int, const char*, va_list) {}

  const snd_local_error_handler_t former_;
};

/// The sound system gives errors as negative numbers. Of opening and playing: there is no such
/// device any more, or no service behind it.
bool failWithSoundError(long error) noexcept {
  switch (-error) {
    case ENOENT:
    case ECONNREFUSED:
      return failWith(ERROR_BAD_UNIT);
    default:
      return failWithErrno(static_cast<int>(-error));
  }
}

/// Waits that long for `stop`; true when it is signalled.
bool isStopped(HANDLE stop, DWORD ms) noexcept {
  if (stop != nullptr) return wait(stop, ms) != WAIT_TIMEOUT;
  if (ms != 0) (void)sleep(ms, false);
  return false;
}

// Both give 0, or the sound system's error.

int chooseHardware(snd_pcm_t* pcm, unsigned rate, unsigned channels, snd_pcm_uframes_t* period) {
  snd_pcm_hw_params_t* hardware;
  snd_pcm_hw_params_alloca(&hardware);
  unsigned actualRate = rate;
  unsigned bufferTime = kBufferMicroseconds;
  unsigned periodTime = kPeriodMicroseconds;
  int error;
  if ((error = snd_pcm_hw_params_any(pcm, hardware)) < 0 ||
      (error = snd_pcm_hw_params_set_rate_resample(pcm, hardware, 1)) < 0 ||
      (error = snd_pcm_hw_params_set_access(pcm, hardware, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0 ||
      (error = snd_pcm_hw_params_set_format(pcm, hardware, SND_PCM_FORMAT_S32)) < 0 ||
      (error = snd_pcm_hw_params_set_channels(pcm, hardware, channels)) < 0 ||
      (error = snd_pcm_hw_params_set_rate_near(pcm, hardware, &actualRate, nullptr)) < 0) {
    return error;
  }
  if (actualRate != rate) return -EINVAL;  // it would be another sound
  if ((error = snd_pcm_hw_params_set_buffer_time_near(pcm, hardware, &bufferTime, nullptr)) < 0 ||
      (error = snd_pcm_hw_params_set_period_time_near(pcm, hardware, &periodTime, nullptr)) < 0 ||
      (error = snd_pcm_hw_params(pcm, hardware)) < 0) {
    return error;
  }
  return std::min(snd_pcm_hw_params_get_period_size(hardware, period, nullptr), 0);
}

int chooseSoftware(snd_pcm_t* pcm) {
  snd_pcm_sw_params_t* software;
  snd_pcm_sw_params_alloca(&software);
  snd_pcm_uframes_t boundary = 0;
  int error;
  if ((error = snd_pcm_sw_params_current(pcm, software)) < 0 ||
      (error = snd_pcm_sw_params_get_boundary(software, &boundary)) < 0 ||
      // Started by us, as a short sound would never fill the buffer.
      (error = snd_pcm_sw_params_set_start_threshold(pcm, software, boundary)) < 0 ||
      // What has been played becomes silence, so that a card that is late in stopping does not play
      // it again.
      (error = snd_pcm_sw_params_set_silence_threshold(pcm, software, 0)) < 0 ||
      (error = snd_pcm_sw_params_set_silence_size(pcm, software, boundary)) < 0) {
    return error;
  }
  return std::min(snd_pcm_sw_params(pcm, software), 0);
}

}  // namespace

SoundOutput::~SoundOutput() {
  if (pcm_ == nullptr) return;
  const QuietSoundSystem quiet;
  (void)snd_pcm_drop(pcm_);
  (void)snd_pcm_close(pcm_);
}

bool SoundOutput::open(const SampleSource& source) noexcept try {
  const QuietSoundSystem quiet;
  const std::string named = environment("QMUTILS_SOUND_DEVICE");
  const char* const name = named.empty() ? "default" : named.c_str();
  const int result = snd_pcm_open(&pcm_, name, SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
  if (result < 0) {
    pcm_ = nullptr;
    return failWithSoundError(result);
  }
  return setUp(source);
} catch (const std::bad_alloc&) {
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
}

bool SoundOutput::setUp(const SampleSource& source) noexcept {
  rate_ = source.rate();
  channels_ = source.channels();
  int error = chooseHardware(pcm_, rate_, channels_, &period_);
  if (error == 0) error = chooseSoftware(pcm_);
  if (error == -EINVAL) return failWith(ERROR_NOT_SUPPORTED);
  if (error != 0) return failWithSoundError(error);
  piece_.reset(new (std::nothrow) Sample[kPieceFrames * channels_]);
  if (piece_ == nullptr) return failWith(ERROR_NOT_ENOUGH_MEMORY);
  begin_ = lastMove_ = monotonicNanoseconds();
  return true;
}

bool SoundOutput::play(SampleSource& source, HANDLE stop) noexcept {
  const QuietSoundSystem quiet;
  for (DWORD pause = 0; !isStopped(stop, pause); pause = untilNextLook()) {
    if (!fill(source)) return false;
    if (!isHeard()) continue;
    // Nothing is left to be heard; but who records what is played writes the rest only now.
    (void)snd_pcm_drain(pcm_);
    return true;
  }
  (void)snd_pcm_drop(pcm_);
  return true;
}

/// Writes what the device takes and what is due.
bool SoundOutput::fill(SampleSource& source) noexcept {
  while (refill(source)) {
    const std::uint64_t most =
        std::min<std::uint64_t>(pieceSize_ - pieceWritten_, mayBeWritten() - written_);
    if (most == 0) break;
    const snd_pcm_sframes_t count =
        snd_pcm_writei(pcm_, piece_.get() + pieceWritten_ * channels_, most);
    if (count == -EAGAIN || count == 0) break;
    if (count < 0) {
      if (!recover(count)) return false;
      if (snd_pcm_state(pcm_) == SND_PCM_STATE_SUSPENDED) break;
      continue;
    }
    pieceWritten_ += static_cast<std::size_t>(count);
    written_ += static_cast<std::uint64_t>(count);
    lastMove_ = monotonicNanoseconds();
    recoveries_ = 0;
    isPrimed_ = true;
  }
  return isStuck() ? failWith(ERROR_TIMEOUT) : start();
}

/// Gets the next piece when all of this one has been written. False when there is none.
bool SoundOutput::refill(SampleSource& source) noexcept {
  if (pieceWritten_ < pieceSize_) return true;
  pieceWritten_ = 0;
  pieceSize_ = sourceEnded_ ? 0 : source.read(piece_.get(), kPieceFrames);
  length_ += pieceSize_;
  if (pieceSize_ != 0) return true;
  if (!sourceEnded_) {
    sourceEnded_ = true;
    // Where the rate is converted a period is heard only when it is whole.
    silence_ = length_ == 0 ? 0 : period_ - length_ % period_;
  }
  pieceSize_ = static_cast<std::size_t>(std::min<std::uint64_t>(silence_, kPieceFrames));
  silence_ -= pieceSize_;
  std::fill_n(piece_.get(), pieceSize_ * channels_, Sample{0});
  return pieceSize_ != 0;
}

bool SoundOutput::isAllWritten() const noexcept {
  return sourceEnded_ && silence_ == 0 && pieceWritten_ == pieceSize_;
}

bool SoundOutput::start() noexcept {
  if (!isPrimed_ || snd_pcm_state(pcm_) != SND_PCM_STATE_PREPARED) return true;
  const int result = snd_pcm_start(pcm_);
  return result >= 0 || recover(result);
}

/// After the card has run dry, because we came late, or was sent to sleep, it goes on.
bool SoundOutput::recover(long error) noexcept {
  if (error == -EINTR) return true;
  if (++recoveries_ > kMostRecoveries) return failWith(ERROR_TIMEOUT);
  if (error == -ESTRPIPE) {
    const int resumed = snd_pcm_resume(pcm_);
    if (resumed == -EAGAIN) recoveries_ = 0;  // not yet awake
    if (resumed >= 0 || resumed == -EAGAIN) return true;
  } else if (error != -EPIPE) {
    return failWithSoundError(error);
  }
  isPrimed_ = false;
  const int prepared = snd_pcm_prepare(pcm_);
  if (prepared < 0) return failWithSoundError(prepared);
  begin_ = monotonicNanoseconds() - timeOf(written_);  // the gap makes the sound longer
  return true;
}

/// True when nothing more of the sound will come out of the device and its time has passed.
bool SoundOutput::isHeard() noexcept {
  if (!isAllWritten()) return false;
  const std::int64_t now = monotonicNanoseconds();
  if (now < begin_ + timeOf(length_)) return false;
  const snd_pcm_state_t state = snd_pcm_state(pcm_);
  if (state != SND_PCM_STATE_RUNNING && state != SND_PCM_STATE_SUSPENDED) return true;
  snd_pcm_sframes_t delay = 0;
  if (snd_pcm_delay(pcm_, &delay) < 0 || delay <= 0) return true;
  // Some count what they never come to play.
  return now > lastMove_ + kAhead + kPatienceAtEnd;
}

/// True when the device has taken nothing for a long time, although something is due.
bool SoundOutput::isStuck() const noexcept {
  return pieceWritten_ < pieceSize_ && mayBeWritten() > written_ &&
         monotonicNanoseconds() > std::max(lastMove_, begin_ + timeOf(written_)) + kPatience;
}

/// How long so many frames last. Whole seconds apart, as the longest tone would overflow.
std::int64_t SoundOutput::timeOf(std::uint64_t frames) const noexcept {
  const auto rest = static_cast<std::int64_t>(frames % rate_);
  return static_cast<std::int64_t>(frames / rate_) * kSecond + rest * kSecond / rate_;
}

/// How many frames may have been handed over by now.
std::uint64_t SoundOutput::mayBeWritten() const noexcept {
  const std::int64_t elapsed = std::max<std::int64_t>(monotonicNanoseconds() - begin_, 0);
  const std::int64_t due = elapsed + elapsed / kClockDeviation + kAhead;
  const std::int64_t frames = due / kSecond * rate_ + due % kSecond * rate_ / kSecond;
  return std::max(static_cast<std::uint64_t>(frames), written_);
}

DWORD SoundOutput::untilNextLook() const noexcept {
  if (!isAllWritten()) return kLookEveryMs;
  const std::int64_t left = begin_ + timeOf(length_) - monotonicNanoseconds();
  return static_cast<DWORD>(std::clamp<std::int64_t>((left + kMs - 1) / kMs, 1, kLookEveryMs));
}

}  // namespace qm::platform::posix
