// An alarm sound that stands in a settings file and is played until somebody hits a key.
#include <cstdio>

#include "qmutils/app/BeepC.h"
#include "qmutils/data/QMXmlC.h"
#include "qmutils/platform/waitable.h"

int main() {
  QMPlaySoundC plateDone("plate done.wav", 2, 1000, 300, 200, 1);  // or two tones of 300 ms
  QMXmlC settings("Settings", 0, nullptr);
  QMErrors::QMErrorT result = plateDone.ToXML(settings);
  if (result == QMErrors::NoError) result = settings.Save("sounds.xml");

  BeepC beep;
  if (result == QMErrors::NoError) result = beep.Start(plateDone);  // returns at once
  if (result != QMErrors::NoError) {
    std::fprintf(stderr, "%s\n", QMErrToStr(result));
    return 1;
  }
  beep.SignalKbHit();  // where keys are handled: ends it after the present play
  qm::platform::wait(beep.GetThread(), INFINITE);
  return beep.StopCurrentSound() == QMErrors::NoError ? 0 : 1;  // ends it at once
}
