#include "qmutils/platform/sound.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/environment.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/process_generation.h"
#include "qmutils/platform/posix/sound_output.h"
#include "qmutils/platform/posix/tone.h"
#include "qmutils/platform/posix/wave_file.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {

namespace posix {

namespace {

constexpr unsigned kUsualVolume = 50;    // percent
constexpr DWORD kEndPatienceMs = 2'000;  // a sound system that does not let go is left to itself

/// Throws std::bad_alloc.
unsigned toneVolume() {
  const std::string text = environment("QMUTILS_TONE_VOLUME");
  unsigned percent = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, percent);
  return error == std::errc() && rest == end && percent <= 100 ? percent : kUsualVolume;
}

/// One file being played, on a thread of its own. Thread and starter share it: a thread that does
/// not end is left to itself.
class Player {
 public:
  explicit Player(std::unique_ptr<SampleSource> source) noexcept
      : source_(std::move(source)), stop_(createEvent(true, false)) {}
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;
  ~Player() {
    if (thread_ != nullptr) closeHandle(thread_);
    if (stop_ != nullptr) closeHandle(stop_);
  }

  /// Opens the device here, so that the caller learns why it cannot play, and plays there.
  static bool start(const std::shared_ptr<Player>& player) {
    if (player->stop_ == nullptr) return failWith(ERROR_NOT_ENOUGH_MEMORY);
    player->output_ = std::make_unique<SoundOutput>();
    if (!player->output_->open(*player->source_)) return false;
    player->threads_ = player;
    player->thread_ = startThread(&Player::run, player.get(), nullptr);
    if (player->thread_ != nullptr) return true;
    player->threads_.reset();
    return false;
  }

  bool isPlaying() const noexcept { return !ended_; }

  /// False with the last error set when the thread does not end.
  bool end() const noexcept {
    setEvent(stop_);
    return wait(thread_, kEndPatienceMs) == WAIT_OBJECT_0 || failWith(ERROR_TIMEOUT);
  }

 private:
  static DWORD run(void* argument) {
    Player& player = *static_cast<Player*>(argument);
    const std::shared_ptr<Player> share = std::move(player.threads_);
    // A device that fails in the middle has ended the sound; nobody waits for its code.
    (void)player.output_->play(*player.source_, player.stop_);
    player.ended_ = true;
    player.output_.reset();
    return 0;
  }

  const std::unique_ptr<SampleSource> source_;
  // The thread's once it runs.
  std::unique_ptr<SoundOutput> output_;
  std::shared_ptr<Player> threads_;  // its share of this
  const HANDLE stop_;
  HANDLE thread_ = nullptr;
  std::atomic<bool> ended_{false};
};

/// What a process plays at present. A forked copy of the process leaves the record of its parent
/// alone, lock and all, and has one of its own.
struct Playing {
  Playing(unsigned processGeneration, const Playing* ofParent) noexcept
      : generation(processGeneration), parents(ofParent) {}

  const unsigned generation;
  const Playing* const parents;  // never destroyed, so never lost sight of
  std::mutex mutex;
  std::shared_ptr<Player> player;  // under the mutex; null before the first sound

  /// Under the mutex. A player that does not end stays, so that the next one does not begin before.
  bool end() noexcept {
    if (player == nullptr) return true;
    if (!player->end()) return false;
    player.reset();
    return true;
  }
};

class SystemSoundDevice : public SoundDevice {
 public:
  bool play(const char* waveFile) noexcept override try {
    std::unique_ptr<SampleSource> source = openWaveFile(waveFile);
    if (source == nullptr) return false;
    Playing& playing = ensurePlaying();
    const std::lock_guard guard(playing.mutex);
    if (!playing.end()) return false;
    const auto player = std::make_shared<Player>(std::move(source));
    if (!Player::start(player)) return false;
    playing.player = player;
    return true;
  } catch (const std::bad_alloc&) {
    return failWith(ERROR_NOT_ENOUGH_MEMORY);
  }

  bool isPlaying() noexcept override {
    Playing* const playing = ownPlaying();
    if (playing == nullptr) return false;
    const std::lock_guard guard(playing->mutex);
    return playing->player != nullptr && playing->player->isPlaying();
  }

  bool purge() noexcept override {
    Playing* const playing = ownPlaying();
    if (playing == nullptr) return true;
    const std::lock_guard guard(playing->mutex);
    return playing->end();
  }

  bool tone(DWORD hertz, DWORD milliseconds, HANDLE cancel) noexcept override try {
    if (hertz < kLowestTone || hertz > kHighestTone) return failWith(ERROR_INVALID_PARAMETER);
    if (cancel != nullptr) {
      const DWORD result = wait(cancel, 0);
      if (result != WAIT_TIMEOUT) return result != WAIT_FAILED;
    }
    Tone source(hertz, milliseconds, toneVolume());
    SoundOutput output;
    return output.open(source) && output.play(source, cancel);
  } catch (const std::bad_alloc&) {
    return failWith(ERROR_NOT_ENOUGH_MEMORY);
  }

 private:
  /// Null when this process has never played anything.
  Playing* ownPlaying() const noexcept {
    Playing* const playing = playing_;
    return playing != nullptr && playing->generation == processGeneration() ? playing : nullptr;
  }

  Playing& ensurePlaying() {
    for (;;) {
      Playing* former = playing_;
      const unsigned generation = processGeneration();
      if (former != nullptr && former->generation == generation) return *former;
      auto fresh = std::make_unique<Playing>(generation, former);
      if (playing_.compare_exchange_strong(former, fresh.get())) return *fresh.release();
    }
  }

  std::atomic<Playing*> playing_{nullptr};
};

}  // namespace

}  // namespace posix

namespace {

std::atomic<SoundDevice*> installedDevice{nullptr};

}  // namespace

SoundDevice::~SoundDevice() = default;

SoundDevice* replaceSoundDevice(SoundDevice* device) noexcept {
  return installedDevice.exchange(device);
}

SoundDevice& soundDevice() noexcept {
  if (SoundDevice* const device = installedDevice.load()) return *device;
  // Never destroyed, as threads may outlive main().
  alignas(posix::SystemSoundDevice) static unsigned char place[sizeof(posix::SystemSoundDevice)];
  static SoundDevice* const system = new (place) posix::SystemSoundDevice;
  return *system;
}

bool isWaveFile(const char* path) noexcept { return posix::openWaveFile(path) != nullptr; }

}  // namespace qm::platform
