// Settings in a file that no text editor reads, with a check that nobody has changed it.
#include <cstdio>
#include <sstream>

#include "qmutils/data/QMGUIDEncryptC.h"

int main() {
  std::stringstream settings("[Press room]\nDrum=1030\n");
  QMErrors::QMErrorT result =
      QMGUIDEncryptC::Encode(settings, "example.dat", QMGUIDEncryptC::GetPublicKey());

  std::stringstream decoded;
  if (result == QMErrors::NoError) {
    result = QMGUIDEncryptC::Decode("example.dat", decoded, QMGUIDEncryptC::GetPublicKey());
  }
  std::printf("%s\n%s", QMErrToStr(result), decoded.str().c_str());  // No Error: 0, and the text
  return decoded.str() == settings.str() ? 0 : 1;
}
