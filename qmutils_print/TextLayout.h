// Text as it lies in a rectangle: fonts, line breaks, tabs, ellipsis, alignment. Rectangles and
// sizes are in device units. Internal to the library. One thread at a time; may throw
// std::bad_alloc.
#pragma once

#include <cairo.h>
#include <pango/pangocairo.h>

#include <memory>
#include <string>
#include <string_view>

#include "qmutils/windowing/CRect.h"

namespace qm {

inline constexpr int kUnitsPerInch = 600;
inline constexpr int kPointsPerInch = 72;
inline constexpr double kPointsPerUnit = 1.0 * kPointsPerInch / kUnitsPerInch;

struct GObjectRelease {
  void operator()(void* object) const noexcept { g_object_unref(object); }
};
template <class T>
using GObjectPtr = std::unique_ptr<T, GObjectRelease>;

class TextLayout {
 public:
  TextLayout();

  /// False, and the former font stays, for a description without a usable size.
  bool setFont(const char* description);
  /// The family that is really used; empty when no font is installed.
  std::string fontFamily() const;
  /// True when that is the one asked for.
  bool isFontInstalled() const;
  /// Of the font, in device units.
  struct Metrics {
    int height = 1;
    int ascent = 1;
    int averageWidth = 1;
    int weight = 400;
    bool italic = false;
  };
  const Metrics& metrics() const { return metrics_; }

  /// False for a text whose lengths would not fit the layout's type.
  bool canLayOut(std::string_view text) const;
  /// The size of a text in a rectangle of that width, by the DT_ bits of `format`. What was laid
  /// out last is remembered, so that drawing what was just measured costs no second layout.
  struct Size {
    LONG width;
    LONG height;
  };
  Size measure(std::string_view text, LONG width, UINT format);
  /// Draws it on a page in points; the height counts from the rectangle's top.
  Size draw(cairo_t* cr, std::string_view text, const CRect& rect, UINT format);

 private:
  void measureFont();
  void layOut(std::string_view text, LONG width, UINT format);
  void setText(std::string_view text, UINT format);
  PangoRectangle extents() const;

  GObjectPtr<PangoFontMap> fonts_;
  GObjectPtr<PangoContext> context_;
  GObjectPtr<PangoLayout> layout_;
  Metrics metrics_;
  // What lies in the layout.
  bool valid_ = false;
  std::string text_;
  LONG width_ = 0;
  UINT format_ = 0;
};

}  // namespace qm
