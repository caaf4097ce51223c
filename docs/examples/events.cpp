// Events and those who want to know of them: once with the library's keyboard messages, once with
// events and listeners of a program's own.
#include <cstdio>

#include "qmutils/concurrency/QMObjectEventC.h"
#include "qmutils/concurrency/QMWindowsKeyboardEventC.h"
#include "qmutils/concurrency/QMWindowsKeyboardEventMultiCasterC.h"

class KeyPrinterC : public IQMWindowsKeyboardEventListener {
 public:
  void OnEvent(IQMEventBase& event) override {
    const auto* key = dynamic_cast<const QMWindowsKeyboardEventC*>(&event);
    if (key == nullptr) return;
    const MSG message = *key;
    std::printf("key %u\n", static_cast<unsigned>(message.wParam));
    ++count;
  }
  int count = 0;
};

class PlateDoneC : public QMObjectEventC {
 public:
  explicit PlateDoneC(int plate) : plate(plate) {}
  const int plate;
};

class IPlateListener {
 public:
  virtual ~IPlateListener() = default;
  virtual void OnEvent(IQMEventBase& event) = 0;
};

class PlateCounterC : public IPlateListener {
 public:
  void OnEvent(IQMEventBase& event) override {
    if (auto* done = dynamic_cast<PlateDoneC*>(&event)) last = done->plate;
  }
  int last = 0;
};

int main() {
  QMWindowsKeyboardEventMultiCasterC keys;
  KeyPrinterC printer;
  keys.AddListener(printer);
  MSG message{};
  message.message = WM_KEYDOWN;
  message.wParam = 65;
  QMWindowsKeyboardEventC event(message);
  keys.FireEvent(event);  // key 65
  keys.RemoveListener(printer);

  QMEventMulticasterC<IPlateListener> plates;
  PlateCounterC counter;
  plates.AddListener(counter);
  PlateDoneC done(17);
  plates.FireEvent(done);
  std::printf("plate %d\n", counter.last);  // plate 17
  return printer.count == 1 && counter.last == 17 ? 0 : 1;
}
