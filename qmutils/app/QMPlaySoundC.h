// The description of an operator-attention sound: a wave file, or the tone that stands in for it,
// how often it is played, and what ends it. BeepC plays it; settings hold it as an XML element.
//
//   QMPlaySoundC alarm("alarm.wav", 0xFFFFFFFF, 1000, 300, 200, 1);   // until a key is hit
//   alarm.ToXML(settings);
//
// A value of one thread at a time; copies have a name of their own. Nothing throws. Where there is
// no memory for a name it is logged: a new object has no name then, an assignment and
// SetSoundName() leave all as it was.
#pragma once

#include <memory>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMStringStream.h"
#include "qmutils/platform/export.h"

class QMXmlC;

class QMUTILS_API QMPlaySoundC {
 public:
  static constexpr unsigned kForever = 0xFFFFFFFFu;

  /// `sound` is copied (null: tones only); times in milliseconds, `freq` in hertz. Enabled.
  QMPlaySoundC(const char* sound, unsigned int repeats, unsigned int freq, unsigned int mark,
               unsigned int space, int bStopOnKbHit);
  QMPlaySoundC(const QMPlaySoundC& other);
  QMPlaySoundC& operator=(const QMPlaySoundC& other);
  ~QMPlaySoundC() = default;

  /// Null leaves no name. 0 or 2001.
  QMErrors::QMErrorT SetSoundName(const char* name);
  /// The stream's text up to the first NUL; an empty one leaves no name. 2001 also for a stream
  /// that has lost text for want of memory.
  QMErrors::QMErrorT SetSoundName(QMstrstream& name);
  /// Null when there is none; valid until the name is changed.
  const char* GetSoundName() const { return m_pSound.get(); }

  /// Appends an element "QMPlaySoundC" to `parent`. 0, or 2001 with nothing appended. A name with a
  /// double quote in it cannot be read back from a file.
  QMErrors::QMErrorT ToXML(QMXmlC& parent) const;
  /// Takes what the element has; the rest stays. 0; 2101 "Invalid object name" for another element;
  /// 2123 "Invalid object data" when a number could not be read, which then stays as well; 2001.
  /// What could be read is taken in the last two cases too.
  QMErrors::QMErrorT FromXML(const QMXmlC& element);

 private:
  std::unique_ptr<char[]> m_pSound;

 public:
  unsigned int m_nRepeats;      ///< number of plays; kForever: until stopped
  unsigned int m_AltBeepFreq;   ///< hertz
  unsigned int m_AltBeepMark;   ///< duration of the tone, ms
  unsigned int m_AltBeepSpace;  ///< pause after each play, of a file too, ms
  int m_bEnabled = 1;           ///< 0: neither file nor tone
  int m_bStopOnKbHit;           ///< non-zero: a key ends the repetition
};
