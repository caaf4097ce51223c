#include "qmutils/platform/sound.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <numbers>
#include <thread>

#include "qmutils/platform/error.h"
#include "tests/platform/Handles.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/SoundCapture.h"

namespace {

using namespace qm::platform;
using namespace std::chrono_literals;
using qmtest::makeWave;
using qmtest::Samples;
using RealClock = std::chrono::steady_clock;

constexpr double kFullScale = std::numeric_limits<std::int32_t>::max();
constexpr double kPi = std::numbers::pi;

/// Polls for half a minute at most.
template <class Condition>
bool await(Condition condition) {
  const auto limit = RealClock::now() + 30s;
  while (!condition()) {
    if (RealClock::now() > limit) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

double peakOf(const Samples& samples) {
  double peak = 0;
  for (const std::int32_t sample : samples) peak = std::max(peak, std::abs(double(sample)));
  return peak;
}

class Sound : public Handles {
 protected:
  ~Sound() override { device_.purge(); }

  bool awaitEnd() {
    return await([&] { return !device_.isPlaying(); });
  }
  std::string file(const std::string& name) const { return capture_.folder().file(name); }
  DWORD errorOfPlay(const std::string& name) {
    setLastError(0);
    EXPECT_FALSE(device_.play(file(name).c_str()));
    return lastError();
  }

  const qmtest::SoundCapture capture_;
  SoundDevice& device_ = soundDevice();
};

TEST_F(Sound, TonesHaveTheirFrequencyLengthAndSoftEdges) {
  struct Case {
    DWORD hertz, ms;
    double rate;
  };
  for (const Case& c : {Case{37, 400, 48e3},
                        {440, 100, 48e3},
                        {1000, 250, 48e3},
                        {20'000, 50, 48e3},
                        {20'001, 50, 96e3},
                        {32'767, 50, 96e3}}) {
    const auto begin = RealClock::now();
    EXPECT_TRUE(device_.tone(c.hertz, c.ms, nullptr));
    EXPECT_GE(RealClock::now() - begin, std::chrono::milliseconds(c.ms));
    const Samples samples = capture_.samples();
    const double frames = c.rate * c.ms / 1000;
    ASSERT_GE(samples.size(), frames) << c.hertz;
    EXPECT_LE(samples.size(), frames + c.rate * 0.02);
    // The steepest that a sine of this amplitude is, and what rises within 5 ms.
    const double steepest =
        kFullScale / 2 * (2 * std::sin(kPi * c.hertz / c.rate) + kPi / 2 / (0.005 * c.rate));
    int crossings = 0;
    double step = std::abs(double(samples.front()));
    for (std::size_t i = 1; i < samples.size(); ++i) {
      crossings += (samples[i - 1] < 0) != (samples[i] < 0) ? 1 : 0;
      step = std::max(step, std::abs(double(samples[i]) - samples[i - 1]));
    }
    EXPECT_LE(step, steepest) << c.hertz;
    EXPECT_NEAR(crossings, 2.0 * c.hertz * c.ms / 1000, 1 + 0.02 * c.hertz * c.ms / 1000);
    // It rises and falls over some milliseconds.
    for (int i = 0; i < c.rate / 1000; ++i) {
      EXPECT_LT(std::abs(double(samples[i])), kFullScale * 0.06);
      EXPECT_LT(std::abs(double(samples[static_cast<int>(frames) - 1 - i])), kFullScale * 0.06);
    }
  }
}

TEST_F(Sound, VolumeIsThatOfTheEnvironment) {
  const std::pair<const char*, double> cases[] = {
      {nullptr, 50}, {"100", 100}, {"7", 7},     {"0", 0},
      {"101", 50},   {"-1", 50},   {"loud", 50}, {"20 ", 50},
  };
  for (const auto& [text, percent] : cases) {
    if (text != nullptr) setenv("QMUTILS_TONE_VOLUME", text, 1);
    EXPECT_TRUE(device_.tone(1000, 20, nullptr));
    EXPECT_NEAR(peakOf(capture_.samples()), kFullScale * percent / 100, kFullScale / 1000) << text;
  }
}

TEST_F(Sound, TonesThatCannotBeAreRefusedAndShortOnesAreShort) {
  EXPECT_TRUE(device_.tone(1000, 0, nullptr));
  EXPECT_EQ(peakOf(capture_.samples()), 0);
  for (const DWORD ms : {1u, 2u, 9u}) {
    EXPECT_TRUE(device_.tone(1000, ms, nullptr));
    EXPECT_LE(capture_.samples().size(), 48 * (ms + 20));
    EXPECT_GT(peakOf(capture_.samples()), kFullScale / 20);
  }
  capture_.useDevice("nothing");
  EXPECT_FALSE(device_.tone(kLowestTone, 1, nullptr));
  EXPECT_EQ(lastError(), ERROR_BAD_UNIT);
  for (const DWORD hertz : {0u, 36u, 32'768u, 0xFFFFFFFFu}) {
    EXPECT_FALSE(device_.tone(hertz, 10, nullptr));
    EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER) << hertz;
  }
}

TEST_F(Sound, ToneIsCancelledAndItsLengthCostsNothing) {
  const HANDLE cancel = event(false, true), ended = event(true, false);
  EXPECT_TRUE(device_.tone(1000, INFINITE, cancel)) << "signalled before";
  const HANDLE tone = thread([&]() -> DWORD {
    const qmtest::MemoryPeak peak;
    const bool done = device_.tone(1000, INFINITE, cancel);
    EXPECT_LT(peak.bytes(), 100'000U);
    return done && peakOf(capture_.samples()) < kFullScale ? 1 : 0;
  });
  ASSERT_TRUE(await([&] { return !capture_.samples().empty(); }));
  setEvent(cancel);
  EXPECT_EQ(exitCodeOf(tone), 1u);
  closeHandle(ended);
  EXPECT_FALSE(device_.tone(1000, 10, ended));
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
}

TEST_F(Sound, LastsItsTimeOnADeviceThatSwallowsItFaster) {
  const std::string wave = makeWave(capture_.folder(), "minute.wav", 60'000);
  qmtest::FakeClock clock;
  const std::int64_t begin = monotonicNanoseconds();
  const auto elapsed = [&] { return double(monotonicNanoseconds() - begin) * 1e-9; };
  // The player may have looked at the clock just before it was moved, so it is moved on.
  const auto awaitMoving = [&](auto condition) {
    return await([&] {
      clock.advanceMs(1);
      return condition();
    });
  };
  const auto heard = [&] { return double(capture_.samples().size()) / 8000; };
  ASSERT_TRUE(device_.play(wave.c_str()));
  clock.advanceMs(20'000);
  ASSERT_TRUE(awaitMoving([&] { return heard() >= 20; }));
  EXPECT_LE(heard() - elapsed(), 0.5 + elapsed() * 0.001);
  EXPECT_TRUE(device_.isPlaying());
  clock.advanceMs(35'000);
  EXPECT_TRUE(awaitMoving([&] { return !device_.isPlaying(); }));
  EXPECT_GE(elapsed(), 60);
  EXPECT_NEAR(heard(), 60, 0.02);

  std::atomic<double> ended{0};
  const double toneBegin = elapsed();
  const HANDLE tone = thread([&]() -> DWORD {
    const bool done = device_.tone(1000, 30'000, nullptr);
    ended = elapsed();
    return done ? 1 : 0;
  });
  while (ended == 0) {
    clock.advanceMs(50);
    std::this_thread::sleep_for(10us);
  }
  EXPECT_GE(ended - toneBegin, 30);
  EXPECT_EQ(exitCodeOf(tone), 1u);
  EXPECT_NEAR(double(capture_.samples().size()) / 48'000, 30, 0.02);
}

TEST_F(Sound, WaveFilesArriveSampleForSample) {
  struct Case {
    int format, shift, rate, channels;
  };
  const Case cases[] = {
      {SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 24, 8000, 1},
      {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16, 44'100, 2},
      {SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, 8, 96'000, 6},
      {SF_FORMAT_RF64 | SF_FORMAT_PCM_32, 0, 48'000, 2},
      {SF_FORMAT_WAV | SF_FORMAT_FLOAT, 8, 22'050, 2},
      {SF_FORMAT_WAV | SF_FORMAT_DOUBLE, 0, 11'025, 1},
  };
  for (const Case& c : cases) {
    Samples samples(static_cast<std::size_t>(c.rate / 20 * c.channels));
    std::uint32_t random = 1;
    for (std::int32_t& sample : samples) {
      random = random * 1'664'525 + 1'013'904'223;
      sample = static_cast<std::int32_t>(random >> c.shift << c.shift);
    }
    qmtest::writeWave(file("sound.WAV"), c.format, c.rate, c.channels, samples);
    ASSERT_TRUE(device_.play(file("sound.WAV").c_str())) << lastError();
    ASSERT_TRUE(awaitEnd());
    Samples heard = capture_.samples();
    ASSERT_GE(heard.size(), samples.size());
    EXPECT_LE(heard.size(), samples.size() + c.rate * c.channels / 50) << "silence at the end";
    heard.resize(samples.size());
    EXPECT_TRUE(heard == samples) << std::hex << c.format;
  }
}

TEST_F(Sound, EncodedAndExtremeSamplesKeepTheirLoudness) {
  const Samples quiet(400, 0x0100'0000);
  qmtest::writeWave(file("law.wav"), SF_FORMAT_WAV | SF_FORMAT_ULAW, 8000, 1, quiet);
  ASSERT_TRUE(device_.play(file("law.wav").c_str()) && awaitEnd());
  Samples heard = capture_.samples();
  ASSERT_GE(heard.size(), quiet.size());
  EXPECT_NEAR(heard[200], quiet[200], quiet[200] / 20);

  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  const double extremes[] = {0.25, 1.0, 1.5, -1.0, -7.0, nan, 1e300};
  SF_INFO info = {};
  info.samplerate = 8000;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_DOUBLE;
  SNDFILE* const loud = sf_open(file("loud.wav").c_str(), SFM_WRITE, &info);
  sf_write_double(loud, extremes, std::size(extremes));
  sf_close(loud);
  ASSERT_TRUE(device_.play(file("loud.wav").c_str()) && awaitEnd());
  heard = capture_.samples();
  ASSERT_GE(heard.size(), std::size(extremes));
  constexpr std::int32_t most = std::numeric_limits<std::int32_t>::max(), least = -most - 1;
  heard.resize(std::size(extremes));
  EXPECT_EQ(heard, (Samples{1 << 29, most, most, least, least, 0, most}));
}

TEST_F(Sound, ADeviceThatFailsInTheMiddleSaysSo) {
  constexpr DWORD kIoDevice = 1117;  // which ALSA makes of a full disk
  const std::string wave = makeWave(capture_.folder(), "long.wav", 60'000);
  capture_.useDevice("capture:FILE=/dev/full");
  ASSERT_TRUE(device_.play(wave.c_str()));
  EXPECT_TRUE(awaitEnd());
  EXPECT_FALSE(device_.isPlaying());
  EXPECT_EQ(lastError(), kIoDevice);
  EXPECT_TRUE(device_.purge());
  EXPECT_FALSE(device_.tone(1000, 1000, nullptr));
  EXPECT_EQ(lastError(), kIoDevice);
}

TEST_F(Sound, NobodyHangsOnADeviceThatDoes) {
  const std::string wave = makeWave(capture_.folder(), "a.wav", 10);
  ASSERT_EQ(mkfifo(file("fifo").c_str(), 0600), 0);
  capture_.useDevice("capture:FILE=" + file("fifo"));  // opening waits for a reader
  EXPECT_FALSE(device_.play(wave.c_str()));
  EXPECT_EQ(lastError(), ERROR_TIMEOUT);
  EXPECT_FALSE(device_.tone(1000, 10, nullptr));
  EXPECT_EQ(lastError(), ERROR_TIMEOUT);
  const int reader = open(file("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_TRUE(await([&] { return device_.purge(); })) << "it has come back";
  capture_.useDevice("null");
  EXPECT_TRUE(await([&] { return device_.tone(1000, 1, nullptr); }));
  close(reader);
}

TEST_F(Sound, PlaysUntilPurgedOrReplaced) {
  const std::string lasting = makeWave(capture_.folder(), "long.wav", 60'000);
  const std::string brief = makeWave(capture_.folder(), "short.wav", 100);
  EXPECT_TRUE(device_.purge());
  ASSERT_TRUE(device_.play(lasting.c_str()));
  EXPECT_TRUE(device_.isPlaying());
  const auto begin = RealClock::now();
  EXPECT_TRUE(device_.purge());
  EXPECT_LT(RealClock::now() - begin, 2s);
  EXPECT_FALSE(device_.isPlaying());
  EXPECT_LT(capture_.samples().size(), 8000u * 30);

  ASSERT_TRUE(device_.play(lasting.c_str()));
  ASSERT_TRUE(device_.play(brief.c_str()));
  EXPECT_TRUE(device_.isPlaying());
  EXPECT_TRUE(awaitEnd());
  EXPECT_NEAR(double(capture_.samples().size()), 800, 160);
  EXPECT_TRUE(device_.purge());
}

TEST_F(Sound, WhatIsMissingAtTheEndOfAFileIsNotPlayed) {
  makeWave(capture_.folder(), "cut.wav", 100);
  std::filesystem::resize_file(file("cut.wav"), 44 + 2 * 400);
  ASSERT_TRUE(device_.play(file("cut.wav").c_str()) && awaitEnd());
  EXPECT_NEAR(double(capture_.samples().size()), 400, 160);
  makeWave(capture_.folder(), "empty.wav", 0);
  ASSERT_TRUE(device_.play(file("empty.wav").c_str()) && awaitEnd());
  EXPECT_EQ(peakOf(capture_.samples()), 0);
}

TEST_F(Sound, FailuresTellWhy) {
  makeWave(capture_.folder(), "good.wav", 10);
  qmtest::writeFile(file("text.wav"), "no sound");
  qmtest::writeFile(file("nothing.wav"), "");
  qmtest::writeFile(file("header.wav"), qmtest::readFile(file("good.wav")).substr(0, 30));
  qmtest::writeWave(file("other.wav"), SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 8000, 1, Samples(80, 1));
  std::filesystem::create_directory(file("folder.wav"));
  const std::pair<const char*, DWORD> cases[] = {
      {"missing.wav", ERROR_FILE_NOT_FOUND}, {"no/missing.wav", ERROR_PATH_NOT_FOUND},
      {"folder.wav", ERROR_ACCESS_DENIED},   {"text.wav", ERROR_INVALID_DATA},
      {"nothing.wav", ERROR_INVALID_DATA},   {"header.wav", ERROR_INVALID_DATA},
      {"other.wav", ERROR_INVALID_DATA},
  };
  for (const auto& [name, error] : cases) {
    EXPECT_EQ(errorOfPlay(name), error) << name;
    setLastError(0);
    EXPECT_FALSE(isWaveFile(file(name).c_str()));
    EXPECT_EQ(lastError(), error) << name;
  }
  EXPECT_TRUE(isWaveFile(file("good.wav").c_str()));
  EXPECT_FALSE(device_.play(nullptr));
  testing::internal::CaptureStderr();
  capture_.useDevice("nothing:CARD=1");
  EXPECT_EQ(errorOfPlay("good.wav"), ERROR_BAD_UNIT);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(device_.isPlaying());
}

TEST_F(Sound, RunningOutOfMemoryIsError8) {
  const std::string wave = makeWave(capture_.folder(), "good.wav", 10);
  int failures = 0;
  for (int n = 1;; ++n) {
    setLastError(0);
    qmtest::FailingAllocation nth(n);
    const bool played = device_.play(wave.c_str());
    if (!nth.hasFailed()) break;
    EXPECT_FALSE(played) << n;
    EXPECT_EQ(lastError(), ERROR_NOT_ENOUGH_MEMORY) << n;
    ++failures;
  }
  EXPECT_GT(failures, 3);
  EXPECT_TRUE(awaitEnd());
}

TEST_F(Sound, AForkedCopyPlaysNothingAndMayEndWhilePlaying) {
  const std::string wave = makeWave(capture_.folder(), "long.wav", 60'000);
  ASSERT_TRUE(device_.play(wave.c_str()));
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    if (device_.isPlaying() || !device_.purge()) _exit(1);
    capture_.useDevice("null");
    if (!device_.play(wave.c_str()) || !device_.isPlaying()) _exit(2);
    std::exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(device_.isPlaying());
}

}  // namespace
