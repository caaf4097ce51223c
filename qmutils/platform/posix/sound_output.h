// The way of samples to the sound card: one open device, played on by one thread at a time. For
// platform/posix/ only.
#pragma once

#include <cstdint>
#include <memory>

#include "qmutils/platform/posix/sample_source.h"
#include "qmutils/platform/types.h"

extern "C" struct _snd_pcm;  // of the sound system

namespace qm::platform::posix {

/// Some devices take samples faster than they can be heard (a recording to a file, one that drops
/// everything). A sound lasts its length there all the same, and samples are handed over half a
/// second before their time at most.
class SoundOutput {
 public:
  SoundOutput() = default;
  SoundOutput(const SoundOutput&) = delete;
  SoundOutput& operator=(const SoundOutput&) = delete;
  /// Silences the device at once.
  ~SoundOutput();

  /// Opens the device that QMUTILS_SOUND_DEVICE names, or the default, for sounds like this one.
  /// Never waits for others who have the device. False with the last error set.
  bool open(const SampleSource& source) noexcept;

  /// Plays the sound and returns at its end, or as soon as `stop` (may be null; taken by the wait)
  /// is signalled, silent in both cases. False with the last error set when the device has failed.
  /// To be called once.
  bool play(SampleSource& source, HANDLE stop) noexcept;

 private:
  bool setUp(const SampleSource& source) noexcept;
  bool fill(SampleSource& source) noexcept;
  bool refill(SampleSource& source) noexcept;
  bool start() noexcept;
  bool recover(long error) noexcept;
  bool isAllWritten() const noexcept;
  bool isHeard() noexcept;
  bool isStuck() const noexcept;
  std::int64_t timeOf(std::uint64_t frames) const noexcept;
  std::uint64_t mayBeWritten() const noexcept;
  DWORD untilNextLook() const noexcept;

  _snd_pcm* pcm_ = nullptr;
  unsigned rate_ = 0;
  unsigned channels_ = 0;
  unsigned long period_ = 0;  // what the device takes a sound in; frames

  // The piece that is being written; frames.
  std::unique_ptr<Sample[]> piece_;
  std::size_t pieceSize_ = 0;
  std::size_t pieceWritten_ = 0;
  bool sourceEnded_ = false;
  std::uint64_t silence_ = 0;  // that is still to be added at the end

  bool isPrimed_ = false;    // it has something to begin with
  unsigned recoveries_ = 0;  // since the device has taken something

  std::uint64_t length_ = 0;   // of what has been read from the source, without added silence
  std::uint64_t written_ = 0;  // frames
  // Nanoseconds.
  std::int64_t begin_ = 0;     // when the first frame was due
  std::int64_t lastMove_ = 0;  // when the device took something last
};

}  // namespace qm::platform::posix
