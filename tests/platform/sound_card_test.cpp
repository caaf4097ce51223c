// Sounds on a card that plays in real time, and what such a card may do in the middle of one.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "qmutils/platform/error.h"
#include "qmutils/platform/sound.h"
#include "tests/platform/Handles.h"
#include "tests/platform/card/Card.h"
#include "tests/support/FakeClock.h"
#include "tests/support/SoundCapture.h"

namespace {

using namespace qm::platform;
using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

class SoundOnCard : public Handles {
 protected:
  SoundOnCard() {
    void* const module = dlopen(TEST_CARD, RTLD_NOW);
    EXPECT_NE(module, nullptr) << dlerror();
    card_ = reinterpret_cast<decltype(&testCard)>(dlsym(module, "testCard"))();
    card_->clock = [] { return monotonicNanoseconds(); };
    card_->speed = 1;
    card_->busy = card_->unplugged = card_->runsDry = false;
    card_->written = card_->heard = 0;
    card_->prepared = card_->started = 0;
    qmtest::writeFile(folder_.file("asound.conf"),
                      "pcm_type.testcard { lib \"" TEST_CARD "\" }\npcm.card { type testcard }\n");
    setenv("ALSA_CONFIG_PATH", folder_.file("asound.conf").c_str(), 1);
    setenv("QMUTILS_SOUND_DEVICE", "card", 1);
  }
  ~SoundOnCard() override {
    device_.purge();
    EXPECT_EQ(card_->open, 0);
    unsetenv("QMUTILS_SOUND_DEVICE");
    unsetenv("ALSA_CONFIG_PATH");
  }

  template <class Condition>
  static bool await(Condition condition) {
    const auto limit = RealClock::now() + 30s;
    while (!condition() && RealClock::now() < limit) std::this_thread::sleep_for(1ms);
    return condition();
  }
  bool startSecond() {
    const std::string wave = qmtest::makeWave(folder_, "second.wav", 1000);
    return device_.play(wave.c_str()) && await([&] { return card_->written > 0; });
  }

  const qmtest::TempFolder folder_;
  qmtest::Card* card_;
  SoundDevice& device_ = soundDevice();
};

TEST_F(SoundOnCard, IsHeardToItsEnd) {
  for (const double speed : {1.0, 0.8, 1.25}) {
    card_->speed = speed;
    for (const unsigned ms : {0u, 1u, 10u, 105u, 400u}) {
      card_->written = card_->heard = 0;
      const auto begin = RealClock::now();
      EXPECT_TRUE(device_.tone(1000, ms, nullptr));
      const std::chrono::duration<double> elapsed = RealClock::now() - begin;
      EXPECT_GE(elapsed.count(), ms / 1000.0 / std::min(speed, 1.0));
      EXPECT_GE(card_->written, ms * 48);
      EXPECT_EQ(card_->heard, card_->written) << ms;
    }
  }
}

TEST_F(SoundOnCard, GoesOnAfterTheCardHasRunDry) {
  ASSERT_TRUE(startSecond());
  card_->runsDry = true;
  EXPECT_TRUE(await([&] { return !device_.isPlaying(); }));
  EXPECT_GE(card_->prepared, 2);
  EXPECT_EQ(card_->started, card_->prepared) << "never without something to play";
  EXPECT_GE(card_->written, 8000u);
  EXPECT_LE(card_->written, 8160u) << "nothing twice";
}

TEST_F(SoundOnCard, EndsWithTheCard) {
  ASSERT_TRUE(startSecond());
  card_->unplugged = true;
  EXPECT_TRUE(await([&] { return !device_.isPlaying(); }));
  EXPECT_TRUE(device_.purge());
  EXPECT_LT(card_->written, 8000u);
  EXPECT_FALSE(device_.tone(1000, 10, nullptr));
  card_->unplugged = false;
  card_->busy = true;
  EXPECT_FALSE(device_.tone(1000, 10, nullptr));
  EXPECT_EQ(lastError(), ERROR_BUSY);
}

TEST_F(SoundOnCard, ACardThatIsStuckKeepsNobody) {
  qmtest::FakeClock clock;
  card_->speed = 0;
  const auto isOver = [&](HANDLE thread) {
    return await([&] {
      clock.advanceMs(100);
      return wait(thread, 0) == WAIT_OBJECT_0;
    });
  };
  const HANDLE lasting =
      thread([&] { return device_.tone(1000, 1000, nullptr) ? 0 : lastError(); });
  EXPECT_TRUE(isOver(lasting));
  EXPECT_EQ(exitCodeOf(lasting), ERROR_TIMEOUT);
  const HANDLE brief = thread([&]() -> DWORD { return device_.tone(1000, 50, nullptr) ? 0 : 1; });
  EXPECT_TRUE(isOver(brief)) << "stuck at its end";
  ASSERT_TRUE(startSecond());
  EXPECT_TRUE(device_.purge());
}

}  // namespace
