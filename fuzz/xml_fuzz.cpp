// Any bytes into the XML reader: a result in memory proportional to the input, the same one however
// the stream is buffered, and a tree that was read and can be written reads back as the same tree.
// Depth is bounded for the second half only, as the writer indents a blank a level.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "qmutils/data/QMXmlC.h"
#include "tests/support/PiecewiseBuffer.h"

namespace {

class Listener : public QMXmlC::ErrorListenerC {
 public:
  void OnError(const char* text) override { report = text; }
  std::string report;
};

void dropLine(unsigned, int, char*) {}

unsigned silence() { return 0; }

std::size_t depthOf(const std::string& text) {
  std::size_t brackets = 0;
  for (char c : text) brackets += c == '<' ? 1 : 0;
  return brackets;
}

void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QMLogStreamC hooks(dropLine, nullptr, nullptr, silence);
  if (size == 0) return 0;
  const int strict = data[0] & 1;
  const std::size_t piece = data[0] >> 1 & 7;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

  Listener listener, pieceListener;
  QMXmlC tree(nullptr, strict, &listener), pieceTree(nullptr, strict, &pieceListener);
  std::istringstream in(text);
  qmtest::PiecewiseBuffer pieces(text, piece);
  std::istream pieceIn(&pieces);
  const QMErrors::QMErrorT result = tree.FromStream(in);
  require(pieceTree.FromStream(pieceIn) == result);
  require(pieceListener.report == listener.report);
  if (result != QMErrors::NoError) return 0;
  require(text.size() - pieces.left() == static_cast<std::size_t>(in.tellg()));
  if (depthOf(text) > 1000) return 0;

  std::ostringstream first, fromPieces, second;
  if (tree.ToStream(first, 0) != QMErrors::NoError) return 0;  // a strict tree with an empty name
  require(pieceTree.ToStream(fromPieces, 0) == QMErrors::NoError);
  require(fromPieces.str() == first.str());
  QMXmlC again(nullptr, 0, &listener);
  std::istringstream back(first.str());
  require(again.FromStream(back) == QMErrors::NoError);
  require(again.ToStream(second, 0) == QMErrors::NoError);
  require(first.str() == second.str());
  return 0;
}
