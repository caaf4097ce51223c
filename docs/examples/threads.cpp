// A worker thread and a critical section.
#include <cstdio>
#include <thread>

#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/concurrency/QMThreadC.h"

class PollerC : public QMThreadC {
 public:
  PollerC() : QMThreadC("Poller", nullptr, INFINITE, 0) {}
  ~PollerC() override { stop(); }  // before the members below are gone

  unsigned polls() {
    QMCriticalSectionC::QMCriticalSectionUserC user(&section_);
    return user.EnterCriticalSection("polls(): ", 1000) == QMErrors::NoError ? polls_ : 0;
  }  // the user's destructor leaves the section

 private:
  QMErrors::QMErrorT run() override {
    while (Sleep(10) == 0) {  // ends early once stop() was called
      QMCriticalSectionC::QMCriticalSectionUserC user(&section_);
      const QMErrors::QMErrorT entered = user.EnterCriticalSection("run(): ", INFINITE);
      if (entered != QMErrors::NoError) return entered;
      ++polls_;
    }
    return QMErrors::NoError;
  }

  QMCriticalSectionC section_;
  unsigned polls_ = 0;
};

int main() {
  PollerC poller;
  const QMErrors::QMErrorT started = poller.start();
  if (started != QMErrors::NoError) {
    std::fprintf(stderr, "%s\n", QMErrToStr(started));
    return 1;
  }
  while (poller.polls() < 3) std::this_thread::yield();
  return poller.stop() == QMErrors::NoError && !poller.IsAlive() ? 0 : 1;
}
