#include "qmutils/imager/MachineTransformC.h"

#include "qmutils/data/Saturated.h"

namespace {

constexpr double kMMPerInch = 25.4;
constexpr double kMetresPerInch = 0.0254;

}  // namespace

MachineTransformC::MachineTransformC(const double* const pixelResolutions,
                                     const double* const lineResolutions, unsigned count) noexcept
    : m_nCount(count), m_pPixelResolutions(pixelResolutions), m_pLineResolutions(lineResolutions) {}

MachineTransformC::~MachineTransformC() = default;

QMErrors::QMErrorT MachineTransformC::Set(const double* const pixelResolutions,
                                          const double* const lineResolutions,
                                          unsigned count) noexcept {
  m_pPixelResolutions = pixelResolutions;
  m_pLineResolutions = lineResolutions;
  m_nCount = count;
  return QMErrors::NoError;
}

QMErrors::QMErrorT MachineTransformC::SetResolution(unsigned index) noexcept {
  m_nIndex = index;
  return QMErrors::NoError;
}

QMErrors::QMErrorT MachineTransformC::SetResolution(double dpi, int axis) noexcept {
  const double* const resolutions = axis != 0 ? m_pPixelResolutions : m_pLineResolutions;
  for (unsigned i = 0; resolutions != nullptr && i < m_nCount; ++i) {
    if (resolutions[i] == dpi) return SetResolution(i);
  }
  return QMErrors::ResolutionOutsideValidRange;
}

double MachineTransformC::GetResolution(unsigned index, int axis) const noexcept {
  const double* const resolutions = axis != 0 ? m_pPixelResolutions : m_pLineResolutions;
  return resolutions != nullptr && index < m_nCount ? resolutions[index] : 0;
}

double MachineTransformC::GetPPMetre(int axis) const noexcept {
  return GetResolution(axis) * 1000 * (1 / kMMPerInch);
}

double MachineTransformC::GetPixelSizeM() const noexcept {
  return kMetresPerInch / GetResolution(1);
}

double MachineTransformC::PixelsToMetre(unsigned pixels, int axis) const noexcept {
  return pixels / GetPPMetre(axis);
}

double MachineTransformC::PixelsToMM(unsigned pixels, int axis) const noexcept {
  return PixelsToMetre(pixels, axis) * 1000;
}

unsigned MachineTransformC::MetreToPixels(double metres, int axis) const noexcept {
  return qm::saturated<unsigned>(GetPPMetre(axis) * metres + 0.5);
}

unsigned MachineTransformC::MMToPixels(double millimetres, int axis) const noexcept {
  return MetreToPixels(millimetres * 0.001, axis);
}
