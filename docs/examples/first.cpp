// The README's example: a message through the pool, and a result in words.
#include <cstdio>

#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/QMErrors.h"

int main() {
  QMErrors::QMErrorT result = SvOpenComms(7);  // join the message pool under identifier 7
  if (result == QMErrors::NoError) {
    result = SvSendMessage("3;12;7;-1;go;page.tif", 2000, 7);  // to ourselves
  }
  char text[256] = "";
  if (result == QMErrors::NoError) result = SvReceiveMessage(text, sizeof text, 500);
  std::printf("%s (%s)\n", text, QMErrToStr(result));  // 3;12;7;-1;go;page.tif (No Error: 0)
  SvCloseComms();
  return result == QMErrors::NoError ? 0 : 1;
}
