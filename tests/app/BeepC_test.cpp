#include "qmutils/app/BeepC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qmutils/platform/error.h"
#include "qmutils/platform/sound.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

using namespace std::chrono_literals;
using QMErrors::QMErrorT;

constexpr unsigned kForever = QMPlaySoundC::kForever;

/// Plays nothing and remembers what it was told to, in the device's place while it lives.
class RecordingDevice : public qm::platform::SoundDevice {
 public:
  RecordingDevice() : former_(qm::platform::replaceSoundDevice(this)) {}
  ~RecordingDevice() override { qm::platform::replaceSoundDevice(former_); }

  bool play(const char* waveFile) noexcept override {
    const std::string name(waveFile);
    note("play " + name.substr(name.rfind('/') + 1));
    if (onPlay) onPlay();
    return result(playError);
  }
  bool isPlaying() noexcept override {
    note("playing?");
    const std::lock_guard lock(mutex_);
    if (looksPerFile == 0 || ++looks_ % looksPerFile != 0) return true;
    (void)result(endError);
    return false;
  }
  bool purge() noexcept override {
    note("purge");
    return result(purgeError);
  }
  bool tone(DWORD hertz, DWORD ms, HANDLE cancel) noexcept override {
    note("tone " + std::to_string(hertz) + " " + std::to_string(ms));
    if (toneLasts) (void)qm::platform::wait(cancel, INFINITE);
    return result(toneError);
  }

  /// Waits for so many of this call.
  void await(const std::string& call, int count = 1) {
    std::unique_lock lock(mutex_);
    ASSERT_TRUE(changed_.wait_for(lock, 30s, [&] { return countOf(call) >= count; })) << call;
  }
  /// All calls so far, "; " behind each; then they are forgotten.
  std::string take() {
    const std::lock_guard lock(mutex_);
    std::string text;
    for (const std::string& call : std::exchange(calls_, {})) text += call + "; ";
    return text;
  }

  // Set while nothing plays.
  int looksPerFile = 1;  ///< the how manieth look finds that the file has ended; 0: none
  bool toneLasts = false;
  DWORD playError = 0, endError = 0, purgeError = 0,
        toneError = 0;  ///< all ones: fails without a last error
  std::function<void()> onPlay;

 private:
  static bool result(DWORD error) noexcept {
    if (error != 0 && error != kSilent) qm::platform::setLastError(error);
    return error == 0;
  }
  void note(const std::string& call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
    changed_.notify_all();
  }
  long countOf(const std::string& call) const {
    return std::count(calls_.begin(), calls_.end(), call);
  }

 public:
  static constexpr DWORD kSilent = 0xFFFFFFFFu;

 private:
  qm::platform::SoundDevice* former_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> calls_;
  int looks_ = 0;
};

struct SoundC : BeepC {
  ~SoundC() override { (void)stop(); }
  using BeepC::BeepPlaySound;
  using BeepC::Exists;
  using BeepC::IsPlaying;
};

class Beep : public testing::Test {
 protected:
  Beep() {
    qmtest::writeFile(wave_, "");
    qmtest::writeFile(other_, "");
  }

  QMPlaySoundC sound(const std::string& name, unsigned repeats, unsigned space = 0,
                     int stopOnKey = 0) const {
    return {name.c_str(), repeats, 1000, 30, space, stopOnKey};
  }
  /// The exit code of the thread, which ends by itself.
  QMErrorT play(QMPlaySoundC description) {
    EXPECT_EQ(beep_.Start(description), QMErrors::NoError);
    return awaitEnd();
  }
  QMErrorT awaitEnd() {
    EXPECT_EQ(qm::platform::wait(beep_.GetThread(), 30'000), WAIT_OBJECT_0);
    DWORD code = 1;
    EXPECT_TRUE(qm::platform::threadExitCode(beep_.GetThread(), &code));
    return static_cast<QMErrorT>(code);
  }

  const qmtest::TempFolder folder_;
  const std::string wave_ = folder_.file("a.WaV"), other_ = folder_.file("b.mp3"),
                    missing_ = folder_.file("c.wav");
  RecordingDevice device_;
  qmtest::LogCapture log_{2};
  SoundC beep_;
};

TEST_F(Beep, FilesPlayToTheirEndAsOftenAsAsked) {
  device_.looksPerFile = 2;
  EXPECT_EQ(play(sound(wave_, 0)), QMErrors::NoError);
  EXPECT_EQ(device_.take(), "purge; ");
  EXPECT_EQ(play(sound(wave_, 2)), QMErrors::NoError);
  const std::string once = "play a.WaV; playing?; playing?; purge; ";
  EXPECT_EQ(device_.take(), once + once + "purge; ");
  EXPECT_TRUE(log_.contains(" INFO: BeepC::run(): playing sound: " + wave_ + "\n"));
  EXPECT_STREQ(beep_.GetSafeThreadName(), "BeepC");

  // The description has gone with its run, and no warning tells that tones have none.
  log_.clear();
  EXPECT_EQ(beep_.Start(2, 440, 20, 0, 0), QMErrors::NoError);
  EXPECT_EQ(awaitEnd(), QMErrors::NoError);
  EXPECT_EQ(device_.take(), "tone 440 20; tone 440 20; purge; ");
  EXPECT_FALSE(log_.contains("WARNING"));
}

TEST_F(Beep, DisabledSoundsAreNeitherPlayedNorReplaced) {
  QMPlaySoundC disabled = sound(missing_, kForever);
  disabled.m_bEnabled = 0;
  EXPECT_EQ(play(disabled), QMErrors::NoError);
  EXPECT_EQ(device_.take(), "purge; ");
  EXPECT_TRUE(
      log_.contains(" INFO: BeepC::run(): sound is disabled NOT playing it: " + missing_ + "\n"));
}

TEST_F(Beep, TheToneStandsInForFilesThatCannotBePlayed) {
  const std::string label = " WARNING: BeepC::PlaySound(): ";
  const std::pair<QMPlaySoundC, std::string> cases[] = {
      {sound(missing_, 3), "m_pPlaySound->m_pSound(" + missing_ + ") does not exist."},
      {sound(other_, 3), "not a valid .wav file: " + other_},
      {QMPlaySoundC(nullptr, 3, 1000, 30, 0, 0), "m_pPlaySound == NULL"},
      {sound("", 3), "m_pPlaySound->m_pSound() does not exist."},
  };
  for (const auto& [description, warning] : cases) {
    log_.clear();
    EXPECT_EQ(play(description), QMErrors::NoError);
    EXPECT_EQ(device_.take(), "tone 1000 30; tone 1000 30; tone 1000 30; purge; ");
    const std::string text = log_.text();
    const std::size_t at = text.find(label + warning + "\n");
    EXPECT_NE(at, std::string::npos) << text;
    EXPECT_EQ(text.find("WARNING", at + 8), std::string::npos) << "once: " << text;
  }
  for (const DWORD error : {DWORD{170}, RecordingDevice::kSilent}) {
    device_.playError = error;
    log_.clear();
    EXPECT_EQ(play(sound(wave_, 1)), QMErrors::NoError);
    EXPECT_EQ(device_.take(), "play a.WaV; tone 1000 30; purge; ");
    const std::string why = QMErrToStr(QMErrors::fromOsError(error == 170 ? 170 : 31));
    EXPECT_TRUE(log_.contains(label + "::PlaySound() failed for:" + wave_ + ", Reason: " + why))
        << log_.text();
  }

  // A device that fails in the middle of a file.
  device_.playError = 0;
  device_.endError = ERROR_DISK_FULL;
  log_.clear();
  EXPECT_EQ(play(sound(wave_, 2)), QMErrors::NoError);
  const std::string once = "play a.WaV; playing?; purge; tone 1000 30; ";
  EXPECT_EQ(device_.take(), once + once + "purge; ");
  const std::string text = log_.text();
  const std::size_t at =
      text.find(label + "::PlaySound() failed for:" + wave_ + ", Reason: Error: 112");
  EXPECT_NE(at, std::string::npos) << text;
  EXPECT_EQ(text.find("WARNING", at + 8), std::string::npos) << "once: " << text;
}

TEST_F(Beep, AToneThatFailsEndsTheThreadWithItsError) {
  for (const DWORD error : {DWORD{20}, RecordingDevice::kSilent}) {
    const QMErrorT code = QMErrors::fromOsError(error == 20 ? 20 : 31);
    device_.toneError = error;
    log_.clear();
    EXPECT_EQ(play(sound(missing_, kForever)), code);
    EXPECT_EQ(device_.take(), "tone 1000 30; ");
    EXPECT_TRUE(log_.contains(" ERROR: BeepC::run():  " + std::string(QMErrToStr(code)) + "\n"));
    // Nothing is held any more.
    EXPECT_EQ(beep_.BeepPlaySound(1), QMErrors::SoundFileNotFound);
    EXPECT_EQ(beep_.BeepPlaySound(0), QMErrors::SoundFileNotFound);
    EXPECT_TRUE(log_.contains("m_pPlaySound == NULL"));
  }
}

TEST_F(Beep, StopsInTheMiddleOfFilesTonesAndSpaces) {
  device_.looksPerFile = 0;
  device_.toneLasts = true;
  QMPlaySoundC file = sound(wave_, kForever, kForever);
  EXPECT_EQ(beep_.Start(file), QMErrors::NoError);
  device_.await("playing?", 2);
  // Another one: the first has ended before its values are taken.
  EXPECT_EQ(beep_.Start(kForever, 500, INFINITE, 0, 0), QMErrors::NoError);
  device_.await("tone 500 4294967295");
  EXPECT_EQ(beep_.StopCurrentSound(), QMErrors::NoError);
  EXPECT_FALSE(beep_.IsAlive());
  const std::string calls = device_.take();
  EXPECT_NE(calls.find("playing?; purge; tone 500 4294967295; purge; purge; "), std::string::npos)
      << calls;

  device_.toneLasts = false;
  {
    SoundC spaced;
    EXPECT_EQ(spaced.Start(kForever, 600, 1, INFINITE, 0), QMErrors::NoError);
    device_.await("tone 600 1");
  }
  EXPECT_EQ(device_.take(), "tone 600 1; purge; ");
}

TEST_F(Beep, AKeyEndsWhatStopsOnKeysAfterThePlay) {
  // One that does not stop on keys first.
  EXPECT_EQ(beep_.Start(kForever, 100, 1, 0, 0), QMErrors::NoError);
  device_.await("tone 100 1");
  EXPECT_EQ(beep_.SignalKbHit(), QMErrors::NoError);
  device_.take();
  device_.await("tone 100 1", 3);
  EXPECT_EQ(beep_.stop(), QMErrors::NoError);

  // Spaces of no length leave the lock to others for moments only. The first key comes before the
  // thread has begun.
  device_.looksPerFile = 2;
  for (const bool atOnce : {true, false}) {
    for (const std::string& call : {std::string("play a.WaV"), std::string("tone 1000 30")}) {
      device_.take();
      QMPlaySoundC file = sound(call[0] == 'p' ? wave_ : missing_, kForever, 0, 1);
      EXPECT_EQ(beep_.Start(file), QMErrors::NoError);
      if (!atOnce) device_.await(call);
      EXPECT_EQ(beep_.SignalKbHit(), QMErrors::NoError);
      EXPECT_EQ(awaitEnd(), QMErrors::NoError);
      EXPECT_TRUE(device_.take().starts_with(call));
    }
  }
  EXPECT_TRUE(log_.contains(" INFO: BeepC::run(): key hit so stopping sound.\n"));
}

TEST_F(Beep, APurgeThatFailsIsAWarning) {
  device_.purgeError = 1460;
  EXPECT_EQ(beep_.StopCurrentSound(), QMErrors::fromOsError(1460));
  EXPECT_EQ(log_.text(), " WARNING: BeepC::StopCurrentSound(): unable to purge current sound\n");
  log_.clear();
  device_.purgeError = RecordingDevice::kSilent;
  EXPECT_EQ(beep_.StopCurrentSound(), QMErrors::NoError);
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Beep, ASoundMayBeStartedOnTheSoundThreadItself) {
  const std::string next = folder_.file("next.wav");
  qmtest::writeFile(next, "");
  device_.onPlay = [&] {
    device_.onPlay = nullptr;
    QMPlaySoundC description = sound(next, 2);
    EXPECT_EQ(beep_.Start(description), QMErrors::NoError);
  };
  EXPECT_EQ(play(sound(wave_, 1)), QMErrors::NoError);
  EXPECT_EQ(device_.take(), "play a.WaV; playing?; purge; play next.wav; playing?; purge; purge; ");
  EXPECT_TRUE(log_.contains("playing sound: " + wave_ + "\n"));

  // Other values only: the file that is held plays on.
  device_.onPlay = [&] {
    device_.onPlay = nullptr;
    EXPECT_EQ(beep_.Start(2, 440, 1, 0, 0), QMErrors::NoError);
  };
  EXPECT_EQ(play(sound(wave_, 1)), QMErrors::NoError);
  EXPECT_EQ(device_.take(), "play a.WaV; playing?; purge; play a.WaV; playing?; purge; purge; ");
}

TEST_F(Beep, TonesAreNotOfADescriptionThatWasStartedTooLate) {
  struct LateC : SoundC {
    ~LateC() override { (void)stop(); }
    QMPlaySoundC* late = nullptr;
    QMErrorT run() override {
      const QMErrorT result = BeepC::run();
      if (late != nullptr) (void)Start(*late);
      return result;
    }
  } beep;
  QMPlaySoundC file = sound(wave_, 1);
  for (QMPlaySoundC* late : {&file, static_cast<QMPlaySoundC*>(nullptr)}) {
    beep.late = late;
    EXPECT_EQ(beep.Start(1, 440, 1, 0, 0), QMErrors::NoError);
    EXPECT_EQ(qm::platform::wait(beep.GetThread(), 30'000), WAIT_OBJECT_0);
    EXPECT_EQ(device_.take(), "tone 440 1; purge; ");
  }
}

TEST_F(Beep, RunningOutOfMemoryStartsNothing) {
  QMPlaySoundC file = sound(wave_, 1);
  for (int n = 1; n <= 2; ++n) {
    qmtest::FailingAllocation nth(n);
    EXPECT_EQ(beep_.Start(file), QMErrors::MemoryAllocationFailed) << n;
    EXPECT_TRUE(nth.hasFailed());
  }
  EXPECT_EQ(device_.take(), "");
  EXPECT_TRUE(beep_.Exists(wave_.c_str()));
  EXPECT_FALSE(beep_.Exists(folder_.path().c_str()) || beep_.Exists(nullptr));
  EXPECT_FALSE(beep_.IsPlaying());
}

}  // namespace
