// What sounds cost the processor, on a device that drops everything.
//
// pollOurs: one look whether the held file still plays, as the sound thread takes five times a
// second; core_share is what of one processor that makes. pollPeer: opening and closing a file,
// which the look contains.
// playOurs, playPeer: two seconds of 16-bit stereo at 44.1 kHz, and the same by a plain loop that
// reads and writes blocking in pieces of a tenth of a second and sleeps in between; cpu_per_second
// is the processor time, of all threads, of one second of sound.
#include <alsa/asoundlib.h>
#include <benchmark/benchmark.h>
#include <sndfile.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/app/BeepC.h"
#include "qmutils/platform/sound.h"
#include "qmutils/platform/waitable.h"

namespace {

constexpr int kRate = 44'100;
constexpr int kPollsPerSecond = 5;
constexpr int kShortSeconds = 2;
constexpr int kLongSeconds = 120;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "sound_bench: %s failed\n", what);
  std::abort();
}

double processSeconds() {
  timespec time;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// A folder with the sound system's configuration and the files; removed at the end.
class Files {
 public:
  Files() {
    char name[] = "/tmp/sound_bench_XXXXXX";
    if (mkdtemp(name) == nullptr) fail("mkdtemp");
    folder_ = name;
    std::ofstream(file("asound.conf")) << "pcm.null { type null }\n";
    setenv("ALSA_CONFIG_PATH", file("asound.conf").c_str(), 1);
    setenv("QMUTILS_SOUND_DEVICE", "null", 1);
    write("short.wav", kShortSeconds);
    write("long.wav", kLongSeconds);
  }
  ~Files() {
    for (const char* name : {"asound.conf", "short.wav", "long.wav"}) unlink(file(name).c_str());
    rmdir(folder_.c_str());
  }
  std::string file(const char* name) const { return folder_ + "/" + name; }

 private:
  void write(const char* name, int seconds) const {
    SF_INFO info = {};
    info.samplerate = kRate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* const out = sf_open(file(name).c_str(), SFM_WRITE, &info);
    if (out == nullptr) fail("sf_open");
    const std::vector<short> second(2 * kRate, 1000);
    for (int i = 0; i < seconds; ++i) sf_write_short(out, second.data(), 2 * kRate);
    sf_close(out);
  }

  std::string folder_;
};

const Files* files = nullptr;

/// Measures looks at a file that plays.
class PolledC : public BeepC {
 public:
  static constexpr int kPolls = 1000;

  ~PolledC() override { (void)stop(); }
  QMErrors::QMErrorT run() override {
    if (BeepPlaySound(0) != QMErrors::NoError) fail("playing");
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kPolls; ++i) {
      if (!IsPlaying()) fail("a sound that ended early");
    }
    seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return StopCurrentSound();
  }
  /// Of one look.
  double seconds() const { return seconds_ / kPolls; }

 private:
  double seconds_ = 0;
};

void pollOurs(benchmark::State& state) {
  QMPlaySoundC sound(files->file("long.wav").c_str(), 1, 1000, 300, 0, 0);
  double total = 0;
  for (auto _ : state) {
    PolledC beep;
    if (beep.Start(sound) != QMErrors::NoError) fail("Start");
    if (qm::platform::wait(beep.GetThread(), INFINITE) != WAIT_OBJECT_0) fail("wait");
    state.SetIterationTime(beep.seconds());
    total += beep.seconds();
  }
  state.counters["core_share"] = total / static_cast<double>(state.iterations()) * kPollsPerSecond;
}

void pollPeer(benchmark::State& state) {
  const std::string name = files->file("long.wav");
  for (auto _ : state) {
    std::FILE* const file = std::fopen(name.c_str(), "rb");
    if (file == nullptr) fail("fopen");
    std::fclose(file);
  }
}

void playOnceOurs() {
  qm::platform::SoundDevice& device = qm::platform::soundDevice();
  if (!device.play(files->file("short.wav").c_str())) fail("play");
  while (device.isPlaying()) std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

void playOncePeer() {
  SF_INFO info = {};
  SNDFILE* const in = sf_open(files->file("short.wav").c_str(), SFM_READ, &info);
  snd_pcm_t* pcm = nullptr;
  if (in == nullptr || snd_pcm_open(&pcm, "null", SND_PCM_STREAM_PLAYBACK, 0) < 0 ||
      snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 2, kRate, 1,
                         200'000) < 0) {
    fail("the peer's set-up");
  }
  std::vector<short> piece(2 * kRate / 10);
  for (sf_count_t got; (got = sf_readf_short(in, piece.data(), kRate / 10)) > 0;) {
    if (snd_pcm_writei(pcm, piece.data(), static_cast<snd_pcm_uframes_t>(got)) < 0) fail("writei");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  snd_pcm_drain(pcm);
  snd_pcm_close(pcm);
  sf_close(in);
}

template <void (*playOnce)()>
void play(benchmark::State& state) {
  const double before = processSeconds();
  for (auto _ : state) playOnce();
  const double seconds = kShortSeconds * static_cast<double>(state.iterations());
  state.counters["cpu_per_second"] = (processSeconds() - before) / seconds;
}

BENCHMARK(pollOurs)->UseManualTime()->Iterations(20);
BENCHMARK(pollPeer);
BENCHMARK(play<playOnceOurs>)->Name("playOurs")->Iterations(1)->UseRealTime();
BENCHMARK(play<playOncePeer>)->Name("playPeer")->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // As in a program that logs errors only.
  const QMLogStreamC hooks([](unsigned, int, char*) {}, nullptr, nullptr, [] { return 1u; });
  const Files made;
  files = &made;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
