#include "qmutils/platform/sound.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
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

constexpr unsigned kUsualVolume = 50;  // percent
constexpr DWORD kPatienceMs = 2'000;   // with a sound system that does not come back

/// Throws std::bad_alloc.
unsigned toneVolume() {
  const std::string text = environment("QMUTILS_TONE_VOLUME");
  unsigned percent = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, percent);
  return error == std::errc() && rest == end && percent <= 100 ? percent : kUsualVolume;
}

/// One sound being played, on a thread of its own. Thread and starter share it: a thread that does
/// not end, as the sound system keeps it, is left to itself.
class Player {
 public:
  explicit Player(std::unique_ptr<SampleSource> source) noexcept
      : source_(std::move(source)),
        stop_(createEvent(true, false)),
        opened_(createEvent(true, false)) {}
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;
  ~Player() {
    for (const HANDLE handle : {thread_, stop_, opened_}) {
      if (handle != nullptr) closeHandle(handle);
    }
  }

  /// Returns when the device is open, so that the caller learns why it cannot play.
  static bool start(const std::shared_ptr<Player>& player) {
    if (player->stop_ == nullptr || player->opened_ == nullptr) {
      return failWith(ERROR_NOT_ENOUGH_MEMORY);
    }
    auto share = std::make_unique<std::shared_ptr<Player>>(player);
    player->thread_ = startThread(&Player::run, share.get(), nullptr);
    if (player->thread_ == nullptr) return false;
    (void)share.release();
    if (wait(player->opened_, kPatienceMs) != WAIT_OBJECT_0) {
      setEvent(player->stop_);
      return failWith(ERROR_TIMEOUT);
    }
    return player->isOpen_ || failWith(player->failure_);
  }

  /// False at the end, with the reason as the last error if it came early.
  bool isPlaying() const noexcept {
    if (!ended_) return true;
    return failWith(failure_);
  }
  /// Also true when the sound system keeps it.
  bool isRunning() const noexcept { return thread_ != nullptr && !ended_; }

  /// Waits for the end, or until `cancel` (may be null) is signalled and it is silent. False with
  /// the last error set when the device fails.
  bool awaitEnd(HANDLE cancel) const noexcept {
    const HANDLE handles[] = {thread_, cancel};
    const DWORD ended = waitAny(handles, cancel != nullptr ? 2 : 1, INFINITE);
    if (ended == WAIT_FAILED) return false;
    if (ended != WAIT_OBJECT_0) return end();
    return failure_ == 0 || failWith(failure_);
  }

  /// False with the last error set when the thread does not end.
  bool end() const noexcept {
    setEvent(stop_);
    return wait(thread_, kPatienceMs) == WAIT_OBJECT_0 || failWith(ERROR_TIMEOUT);
  }

 private:
  static DWORD run(void* argument) {
    const std::unique_ptr<std::shared_ptr<Player>> share(
        static_cast<std::shared_ptr<Player>*>(argument));
    (*share)->play();
    return 0;
  }

  void play() noexcept {
    output_.emplace();
    isOpen_ = output_->open(*source_);
    bool isWell = isOpen_;
    if (isWell) {
      setEvent(opened_);
      isWell = output_->play(*source_, stop_);
    }
    if (!isWell) failure_ = lastError();
    output_.reset();
    ended_ = true;
    setEvent(opened_);
  }

  const std::unique_ptr<SampleSource> source_;
  std::optional<SoundOutput> output_;  // the thread's
  const HANDLE stop_;
  const HANDLE opened_;
  HANDLE thread_ = nullptr;
  std::atomic<bool> isOpen_{false};
  std::atomic<DWORD> failure_{0};  // before ended_
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
  // Under the mutex; null before the first sound.
  std::shared_ptr<Player> player;
  std::shared_ptr<Player> stuckTone;  // that the sound system has never let go

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
    const bool started = Player::start(player);
    if (started || player->isRunning()) playing.player = player;
    return started;
  } catch (const std::bad_alloc&) {
    return failWith(ERROR_NOT_ENOUGH_MEMORY);
  }

  bool isPlaying() noexcept override {
    Playing* const playing = ownPlaying();
    if (playing == nullptr) return failWith(ERROR_SUCCESS);
    const std::lock_guard guard(playing->mutex);
    return playing->player != nullptr ? playing->player->isPlaying() : failWith(ERROR_SUCCESS);
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
    if (milliseconds == 0) return true;
    Playing& playing = ensurePlaying();
    {
      const std::lock_guard guard(playing.mutex);
      if (playing.stuckTone != nullptr && playing.stuckTone->isRunning()) {
        return failWith(ERROR_TIMEOUT);
      }
    }
    const auto player =
        std::make_shared<Player>(std::make_unique<Tone>(hertz, milliseconds, toneVolume()));
    if (Player::start(player) && player->awaitEnd(cancel)) return true;
    const DWORD reason = lastError();
    const std::lock_guard guard(playing.mutex);
    if (player->isRunning()) playing.stuckTone = player;
    return failWith(reason);
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
