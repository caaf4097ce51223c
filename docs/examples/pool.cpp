// Messages as records, through the pool.
#include <cstdio>

#include "qmutils/comms/QMMessageText.h"
#include "qmutils/comms/SvComms.h"

int main() {
  if (SvOpenComms(40) != QMErrors::NoError) return 1;
  char text[256];
  QMErrors::QMErrorT result = QMCreateMessage(3, 12, 40, -1, "go", "page.tif", text, sizeof text);
  if (result == QMErrors::NoError) result = SvSendMessage(text, 2000, 40);

  qm::MessagePacket packet;
  if (result == QMErrors::NoError) result = SvReceiveMessage(text, sizeof text, 500);
  if (result == QMErrors::NoError) result = QMExtractMessagePacket(text, packet);
  SvCloseComms();
  if (result != QMErrors::NoError) return 1;
  std::printf("type %d, code %d: %s %s\n", packet.nType, packet.nCode, packet.pString,
              packet.pQualifier);
  return packet.nCode == 12 ? 0 : 1;
}
