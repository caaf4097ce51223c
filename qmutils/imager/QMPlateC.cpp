#include "qmutils/imager/QMPlateC.h"

#include <cstring>

namespace {

/// The text may stand in the destination.
template <std::size_t Size>
void store(char (&destination)[Size], const char* text, std::size_t length) {
  std::memmove(destination, text, length);
  std::memset(destination + length, 0, Size - length);
}

}  // namespace

QMPlateC::QMPlateC(const char* name, double first, double second, unsigned short thickness,
                   int positive, double third, PowerTypeT power, const char* calibration,
                   unsigned short last) noexcept {
  (void)SetName(name);
  m_First = first;
  m_Second = second;
  m_nThickness = thickness;
  m_bPositive = positive;
  m_Third = third;
  m_PowerType = power;
  m_Last = last;
  (void)SetCalibration(calibration);
}

QMPlateC::~QMPlateC() = default;

QMErrors::QMErrorT QMPlateC::SetName(const char* name) noexcept {
  if (name == nullptr) return QMErrors::NullObjectProvided;
  const std::size_t length = std::strlen(name);
  if (length > kMaxNameLength) return QMErrors::BadCommandLineArguments;
  store(m_Name, name, length);
  return QMErrors::NoError;
}

QMErrors::QMErrorT QMPlateC::SetCalibration(const char* calibration) noexcept {
  const std::size_t length = calibration != nullptr ? std::strlen(calibration) : 0;
  if (length > kMaxNameLength) return QMErrors::BadCommandLineArguments;
  if (length > 0) store(m_Calibration, calibration, length);  // before the name: it may be that
  store(m_Name, "", 0);
  return QMErrors::NoError;
}
