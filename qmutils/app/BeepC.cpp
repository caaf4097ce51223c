#include "qmutils/app/BeepC.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/sound.h"
#include "qmutils/platform/thread.h"

using qm::platform::Deadline;
using qm::platform::setLastError;
using qm::platform::soundDevice;
using QMErrors::QMErrorT;

namespace {

constexpr const char* kRun = "BeepC::run(): ";
constexpr const char* kPlaySound = "BeepC::PlaySound(): ";
constexpr const char* kStartSound = "BeepC::Start(QMPlaySoundC): ";
constexpr std::string_view kWaveEnding = ".wav";
constexpr DWORD kPollMs = 200;

const char* nameOf(const QMPlaySoundC& sound) {
  return sound.GetSoundName() != nullptr ? sound.GetSoundName() : "";
}

bool isWaveName(std::string_view name) {
  return name.size() > kWaveEnding.size() &&
         qm::platform::isSameName(name.substr(name.size() - kWaveEnding.size()), kWaveEnding);
}

void warnOfFailure(const char* name, QMErrorT result) {
  qm::logWarning(0, kPlaySound, "::PlaySound() failed for:", name,
                 ", Reason: ", QMErrToStr(result));
}

}  // namespace

BeepC::BeepC() : QMThreadC("BeepC", nullptr, INFINITE, 0) {}

BeepC::~BeepC() { (void)stop(); }

bool BeepC::IsOwnThread() const {
  return IsAlive() && GetThreadID() == qm::platform::currentThreadId();
}

/// Keeps other starters out. Not on the sound thread, whose end another starter may wait for.
std::unique_lock<std::recursive_mutex> BeepC::LockStarting() {
  if (IsOwnThread()) return {};
  return std::unique_lock(m_Starting);
}

QMErrorT BeepC::Start(unsigned int repeats, unsigned int freq, unsigned int mark,
                      unsigned int space, int bStopOnKbHit) {
  const auto starting = LockStarting();
  (void)stop();  // reports by itself; a thread that goes on is left to start()
  {
    SectionUser user(&m_CS);
    const QMErrorT entered = user.EnterCriticalSection("BeepC::Start(): ", INFINITE);
    if (entered != QMErrors::NoError) return entered;
    m_Values = {repeats, freq, mark, space, bStopOnKbHit};
    // Tones are not of a description that was started before; but a run that gives itself other
    // values goes on with its own.
    if (m_pNextSound != nullptr || !IsOwnThread()) m_pPlaySound = std::move(m_pNextSound);
    // Before the thread runs: a key that comes from here on is for this run.
    m_bKbHit = false;
  }
  return start();
}

QMErrorT BeepC::Start(QMPlaySoundC& sound) try {
  const auto starting = LockStarting();
  // Before the end of the run, with which the description that is held goes; it may be this one.
  const auto copy = std::make_shared<QMPlaySoundC>(sound);
  (void)stop();
  if (copy->GetSoundName() == nullptr && sound.GetSoundName() != nullptr) {
    return QMErrors::MemoryAllocationFailed;  // reported by the description
  }
  {
    SectionUser user(&m_CS);
    const QMErrorT entered = user.EnterCriticalSection(kStartSound, INFINITE);
    if (entered != QMErrors::NoError) return entered;
    m_pNextSound = copy;
  }
  const QMErrorT started = Start(copy->m_nRepeats, copy->m_AltBeepFreq, copy->m_AltBeepMark,
                                 copy->m_AltBeepSpace, copy->m_bStopOnKbHit);
  // Without a run nobody else would let go of it.
  if (started != QMErrors::NoError && !IsAlive()) (void)DropSound();
  return started;
} catch (const std::bad_alloc&) {
  (void)stop();
  return qm::logNoMemory(kStartSound);
}

QMErrorT BeepC::SignalKbHit() {
  // Before the wait for the lock: a run that takes the lock again at once would otherwise not see
  // the key for any number of plays.
  m_bKbHit = true;
  SectionUser user(&m_CS);
  return user.EnterCriticalSection("BeepC::SignalKbHit(): ", INFINITE);
}

QMErrorT BeepC::StopCurrentSound() {
  if (IsAlive() && !IsOwnThread()) (void)stop();
  setLastError(ERROR_SUCCESS);  // without a reason it is no failure
  if (soundDevice().purge()) return QMErrors::NoError;
  const QMErrorT result = QMErrors::lastOsError();
  if (result != QMErrors::NoError) {
    qm::logWarning(0, "BeepC::StopCurrentSound(): unable to purge current sound");
  }
  return result;
}

bool BeepC::Exists(const char* path) {
  return path != nullptr && qm::platform::FilePtr(qm::platform::openFile(path, "rb")) != nullptr;
}

QMErrorT BeepC::BeepPlaySound(int bQuiet) {
  const std::shared_ptr<QMPlaySoundC> sound = m_pPlaySound;
  const char* const name = sound != nullptr ? sound->GetSoundName() : nullptr;
  const auto warn = [bQuiet](const auto&... parts) {
    if (bQuiet == 0) qm::logWarning(0, kPlaySound, parts...);
  };
  if (name == nullptr) {
    warn("m_pPlaySound == NULL");
    return QMErrors::SoundFileNotFound;
  }
  if (!Exists(name)) {
    warn("m_pPlaySound->m_pSound(", name, ") does not exist.");
    return QMErrors::SoundFileNotFound;
  }
  if (!isWaveName(name)) {
    warn("not a valid .wav file: ", name);
    return QMErrors::BadCommandLineArguments;
  }
  setLastError(ERROR_GEN_FAILURE);  // of a device that fails without saying why
  if (soundDevice().play(name)) return QMErrors::NoError;
  const QMErrorT result = QMErrors::lastOsError();
  if (bQuiet == 0) warnOfFailure(name, result);
  return result;
}

bool BeepC::IsPlaying() {
  const std::shared_ptr<QMPlaySoundC> sound = m_pPlaySound;
  if (sound == nullptr || !Exists(sound->GetSoundName())) return false;
  setLastError(ERROR_SUCCESS);
  if (soundDevice().isPlaying()) return true;
  m_PlayResult = QMErrors::lastOsError();
  (void)StopCurrentSound();  // reports by itself
  return false;
}

/// Lets go of the descriptions, and of a key that was hit.
QMErrorT BeepC::DropSound() {
  SectionUser user(&m_CS);
  const QMErrorT entered = user.EnterCriticalSection(kRun, INFINITE);
  if (entered != QMErrors::NoError) return entered;
  m_pPlaySound.reset();
  m_pNextSound.reset();
  m_bKbHit = false;
  return QMErrors::NoError;
}

QMErrorT BeepC::run() {
  const QMErrorT played = PlayAll();
  if (played == QMErrors::NoError) (void)StopCurrentSound();  // reports by itself
  const QMErrorT dropped = DropSound();
  return played != QMErrors::NoError ? played : dropped;
}

QMErrorT BeepC::PlayAll() {
  ValuesT values;
  {
    SectionUser user(&m_CS);
    const QMErrorT entered = user.EnterCriticalSection(kRun, INFINITE);
    if (entered != QMErrors::NoError) return entered;
    values = m_Values;
    if (m_pPlaySound != nullptr && m_pPlaySound->m_bEnabled == 0) {
      qm::logInfo(1, kRun, "sound is disabled NOT playing it: ", nameOf(*m_pPlaySound));
      return QMErrors::NoError;
    }
  }
  for (unsigned int plays = 0;
       (values.repeats == QMPlaySoundC::kForever || plays < values.repeats) &&
       !IsEndEventSignalled();
       ++plays) {
    const QMErrorT result = PlayOnce(plays != 0, values);
    if (result != QMErrors::NoError) return result;
    if (m_bKbHit && values.stopOnKbHit != 0) {
      qm::logInfo(1, kRun, "key hit so stopping sound.");
      break;
    }
    // A tone without a length takes no time: it must not take all of the processor's either.
    const bool takesNone = values.mark == 0 && values.space == 0;
    if (!IsEndEventSignalled()) Pause(takesNone ? 1 : values.space);
  }
  return QMErrors::NoError;
}

/// An alertable sleep, in short pieces: whoever stops the thread does not wait for a long space.
void BeepC::Pause(DWORD ms) const {
  const Deadline deadline = Deadline::after(ms);
  DWORD slept;
  do {
    slept = SleepEx(std::min(deadline.remainingMs(), kPollMs), true);
  } while (slept == 0 && !deadline.passed());
}

/// Plays the file to its end, or sounds the tone. Gives the values as they are then.
QMErrorT BeepC::PlayOnce(bool quiet, ValuesT& values) {
  SectionUser user(&m_CS);
  const QMErrorT entered = user.EnterCriticalSection(kRun, INFINITE);
  if (entered != QMErrors::NoError) return entered;
  const bool isPlayed = m_pPlaySound != nullptr && PlayFile(quiet);
  const QMErrorT result = isPlayed ? QMErrors::NoError : PlayTone();
  values = m_Values;
  return result;
}

/// False when the device has not played the file, or not to its end: the tone is needed then.
bool BeepC::PlayFile(bool quiet) {
  const std::shared_ptr<QMPlaySoundC> sound = m_pPlaySound;
  if (BeepPlaySound(quiet ? 1 : 0) != QMErrors::NoError) return false;
  qm::logInfo(1, kRun, "playing sound: ", nameOf(*sound));
  m_PlayResult = QMErrors::NoError;
  while (!IsEndEventSignalled() && IsPlaying()) (void)SleepEx(kPollMs, true);
  if (m_PlayResult == QMErrors::NoError) return true;
  if (!quiet) warnOfFailure(nameOf(*sound), m_PlayResult);
  return false;
}

/// The end of the thread cuts the tone short, so that nobody who stops it waits for a long one.
QMErrorT BeepC::PlayTone() {
  setLastError(ERROR_GEN_FAILURE);  // of a device that fails without saying why
  if (soundDevice().tone(m_Values.frequency, m_Values.mark, GetEndEvent())) {
    return QMErrors::NoError;
  }
  const QMErrorT result = QMErrors::lastOsError();
  qm::logError(kRun, " ", QMErrToStr(result));
  return result;
}
