#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iterator>
#include <string>
#include <thread>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/app/BeepC.h"
#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/program.h"
#include "qmutils/platform/sound.h"
#include "qmutils/platform/standard_streams.h"
#include "qmutils/platform/waitable.h"

namespace programs {
namespace {

constexpr DWORD kLookMs = 20;                  // between two looks whether the sound has ended
constexpr long long kLongest = 4'294'967'295;  // ms

struct Options {
  std::string file;
  bool hasFile = false;
  long long hertz = 1000;
  long long markMs = 300;
  long long spaceMs = 200;
  long long repeats = 1;
  unsigned level = 0;
};

/// Remembers why it has ended.
class SoundC : public BeepC {
 public:
  ~SoundC() override { (void)stop(); }
  QMErrors::QMErrorT result() const { return m_Result; }

 private:
  QMErrors::QMErrorT run() override {
    const QMErrors::QMErrorT result = BeepC::run();
    m_Result = result;
    return result;
  }

  std::atomic<QMErrors::QMErrorT> m_Result{QMErrors::NoError};
};

/// Notes whether a tone has sounded, and hands everything on.
class NotingDevice : public qm::platform::SoundDevice {
 public:
  NotingDevice()
      : device_(qm::platform::soundDevice()), former_(qm::platform::replaceSoundDevice(this)) {}
  ~NotingDevice() override { qm::platform::replaceSoundDevice(former_); }
  bool hasToned() const { return hasToned_; }

  bool play(const char* waveFile) noexcept override { return device_.play(waveFile); }
  bool isPlaying() noexcept override { return device_.isPlaying(); }
  bool purge() noexcept override { return device_.purge(); }
  bool tone(DWORD hertz, DWORD milliseconds, HANDLE cancel) noexcept override {
    hasToned_ = true;
    return device_.tone(hertz, milliseconds, cancel);
  }

 private:
  qm::platform::SoundDevice& device_;
  qm::platform::SoundDevice* const former_;
  std::atomic<bool> hasToned_{false};
};

/// Waits until the sound has ended, or somebody interrupts. A key at the terminal is passed on.
void waitForEnd(SoundC& sound) {
  const qm::platform::KeyByKey keys;
  bool takesKeys = keys.takesKeys();
  std::thread signaller;  // as it waits until the present play is over
  while (sound.IsAlive() && !qm::platform::interrupted()) {
    if (!takesKeys) {
      (void)qm::platform::wait(sound.GetThread(), kLookMs);
      continue;
    }
    char discarded[64];  // what follows one key is not for the shell either
    const long count = qm::platform::readStandardInput(discarded, sizeof discarded, kLookMs);
    takesKeys = count != 0;
    if (count > 0 && !signaller.joinable()) {
      signaller = std::thread([&sound] { (void)sound.SignalKbHit(); });
    }
  }
  endThread(sound);
  if (signaller.joinable()) signaller.join();
}

int play(const Options& options) {
  showLogLines(options.level);
  qm::platform::noteInterrupts();
  const NotingDevice device;
  SoundC sound;
  QMPlaySoundC description(
      options.hasFile ? options.file.c_str() : nullptr, static_cast<unsigned>(options.repeats),
      static_cast<unsigned>(options.hertz), static_cast<unsigned>(options.markMs),
      static_cast<unsigned>(options.spaceMs), 1);
  const QMErrors::QMErrorT started =
      options.hasFile ? sound.Start(description)
                      : sound.Start(description.m_nRepeats, description.m_AltBeepFreq,
                                    description.m_AltBeepMark, description.m_AltBeepSpace, 1);
  if (started != QMErrors::NoError) return kFailure;  // the reason is in the log
  waitForEnd(sound);
  if (qm::platform::interrupted()) return kInterrupted;
  // Who names a file wants to know that it was not played, which the log has explained.
  const bool isOther = options.hasFile && device.hasToned();
  return sound.result() == QMErrors::NoError && !isOther ? kSuccess : kFailure;
}

/// Takes an option and its value; what is wrong with it, or an empty text.
std::string takeOption(const Arguments& arguments, std::size_t& i, bool wantsFile,
                       Options& options) {
  const std::string& name = arguments[i];
  if (wantsFile && !options.hasFile && !name.starts_with("-")) {
    options.file = name;
    options.hasFile = true;
    return {};
  }
  constexpr const char* kNames[] = {"--freq", "--mark", "--space", "--repeats", "--log"};
  if (std::find(std::begin(kNames), std::end(kNames), name) == std::end(kNames)) {
    return "unknown argument '" + name + "'";
  }
  std::string value;
  if (!takeValue(arguments, i, value)) return name + " wants a value";
  bool fits = false;
  if (name == "--freq") {
    fits = parseNumber(value, static_cast<long long>(qm::platform::kLowestTone),
                       static_cast<long long>(qm::platform::kHighestTone), options.hertz);
  } else if (name == "--mark") {
    fits = parseNumber(value, 0LL, kLongest, options.markMs);
  } else if (name == "--space") {
    fits = parseNumber(value, 0LL, kLongest, options.spaceMs);
  } else if (name == "--repeats") {
    // All ones have a word of their own.
    fits = parseNumber(value, 0LL, kLongest - 1, options.repeats);
    if (value == "forever") {
      options.repeats = QMPlaySoundC::kForever;
      fits = true;
    }
  } else if (!parseLogLevel(value, options.level)) {
    return kLogLevelWanted;
  } else {
    fits = true;
  }
  return fits ? std::string() : "'" + value + "' is nothing for " + name;
}

std::string takeOptions(const Arguments& arguments, bool wantsFile, Options& options) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string complaint = takeOption(arguments, i, wantsFile, options);
    if (!complaint.empty()) return complaint;
  }
  return {};
}

int runBeep(const Arguments& arguments) {
  Options options;
  const std::string complaint = takeOptions(arguments, false, options);
  return complaint.empty() ? play(options) : usageError(kBeepCommand, complaint);
}

/// Before anything sounds: who names a file does not want to hear a tone in its place.
std::string whyNotPlayable(const std::string& file) {
  if (!qm::platform::isWaveFile(file.c_str())) return QMErrToStr(QMErrors::lastOsError());
  const std::string ending = file.size() > 4 ? file.substr(file.size() - 4) : std::string();
  return qm::platform::isSameName(ending, ".wav") ? std::string() : "its name must end in .wav";
}

int runPlay(const Arguments& arguments) {
  Options options;
  const std::string complaint = takeOptions(arguments, true, options);
  if (!complaint.empty()) return usageError(kPlayCommand, complaint);
  if (options.file.empty()) return usageError(kPlayCommand, "no file given");
  const std::string reason = whyNotPlayable(options.file);
  if (reason.empty()) return play(options);
  std::fprintf(stderr, "testtool play: %s: %s\n", options.file.c_str(), reason.c_str());
  return kFailure;
}

}  // namespace

const Command kBeepCommand = {
    "beep", "sound a tone",
    "usage: testtool beep [OPTIONS]\n"
    "Sounds a tone, as often as asked. At a terminal any key ends it after the present tone, or "
    "in\n"
    "a pause after the next; Ctrl-C ends it at once.\n"
    "  --freq HZ       37 to 32767 (1000)\n"
    "  --mark MS       how long a tone is (300)\n"
    "  --space MS      the pause after each (200)\n"
    "  --repeats N     how many tones, or 'forever' (1)\n"
    "  --log LEVEL     print the library's log lines up to this level (0: errors and warnings)\n"
    "The environment variable QMUTILS_SOUND_DEVICE names the ALSA device (default),\n"
    "QMUTILS_TONE_VOLUME is the volume in percent (50).\n",
    runBeep};

const Command kPlayCommand = {
    "play", "play a wave file",
    "usage: testtool play FILE.wav [OPTIONS]\n"
    "Plays a wave file, as often as asked. At a terminal any key ends it after the present play, "
    "or\n"
    "in a pause after the next; Ctrl-C ends it at once.\n"
    "  --repeats N     how often, or 'forever' (1)\n"
    "  --space MS      the pause after each play (200)\n"
    "  --freq HZ       the tone that stands in when the file cannot be played, 37 to 32767 (1000)\n"
    "  --mark MS       how long that is (300)\n"
    "  --log LEVEL     print the library's log lines up to this level (0: errors and warnings)\n"
    "The environment variable QMUTILS_SOUND_DEVICE names the ALSA device (default),\n"
    "QMUTILS_TONE_VOLUME is the volume of tones in percent (50). A file whose name begins with "
    "'-'\n"
    "is written as ./-FILE.wav.\n",
    runPlay};

}  // namespace programs
