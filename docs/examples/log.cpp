// The log stream and the log file.
#include <cstdio>
#include <fstream>
#include <string>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMLogFileC.h"

int main() {
  {
    QMLogFileC file("example.log", true, false, false);  // delete an old one; not daily; no copy
    QMLogStreamC(QMLogFileC::DebugOut, QMLogFileC::SetLogName, QMLogFileC::SetDebugLevel,
                 QMLogFileC::GetDebugLevel);
    QMLogFileC::SetDebugLevel(2);  // errors, warnings and level 1

    qm::logInfo(1, "main(): ", "plate ", 17, " loaded");
    qm::logWarning(0, "main(): ", "the drum is warm");
    qm::logInfo(5, "main(): ", "finer than the debug level, so it costs next to nothing");
  }
  std::ifstream in("example.log");
  bool loaded = false;
  bool finer = false;
  for (std::string line; std::getline(in, line);) {
    std::puts(line.c_str());
    loaded = loaded || line.ends_with(" INFO: main(): plate 17 loaded");
    finer = finer || line.find("finer") != std::string::npos;
  }
  return loaded && !finer ? 0 : 1;
}
