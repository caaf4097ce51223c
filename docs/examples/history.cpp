// The plates of the day, in a file that keeps the newest ones.
#include <cstdio>

#include "qmutils/config/QMHistoryC.h"

class PlateHistoryC : public QMHistoryC {
 public:
  QMErrors::QMErrorT Open(const char* path) { return Create(path, "job\tplate", 3); }

  QMErrors::QMErrorT PlateDone(const char* job, int plate) {
    QMCString text;
    text.Format("%s\t%d", job, plate);
    return LogIt(text);  // with date and time before it
  }
};

int main() {
  PlateHistoryC plates;
  QMErrors::QMErrorT result = plates.Open("plates.txt");
  for (int plate = 1; plate <= 5 && result == QMErrors::NoError; ++plate) {
    result = plates.PlateDone("A-2006-117", plate);
  }
  std::puts(QMErrToStr(result));  // No Error: 0

  QMHistoryC::HistoryEnumeratorC lines = plates.GetEnumerator();
  int count = 0;
  for (QMCString line; lines.NextElement(line) == QMErrors::NoError; ++count) {
    std::puts(line);  // 11/07/2006, 14:03:07, A-2006-117, 3 with tabs between; then 4 and 5
  }
  return count == 3 ? 0 : 1;
}
