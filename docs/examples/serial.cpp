// A question to a device at a serial port, whose modem lines are watched meanwhile.
//
// The argument names the port; without one it is COM99, which no machine has.
#include <cstdio>
#include <iostream>

#include "qmutils/transport/QMSerialCommsC.h"
#include "qmutils/transport/QMSerialCommsEventC.h"

class LinesC : public IQMSerialCommsEventListener {
 public:
  void OnEvent(IQMEventBase& event) override {
    if (auto* lines = dynamic_cast<QMSerialCommsEventC*>(&event)) std::cout << *lines << '\n';
  }
};

int main(int argc, char** argv) {
  const char* const name = argc > 1 ? argv[1] : "COM99";
  QMSerialCommsC port;
  QMSerialCommsC::QMSerialCommSpecC settings(name, 9600, 8, 0, 0, 2, 4096, 4096);  // 8N1, rts/cts
  QMErrors::QMErrorT result = port.open(settings);
  if (result == QMErrors::NoError) {
    LinesC lines;
    port.SetComEventDebounceTimeOutMS(50);
    port.AddCommsEventListener(lines);  // told of the present state at once
    port.SetOutputTimeout(1000);
    port << "STATUS\r";
    int byte = 0;
    while ((result = port.getTimed(byte, 500, nullptr)) == QMErrors::NoError) std::putchar(byte);
    port.RemoveCommsEventListener(lines);
  }
  std::printf("%s\n", QMErrToStr(result));  // Failed to open serial comms: 316
  return 0;
}
