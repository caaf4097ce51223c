// An imager that behaves as its profile says: "normal", "silent" (never reports that it has
// started), "dead" (ends at once), "deaf" (ignores the request to stop). On command 98 it sends 20
// messages and dies of a signal, on command 97 it sends a type 7 message back with the text it was
// given, on an expose command one with the job file's line.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "qmutils/comms/QMMessageText.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/imager/ImagerProtocol.h"
#include "qmutils/platform/file.h"

using namespace qm::imager;

namespace {

unsigned short parentId = 0;
unsigned short ownId = 0;

void send(int type, int code, const std::string& text) {
  char message[256];
  QMCreateMessage(type, code, ownId, 0, text.substr(0, 200).c_str(), "", message, sizeof message);
  SvSendMessage(message, 5000, parentId);
}

std::string firstLine(const char* path) {
  std::ifstream in(qm::platform::nativePath(path));
  std::string line;
  std::getline(in, line);
  return line;
}

/// False when the imager is to end.
bool handle(const QMErrors::QMMessagePacketT& packet, const std::string& profile) {
  if (packet.nType == kTypeReply && packet.nCode == kCodeWhoAmI) {
    send(7, kCodeWhoAmI, packet.pString);
  } else if (packet.nType == kTypeReply) {
    send(7, packet.nCode, std::string(packet.pString) + "/" + std::to_string(packet.nVal));
  } else if (packet.nCode == kCodeStop) {
    if (profile == "deaf") return true;
    send(kTypeProgress, 1, "late progress");
    send(kTypeError, 2, "late error");
    return false;
  } else if (packet.nCode == kCodeExpose) {
    const std::string line = firstLine(packet.pString);
    qm::platform::deleteFile(packet.pString);
    send(7, packet.nVal, line.substr(0, line.find(" -pr ")));
  } else if (packet.nCode == 98) {
    for (int i = 1; i <= 20; ++i) send(7, 98, std::to_string(i));
    std::raise(SIGKILL);
  } else if (packet.nCode == 97) {
    send(7, 97, packet.pString);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string profile;
  for (int i = 1; i + 1 < argc; ++i) {
    const unsigned short number = static_cast<unsigned short>(std::atoi(argv[i + 1]));
    if (std::strcmp(argv[i], "-pid") == 0) parentId = number;
    if (std::strcmp(argv[i], "-id") == 0) ownId = number;
    if (std::strcmp(argv[i], "-pr") == 0) profile = argv[i + 1];
  }
  if (profile == "dead" || SvOpenComms(ownId) != QMErrors::NoError) return 3;
  if (profile != "silent") {
    send(kTypeReply, kCodeStarted, "");
    send(kTypeReply, kCodeWhoAmI, "");
  }
  for (;;) {
    char text[256];
    const QMErrors::QMErrorT received = SvReceiveMessage(text, sizeof text, 60000);
    if (received != QMErrors::NoError) return 4;  // nobody commands this imager any more
    qm::MessagePacket packet;
    if (QMExtractMessagePacket(text, packet) == QMErrors::NoError && !handle(packet, profile)) {
      return 0;
    }
  }
}
