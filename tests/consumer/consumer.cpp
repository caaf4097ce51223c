// Uses one piece of every public floor of the installed library, and fails when a header is
// missing, a name is not exported, or a result is wrong.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "qmutils/app/BeepC.h"
#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/app/QMBrowseC.h"
#include "qmutils/app/QMPlaySoundC.h"
#include "qmutils/app/QMPrintTextC.h"
#include "qmutils/comms/QMCommMsgC.h"
#include "qmutils/comms/QMCommObjectC.h"
#include "qmutils/comms/QMCommObjectPtrC.h"
#include "qmutils/comms/QMMessageText.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/concurrency/QMCriticalSection.h"
#include "qmutils/concurrency/QMEventC.h"
#include "qmutils/concurrency/QMLockC.h"
#include "qmutils/concurrency/QMThreadC.h"
#include "qmutils/concurrency/QMWindowsKeyboardEventC.h"
#include "qmutils/concurrency/QMWindowsKeyboardEventMultiCasterC.h"
#include "qmutils/config/CQMPrefs.h"
#include "qmutils/config/QMHistoryC.h"
#include "qmutils/config/QMIniFileC.h"
#include "qmutils/config/QMReadCfgC.h"
#include "qmutils/data/GuidC.h"
#include "qmutils/data/QMGUIDEncryptC.h"
#include "qmutils/data/QMMixedDataC.h"
#include "qmutils/data/QMXmlC.h"
#include "qmutils/foundation/QMErrorC.h"
#include "qmutils/foundation/QMExceptionC.h"
#include "qmutils/foundation/QMFileUtilsC.h"
#include "qmutils/foundation/QMLogFileC.h"
#include "qmutils/foundation/QMTextFile.h"
#include "qmutils/foundation/QMTime.h"
#include "qmutils/foundation/RealSecondsC.h"
#include "qmutils/imager/CTPImagerUserC.h"
#include "qmutils/imager/EngineClipDataC.h"
#include "qmutils/imager/MachineTransformC.h"
#include "qmutils/imager/QMPlateC.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/sound.h"
#include "qmutils/platform/waitable.h"
#include "qmutils/transport/CQMClientSocket.h"
#include "qmutils/transport/CQMServerConnection.h"
#include "qmutils/transport/CQMServerSocket.h"
#include "qmutils/transport/QMSerialCommsC.h"
#include "qmutils/transport/QMSerialCommsErrorEventC.h"
#include "qmutils/transport/QMSerialCommsEventC.h"
#include "qmutils/windowing/CDC.h"
#include "qmutils/windowing/CString.h"
#include "qmutils_print/CPrinterDC.h"

namespace {

int failures = 0;

void check(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "consumer: %s\n", what);
  ++failures;
}

class CountingThread : public QMThreadC {
 public:
  CountingThread() : QMThreadC("counting", nullptr, INFINITE, 0) {}
  ~CountingThread() override { stop(); }
  QMErrors::QMErrorT run() override {
    counted = 3;
    return QMErrors::NoError;
  }
  int counted = 0;
};

class KeyListener : public IQMWindowsKeyboardEventListener {
 public:
  void OnEvent(IQMEventBase& event) override {
    known = dynamic_cast<QMWindowsKeyboardEventC*>(&event) != nullptr;
  }
  bool known = false;
};

class History : public QMHistoryC {
 public:
  QMErrors::QMErrorT log() {
    const QMErrors::QMErrorT result = Create("history.txt", "text", 1);
    return result == QMErrors::NoError ? LogIt("line") : result;
  }
};

class QuietDevice : public qm::platform::SoundDevice {
 public:
  bool play(const char*) noexcept override { return false; }
  bool isPlaying() noexcept override { return false; }
  bool purge() noexcept override { return true; }
  bool tone(DWORD, DWORD, HANDLE) noexcept override { return ++tones > 0; }
  int tones = 0;
};

class IdleImager : public CTPImagerUserC {
 public:
  IdleImager() : CTPImagerUserC("no such imager", nullptr) {}
  QMErrors::QMErrorT HandleImagerMessage(QMErrors::QMMessagePacketT&) override {
    return QMErrors::NoError;
  }
  void HandleImagerError(const char*) override {}
};

}  // namespace

int main() {
  check(std::strcmp(QMErrToStr(QMErrors::CommandTimedOut), "Command timed out: 2013") == 0,
        "result texts");
  QMErrorC::Stack("main", QMErrors::DiskWriteFailure, "test");
  check(!QMErrorC::IsEmpty(), "error stack");
  QMErrorC::ClearStack();

  QMCriticalSectionC section;
  QMCriticalSectionC::QMCriticalSectionUserC user(&section);
  check(user.EnterCriticalSection("main", 0) == QMErrors::NoError, "critical section");
  CountingThread thread;
  check(thread.start() == QMErrors::NoError && thread.stop() == QMErrors::NoError, "threads");
  check(thread.counted == 3, "thread body");

  QMWindowsKeyboardEventMultiCasterC keys;
  KeyListener listener;
  QMWindowsKeyboardEventC keyDown(MSG{});
  check(keys.AddListener(listener) == QMErrors::NoError &&
            keys.FireEvent(keyDown) == QMErrors::NoError && listener.known &&
            keyDown.IsKindOf(&QMObjectEventC::classQMObjectEventC),
        "events");
  History history;
  QMCString line;
  check(history.log() == QMErrors::NoError &&
            history.GetEnumerator().NextElement(line) == QMErrors::NoError &&
            line.Right(5) == "\tline",
        "history");
  std::remove("history.txt");

  char text[64];
  check(QMCreateMessage(3, 12, 7, -1, "go", "a.job", text, sizeof text) == QMErrors::NoError &&
            std::strcmp(text, "3;12;7;-1;go;a.job") == 0,
        "messages");
  check(SvReceiveMessage(text, sizeof text, 0) == QMErrors::CommandAborted, "pool");
  QMCommObjectPtrC holder;
  std::ostringstream shared;
  check(holder.Attach(new QMCommObjectC("jobs", true)) == QMErrors::NoError &&
            holder.GetObject().Lock("main", 0, nullptr) == QMErrors::NoError &&
            (shared << holder.GetObject()) &&
            shared.str().find("QMCommObjectC(\"jobs\") = { m_pCurrentOwnerName=main") == 0 &&
            holder.GetObject().Unlock() == QMErrors::NoError &&
            holder.Detach() == QMErrors::NoError,
        "shared objects");

  CQMClientSocket client;
  check(client.Send("") == QMErrors::NoError && client.IsConnected(nullptr) == 0 &&
            client.SetHost("127.0.0.1", 1) == QMErrors::NoError &&
            client.stop() == QMErrors::NoError,
        "socket client");
  CQMServerSocket server("consumer", 0, qm::platform::createEvent(false, false), 0);
  CQMServerConnection* const connection =
      new CQMServerConnection(&server, CQMServerSocket::kNoSocket, 0);
  check(connection->CleanUp() == QMErrors::NoError && server.start() == QMErrors::NoError &&
            server.stop() == QMErrors::NoError,
        "socket server");
  QMSerialCommsC serial;
  QMSerialCommsC::QMSerialCommSpecC lineSettings("no such port", 9600, 8, 0, 0, 0, 0, 0);
  std::ostringstream portText, eventText;
  check(serial.open(lineSettings) == QMErrors::FailedToOpenSerialComms, "serial port");
  portText << serial;
  QMSerialCommsEventC lines(MS_CTS_ON);
  QMSerialCommsErrorEventC lineError(QMErrors::CommandTimedOut);
  eventText << static_cast<QMSerialCommsEventBaseC&>(lines) << lineError;
  check(portText.str() == "no such port: could not get comm state." &&
            eventText.str() == "QMSerialCommsEventC: 0x10: MS_CTS_ON, Command timed out: 2013",
        "serial texts");

  QMXmlC root("Root", 0, nullptr);
  std::ostringstream xml;
  xml << root;
  check(xml.str() == "<Root />\r\n", "XML");
  CRect screen(0, 0, 10, 10);
  check(root.PrettyXML(nullptr, 0, &screen) == QMErrors::NullObjectProvided, "drawing");
  std::stringstream plain("plain"), encoded, decoded;
  const GuidC key(QMGUIDEncryptC::GetPublicKey());
  check(key.IsValid() == 1 && QMGUIDEncryptC::Encode(plain, encoded, key) == QMErrors::NoError &&
            QMGUIDEncryptC::Decode(encoded, decoded, key) == QMErrors::NoError &&
            decoded.str() == "plain",
        "encoding");
  const CString usual("default");
  CString setting;
  check(
      QMIniFileC("no such file", 0).Read(QMIniFileC::MAIL, QMIniFileC::SUBJECT, &usual, setting) ==
              QMErrors::NoError &&
          setting == usual,
      "settings");
  check(QMReadCfgC().CloseFile(1) == QMErrors::NoError, "tables of numbers");
  CString folder;
  QMMixedDataC value(CMDFormat::MD_TYPE_DOUBLE | CMDFormat::MD_UNIT_MM, 0, 1);
  check(std::strcmp(value.AToString(folder, 0), "0.0 mm") == 0, "typed values");
  check(QMPlateC().IsPositivePlate() == 0 && MachineTransformC().GetResolution(1) == 0 &&
            EngineClipDataC().m_bClipColor == 0,
        "plates");
  CPdfDC pages("consumer.pdf");
  check(QMPrintTextC().PrintText2("a", &pages, "", "") == QMErrors::NoError &&
            pages.GetPageCount() == 1,
        "printing");
  std::remove("consumer.pdf");
  CPrinterDC printer("no such printer");
  check(printer.StartPage() == 0 && qm::platform::lastError() == ERROR_INVALID_HANDLE, "printer");
  check(CQMAppUtils::GetModulePath(folder, true) == QMErrors::NoError, "module path");
#ifdef CONSUMER_VERSION
  check(CQMAppUtils::GetVersion() == CONSUMER_VERSION, "version data");
#endif
  static char userRegistry[] = "QMUTILS_USER_REGISTRY=consumer.db";
  putenv(userRegistry);
  CQMPrefs prefs("consumer", "1", "Preferences");
  HKEY product = nullptr;
  check(prefs.SaveUsrParam("number", 42u, 0) == QMErrors::NoError &&
            prefs.LoadUsrParam("number", 0u, 0) == 42 &&
            prefs.GetProductKey(&product) == QMErrors::NoError &&
            QMRegistryC::CloseKey(product, 0) == QMErrors::NoError,
        "preferences");
  std::remove("consumer.db");
  qm::platform::setChooserHook([](const qm::platform::ChooserRequest&, std::string& choice) {
    choice = "chosen";
    return DWORD{0};
  });
  CString chosen;
  check(QMBrowseC().BrowseForFile(nullptr, chosen, "", QMBrowseC::FromDesktop, nullptr) ==
                QMErrors::NoError &&
            chosen == "chosen",
        "browsing");
  QuietDevice quiet;
  qm::platform::replaceSoundDevice(&quiet);
  QMPlaySoundC sound("no such file.wav", 1, 1000, 300, 0, 0);
  BeepC beep;
  QMXmlC sounds("Sounds", 0, nullptr);
  check(sound.ToXML(sounds) == QMErrors::NoError &&
            sound.FromXML(*sounds.GetFirstChild()) == QMErrors::NoError &&
            beep.Start(sound) == QMErrors::NoError && beep.SignalKbHit() == QMErrors::NoError &&
            qm::platform::wait(beep.GetThread(), INFINITE) == WAIT_OBJECT_0 &&
            beep.StopCurrentSound() == QMErrors::NoError && quiet.tones == 1,
        "sounds");
  IdleImager imager;
  check(imager.StopImager() == QMErrors::NoError, "imager");
  return failures == 0 ? 0 : 1;
}
