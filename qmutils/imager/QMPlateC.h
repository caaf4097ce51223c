// The description of one plate type, as the programs of the suite keep and exchange it.
//
// A plain value: copying copies every field. What the two sizes, the third value, the last value
// and the reserved words mean is agreed between the programs that fill them; this class stores
// them. One thread at a time. Nothing throws or allocates.
#pragma once

#include <cstdint>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

class QMUTILS_API QMPlateC {
 public:
  /// The plate's class of laser power; its numbers are agreed between the programs.
  enum PowerTypeT : int {};

  static constexpr unsigned kMaxNameLength = 255;

  QMPlateC() noexcept = default;
  /// `thickness` in 1/100 mm; `positive` non-zero for a positive-working plate. Ends with
  /// SetCalibration(), so the plate has no name: installed programs set it afterwards. Texts that
  /// are too long or null are left out.
  QMPlateC(const char* name, double first, double second, unsigned short thickness, int positive,
           double third, PowerTypeT power, const char* calibration, unsigned short last) noexcept;
  QMPlateC(const QMPlateC&) noexcept = default;
  QMPlateC& operator=(const QMPlateC&) noexcept = default;
  virtual ~QMPlateC();

  /// 0; 2100 "Null object provided" for null; 2006 "Bad Command Line arguments" for more than 255
  /// characters. The name stays on failure.
  QMErrors::QMErrorT SetName(const char* name) noexcept;
  /// Clears the plate's name as well; set the name after it. A null or empty text clears the name
  /// alone. 0, or 2006 for more than 255 characters, which changes nothing.
  QMErrors::QMErrorT SetCalibration(const char* calibration) noexcept;

  const char* GetName() const noexcept { return m_Name; }
  const char* GetCalibration() const noexcept { return m_Calibration; }
  double GetFirst() const noexcept { return m_First; }
  double GetSecond() const noexcept { return m_Second; }
  double GetThird() const noexcept { return m_Third; }
  unsigned short GetLast() const noexcept { return m_Last; }
  PowerTypeT GetPowerType() const noexcept { return m_PowerType; }
  /// Non-zero for a positive-working plate.
  int IsPositivePlate() const noexcept { return m_bPositive; }
  double GetThicknessMM() const noexcept { return m_nThickness * 0.01; }

 protected:
  std::uint32_t m_Reserved[2] = {};  // for the programs' own classes

 private:
  using Text = char[kMaxNameLength + 1];  // padded with NUL

  Text m_Name = {};
  double m_First = 0;
  double m_Second = 0;
  int m_bPositive = 0;
  PowerTypeT m_PowerType = {};
  double m_Third = 0;
  std::uint16_t m_nThickness = 0;
  Text m_Calibration = {};
  std::uint16_t m_Last = 0;
};
