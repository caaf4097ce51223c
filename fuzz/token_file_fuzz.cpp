// Any bytes as a file of numbers, and a few operations on it: the first byte is their number, two
// bytes are one operation. What was written is read back, and a copy that was made before shows
// what it showed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qmutils/config/QMReadCfgC.h"
#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/platform/temporary_file.h"

namespace {

using QMErrors::NoError;

void dropLine(unsigned, int, char*) {}

unsigned silence() { return 0; }

void require(bool holds) {
  if (!holds) std::abort();
}

// No character of theirs comes again in the same token, so that none is made up by what stands
// before it and a part of it.
const char* const kTokens[] = {"A", "1", "XGAIN", "-", "\t ", "\n", ".5"};
constexpr double kValues[] = {0.5, -1234567, 1e300, 0};

struct Shown {
  explicit Shown(QMReadCfgC file) {
    for (const char* token : kTokens) {
      double value = 7;
      const int code = file.ReadToken(token, &value, 1, 0);
      text += std::to_string(code) + " " + std::to_string(value) + ";";
    }
  }
  std::string text;
};

void write(QMReadCfgC& file, unsigned operation, unsigned count, int bContinue) {
  const char* const token = kTokens[operation % std::size(kTokens)];
  require(file.WriteToken(token, kValues, count, bContinue) == NoError);
  if (bContinue != 0) return;
  double values[std::size(kValues)];
  require(file.ReadToken(token, values, count, 0) == NoError);
  for (unsigned i = 0; i < count; ++i) {
    char shown[32];
    std::snprintf(shown, sizeof shown, "%g", kValues[i]);
    require(values[i] == std::strtod(shown, nullptr));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QMLogStreamC hooks(dropLine, nullptr, nullptr, silence);
  if (size == 0) return 0;
  const std::size_t operations = data[0] % 16, head = 1 + 2 * operations;
  if (size < head) return 0;
  const qm::platform::TemporaryFile source;
  std::fwrite(data + head, 1, size - head, source.get());
  std::fflush(source.get());
  QMReadCfgC file;
  require(file.OpenFileName(source.path()) == NoError);
  for (std::size_t i = 0; i < operations; ++i) {
    const unsigned operation = data[1 + 2 * i], how = data[2 + 2 * i];
    const QMReadCfgC copy(file);
    const std::string shown = Shown(copy).text;
    const unsigned count = how >> 1 & 3;
    if ((how & 8) != 0) {
      double values[std::size(kValues)];
      (void)file.ReadToken(kTokens[operation % std::size(kTokens)], values, count, how & 1);
    } else {
      write(file, operation, count, how & 1);
    }
    require(Shown(copy).text == shown);
  }
  return 0;
}
