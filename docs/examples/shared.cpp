// An object that two holders share, and that goes with the last of them.
#include <cstdio>

#include "qmutils/comms/QMCommObjectC.h"
#include "qmutils/comms/QMCommObjectPtrC.h"

class JobListC : public QMCommObjectC {
 public:
  JobListC() : QMCommObjectC("Jobs", true) {}
  ~JobListC() override { std::printf("%d jobs forgotten\n", jobs); }
  int jobs = 0;
};

int main() {
  auto* const list = new JobListC;
  QMCommObjectPtrC spooler, display;
  spooler.Attach(list);
  display.Attach(list);
  if (list->Lock("Spooler", 5000, nullptr) == QMErrors::NoError) {
    list->jobs = 3;
    list->Unlock();
  }
  spooler.Detach();
  display.Detach();  // 3 jobs forgotten
  return 0;
}
