// Results and the error stack.
#include <cstdio>
#include <memory>
#include <string>

#include "qmutils/foundation/QMErrorC.h"
#include "qmutils/foundation/QMFileUtilsC.h"

QMErrors::QMErrorT loadPlate(const char* path) {
  if (QMFileUtilsC::FileExists(path) == 0) {
    QMErrorC::Stack("loadPlate(): ", QMErrors::UnableToFindFile, path);
    return QMErrors::UnableToFindFile;
  }
  return QMErrors::NoError;
}

int main() {
  const QMErrors::QMErrorT result = loadPlate("no such plate");
  std::puts(QMErrToStr(result));                    // Unable to find file: 1014
  std::puts(QMErrToStr(QMErrors::fromOsError(5)));  // Error: 5 (0x5) Access is denied.
  const std::unique_ptr<char[]> story(QMErrorC::GetStack()->ToString(false, true));
  std::fputs(story != nullptr ? story.get() : "", stdout);  // the story; the stack is then empty
  return result == QMErrors::UnableToFindFile && QMErrorC::IsEmpty() ? 0 : 1;
}
