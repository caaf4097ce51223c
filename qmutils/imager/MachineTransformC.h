// Converts between lengths and the engine's pixels and lines at the selected resolution.
//
// Pixels lie around the drum, lines along its axis; each axis has an array of resolutions in dots
// per inch, one entry for each resolution that can be selected. The arrays belong to the caller and
// must outlive the object. `axis` is non-zero for pixels and 0 for lines.
//
// Where no resolution is selected (no arrays, or an index behind their end) the resolution is 0:
// lengths then come out infinite (or not-a-number for 0), pixels as 0. Pixels and lines that do not
// fit 32 bits become the nearest number, negative ones 0. Values; one thread at a time.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

class QMUTILS_API MachineTransformC {
 public:
  MachineTransformC(const double* const pixelResolutions = nullptr,
                    const double* const lineResolutions = nullptr, unsigned count = 0) noexcept;
  MachineTransformC(const MachineTransformC&) noexcept = default;
  MachineTransformC& operator=(const MachineTransformC&) noexcept = default;
  virtual ~MachineTransformC();

  /// Replaces the arrays; the index stays. 0.
  QMErrors::QMErrorT Set(const double* const pixelResolutions, const double* const lineResolutions,
                         unsigned count) noexcept;
  /// Selects by index, which is not checked. 0.
  QMErrors::QMErrorT SetResolution(unsigned index) noexcept;
  /// Selects the first entry of the axis that is exactly `dpi`; else 578 "Resolution outside valid
  /// range" and the index stays.
  QMErrors::QMErrorT SetResolution(double dpi, int axis) noexcept;

  // Dots per inch.
  double GetResolution(int axis) const noexcept { return GetResolution(m_nIndex, axis); }
  double GetResolution(unsigned index, int axis) const noexcept;
  /// Along the pixel axis, in metres.
  double GetPixelSizeM() const noexcept;

  double PixelsToMetre(unsigned pixels, int axis) const noexcept;
  double PixelsToMM(unsigned pixels, int axis) const noexcept;
  // Rounded half up.
  unsigned MetreToPixels(double metres, int axis) const noexcept;
  unsigned MMToPixels(double millimetres, int axis) const noexcept;

  // The same on the line axis.
  unsigned MetreToLines(double metres) const noexcept { return MetreToPixels(metres, 0); }
  unsigned MMToLines(double millimetres) const noexcept { return MMToPixels(millimetres, 0); }
  double LinesToMetre(unsigned lines) const noexcept { return PixelsToMetre(lines, 0); }
  double LinesToMM(unsigned lines) const noexcept { return PixelsToMM(lines, 0); }

  /// Revolutions per second and per minute.
  static double RPStoRPM(double rps) noexcept { return rps * 60; }
  static double RPMtoRPS(double rpm) noexcept { return rpm * 0.016666666666666666; }

 protected:
  /// Pixels (or lines) per metre.
  double GetPPMetre(int axis) const noexcept;

 private:
  unsigned m_nCount;
  unsigned m_nIndex = 0;
  const double* m_pPixelResolutions;
  const double* m_pLineResolutions;
};
