// Drawing a tree as text.
#include <algorithm>
#include <limits>
#include <new>
#include <string>
#include <string_view>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/data/XmlWriter.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/windowing/CDC.h"

namespace {

using QMErrors::NoError;
using QMErrors::QMErrorT;

/// Draws each line as soon as it is complete, and is full when the rectangle is.
class DrawingOutput : public qm::XmlOutput {
 public:
  DrawingOutput(CDC& dc, CRect& rect) : dc_(dc), rect_(rect) {
    TEXTMETRIC metrics{};
    if (!dc_.GetTextMetrics(&metrics)) fail();
    lineHeight_ = std::max<LONG>(metrics.tmHeight, 1);  // drawing ends also with a broken font
    // No character is narrower than a unit, none longer than four bytes: what is beyond is cut.
    longestLine_ = 4 * static_cast<std::size_t>(std::max<LONG>(rect_.Width(), 0));
    full_ = full_ || rect_.top >= rect_.bottom;
  }

  /// Draws a last line without an end, and gives the device's failure if there was one.
  QMErrorT finish() {
    if (!line_.empty() && !isFull()) drawLine();
    return failure_;
  }

 private:
  void take(std::string_view piece) override {
    while (!isFull()) {
      const std::size_t lineFeed = piece.find('\n');
      const std::string_view part = piece.substr(0, lineFeed);
      line_ += part.substr(0, longestLine_ - line_.size());
      if (lineFeed == std::string_view::npos) return;
      drawLine();
      piece.remove_prefix(lineFeed + 1);
    }
  }

  void drawLine() {
    if (line_.ends_with('\r')) line_.pop_back();
    const LONG bottom = rect_.top + std::min(lineHeight_, rect_.Height());
    CRect place(rect_.left, rect_.top, rect_.right, bottom);
    const char* const text = line_.c_str();
    // Devices give no height for an empty text, which would look like a failure.
    if (*text != '\0' &&
        dc_.DrawText(text, &place, DT_SINGLELINE | DT_EXPANDTABS | DT_NOPREFIX) <= 0) {
      fail();
      return;
    }
    // The last line may reach below the rectangle, but not below all coordinates.
    constexpr LONG kLowest = std::numeric_limits<LONG>::max();
    rect_.top = rect_.top <= kLowest - lineHeight_ ? rect_.top + lineHeight_ : kLowest;
    full_ = rect_.top >= rect_.bottom;
    line_.clear();
  }

  void fail() {
    const DWORD reason = qm::platform::lastError();
    failure_ = QMErrors::fromOsError(reason != 0 ? reason : ERROR_GEN_FAILURE);
    full_ = true;
    qm::logError("QMXmlC::PrettyXML(): ", QMErrToStr(failure_));
  }

  CDC& dc_;
  CRect& rect_;
  LONG lineHeight_;
  std::size_t longestLine_;
  std::string line_;
  QMErrorT failure_ = NoError;
};

}  // namespace

QMErrorT QMXmlC::PrettyXML(CDC* dc, unsigned indent, CRect* rect) const try {
  if (dc == nullptr || rect == nullptr) return QMErrors::NullObjectProvided;
  DrawingOutput out(*dc, *rect);
  const QMErrorT written = qm::XmlWriter(out).write(*this, indent);
  const QMErrorT drawn = out.finish();
  return drawn != NoError ? drawn : written;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}
