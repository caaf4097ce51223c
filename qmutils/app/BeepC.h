// Plays one operator-attention sound at a time on a thread of its own: a wave file, or a tone where
// there is no usable file, repeated as often as its description says.
//
//   BeepC beep;
//   QMPlaySoundC alarm("alarm.wav", QMPlaySoundC::kForever, 1000, 300, 200, 1);
//   beep.Start(alarm);      // copied; returns at once
//   ...
//   beep.SignalKbHit();       // ends it after the present play
//   beep.StopCurrentSound();  // ends it now
//
// Any thread may call the public operations. Results: 0, the thread's codes (1006, 2011), 2001 no
// memory, the lock's codes, or the system's number with bit 29 set (see
// qmutils/platform/sound.h). Failures are logged at level 0, what is being played at level 1.
// Nothing throws.
//
// A device that fails in the middle of a file is logged as one that does not begin, and the tone
// sounds. A copy of a playing object in a forked process is of no use there: make another.
//
// One process plays one file at a time, so with several objects the last one to start a file is
// heard; the others take its sound for theirs. A class derived from this one stops the thread in
// its own destructor, as with every QMThreadC.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "qmutils/app/QMPlaySoundC.h"
#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/concurrency/QMThreadC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

class QMUTILS_API BeepC : public QMThreadC {
 public:
  BeepC();
  /// Ends the sound at once.
  ~BeepC() override;

  /// Ends the sound that plays, at once, and starts with these values: tones, unless Start() of a
  /// description has called this one. `freq` 37 to 32767 Hz; times in milliseconds;
  /// `repeats` may be QMPlaySoundC::kForever. On the sound thread itself, where nothing is ended,
  /// the values are those of the plays to come.
  virtual QMErrors::QMErrorT Start(unsigned int repeats, unsigned int freq, unsigned int mark,
                                   unsigned int space, int bStopOnKbHit);

  /// The thread's body. 0, or why the tone failed.
  QMErrors::QMErrorT run() override;

  /// The same with a description, which is copied and plays once; the copy goes with the end of the
  /// run.
  QMErrors::QMErrorT Start(QMPlaySoundC& sound);

  /// A key was hit: a sound that ends on keys ends after the present play or, in the pause behind
  /// one, after the next. Returns when the present play is over, so a thread that must go on
  /// meanwhile does not call it itself. The lock's code.
  QMErrors::QMErrorT SignalKbHit();

  /// Ends the sound thread, unless called on it, and silences what the platform plays.
  QMErrors::QMErrorT StopCurrentSound();

 protected:
  // For run(), on the sound thread.

  /// Starts the held file. 0; 33536 "Sound file not found"; 2006 "Bad Command Line arguments" for a
  /// name that does not end in ".wav"; an OS code. Logs why not, unless `bQuiet` is non-zero.
  QMErrors::QMErrorT BeepPlaySound(int bQuiet);
  /// True while the held file plays; when it does not, the platform is silenced.
  bool IsPlaying();
  /// True when the file can be opened for reading; false for null.
  bool Exists(const char* path);

 private:
  using SectionUser = QMCriticalSectionC::QMCriticalSectionUserC;

  struct ValuesT {
    unsigned int repeats = 0;
    unsigned int frequency = 0;
    unsigned int mark = 0;
    unsigned int space = 0;
    int stopOnKbHit = 0;
  };

  bool IsOwnThread() const;
  std::unique_lock<std::recursive_mutex> LockStarting();
  QMErrors::QMErrorT PlayAll();
  QMErrors::QMErrorT PlayOnce(bool quiet, ValuesT& values);
  bool PlayFile(bool quiet);
  QMErrors::QMErrorT PlayTone();
  void Pause(DWORD ms) const;
  QMErrors::QMErrorT DropSound();

  ValuesT m_Values;
  // Shared with the run in progress, on whose thread another sound may be started.
  std::shared_ptr<QMPlaySoundC> m_pPlaySound;
  std::shared_ptr<QMPlaySoundC> m_pNextSound;           // of a Start() that is under way
  QMErrors::QMErrorT m_PlayResult = QMErrors::NoError;  // why the file has ended early
  std::atomic<bool> m_bKbHit{false};
  QMCriticalSectionC m_CS;          // guards all of the above
  std::recursive_mutex m_Starting;  // one starts a sound at a time; before m_CS
};
