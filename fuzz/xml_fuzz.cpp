// Any bytes into the XML reader: a result in memory proportional to the input, and a tree that was
// read and can be written reads back as the same tree. Depth is bounded for the second half only,
// as the writer indents a blank a level.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "qmutils/data/QMXmlC.h"

namespace {

class Silent : public QMXmlC::ErrorListenerC {
 public:
  void OnError(const char*) override {}
};

void dropLine(unsigned, int, char*) {}

unsigned silence() { return 0; }

std::size_t depthOf(const std::string& text) {
  std::size_t brackets = 0;
  for (char c : text) brackets += c == '<' ? 1 : 0;
  return brackets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QMLogStreamC hooks(dropLine, nullptr, nullptr, silence);
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  Silent listener;
  QMXmlC tree(nullptr, data[0] & 1, &listener);
  std::istringstream in(text);
  if (tree.FromStream(in) != QMErrors::NoError || depthOf(text) > 1000) return 0;
  std::ostringstream first;
  if (tree.ToStream(first, 0) != QMErrors::NoError) return 0;  // a strict tree with an empty name
  QMXmlC again(nullptr, 0, &listener);
  std::istringstream back(first.str());
  if (again.FromStream(back) != QMErrors::NoError) std::abort();
  std::ostringstream second;
  if (again.ToStream(second, 0) != QMErrors::NoError || first.str() != second.str()) std::abort();
  return 0;
}
