#include "programs/imager/Drum.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace programs {
namespace {

constexpr double kDefaultResolutionDpi = 1200;
constexpr double kSameResolution = 0.01;  // pages round their resolution

unsigned toPixels(double mm, double dpi) {
  return static_cast<unsigned>(std::lround(mm * dpi / 25.4));
}

/// Where a page begins along one axis; false when it does not fit there.
bool place(double startMm, double dpi, unsigned drum, unsigned page, unsigned& start) {
  if (page > drum) return false;
  start = startMm < 0 ? (drum - page) / 2 : toPixels(startMm, dpi);
  return start <= drum - page;
}

/// Sets or clears the pixels from `first` up to, not including, `last`.
void fill(std::vector<std::uint8_t>& line, unsigned first, unsigned last, bool burnt) {
  for (unsigned x = first; x < last;) {
    if (x % 8 == 0 && last - x >= 8) {
      line[x / 8] = burnt ? 0xFF : 0;
      x += 8;
      continue;
    }
    const auto bit = static_cast<std::uint8_t>(0x80u >> (x % 8));
    if (burnt) {
      line[x / 8] |= bit;
    } else {
      line[x / 8] &= static_cast<std::uint8_t>(~bit);
    }
    ++x;
  }
}

}  // namespace

Failure Drum::layOut(const DrumSettings& settings, unsigned pageWidth, unsigned pageHeight,
                     double pageResolution) {
  settings_ = settings;
  resolution_ = settings.resolutionDpi;
  if (resolution_ == 0) resolution_ = pageResolution > 0 ? pageResolution : kDefaultResolutionDpi;
  if (pageResolution > 0 && std::abs(pageResolution / resolution_ - 1) > kSameResolution) {
    return {QMErrors::ResolutionOutsideValidRange,
            "the page has " + std::to_string(std::lround(pageResolution)) +
                " dpi, the drum runs at " + std::to_string(std::lround(resolution_)),
            ""};
  }
  if (resolution_ > 25400) {
    return {QMErrors::ResolutionOutsideValidRange, "more than 25400 dpi", ""};
  }
  width_ = std::max(1u, toPixels(settings.widthMm, resolution_));
  height_ = std::max(1u, toPixels(settings.heightMm, resolution_));
  if (width_ > kMostPixels || height_ > kMostPixels) {
    return {QMErrors::ResolutionOutsideValidRange,
            "the drum is too large for " + std::to_string(std::lround(resolution_)) + " dpi", ""};
  }
  pageHeight_ = pageHeight;
  if (!place(settings.leftMm, resolution_, width_, pageWidth, left_) ||
      !place(settings.topMm, resolution_, height_, pageHeight, top_)) {
    return {QMErrors::ImageIsTooBigToFitOnThePlate,
            "the page has " + std::to_string(pageWidth) + " x " + std::to_string(pageHeight) +
                " pixels, the drum " + std::to_string(width_) + " x " + std::to_string(height_),
            ""};
  }
  return {};
}

void Drum::expose(unsigned line, const std::vector<std::uint8_t>& pageLine,
                  std::vector<std::uint8_t>& drumLine) const {
  drumLine.assign((std::size_t{width_} + 7) / 8, 0);
  if (takesPageLine(line)) {
    const unsigned shift = left_ % 8;
    std::size_t target = left_ / 8;
    for (const std::uint8_t byte : pageLine) {
      drumLine[target] |= static_cast<std::uint8_t>(byte >> shift);
      // What is shifted out on the right of the last byte is clear, or has its place on the drum.
      if (++target < drumLine.size() && shift != 0) {
        drumLine[target] |= static_cast<std::uint8_t>(byte << (8 - shift));
      }
    }
  }
  if (!settings_.clips) return;
  const bool burnt = settings_.clippedIsExposed;
  const bool wholeLine =
      line < settings_.slowLeadingLines || height_ - 1 - line < settings_.slowTrailingLines;
  if (wholeLine) {
    fill(drumLine, 0, width_, burnt);
    return;
  }
  fill(drumLine, 0, std::min(settings_.fastLeadingPixels, width_), burnt);
  fill(drumLine, width_ - std::min(settings_.fastTrailingPixels, width_), width_, burnt);
}

}  // namespace programs
