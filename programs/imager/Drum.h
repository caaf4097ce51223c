// The drum: where a page lies on it, and the lines that it carries when the page is exposed, with
// the clipped margins.
#pragma once

#include <cstdint>
#include <vector>

#include "programs/imager/JobDescription.h"

namespace programs {

class Drum {
 public:
  /// Pixels or lines: a picture holds no more along one side.
  static constexpr unsigned kMostPixels = 1'000'000;

  /// Lays out a page of that size and resolution. 578 when the drum cannot run at the resolution,
  /// or it is not that of the page, or gives a plate of more than 1,000,000 pixels along one side;
  /// 33327 when the page does not fit where it is to lie.
  Failure layOut(const DrumSettings& settings, unsigned pageWidth, unsigned pageHeight,
                 double pageResolution);

  unsigned width() const { return width_; }    ///< pixels
  unsigned height() const { return height_; }  ///< lines
  double resolution() const { return resolution_; }
  /// True when this line of the drum takes a line of the page.
  bool takesPageLine(unsigned line) const { return line >= top_ && line < top_ + pageHeight_; }

  /// One line of the drum; `pageLine` is used only when the line takes one.
  void expose(unsigned line, const std::vector<std::uint8_t>& pageLine,
              std::vector<std::uint8_t>& drumLine) const;

 private:
  DrumSettings settings_;
  unsigned width_ = 0;
  unsigned height_ = 0;
  double resolution_ = 0;
  unsigned left_ = 0;
  unsigned top_ = 0;
  unsigned pageHeight_ = 0;
};

}  // namespace programs
