// How a typed value is shown: the flag word of radix, notation, type, unit and unit modifiers.
//
// A word is composed with |: MD_TYPE_DOUBLE | MD_UNIT_MM | MD_CONVERT_UNITS. The numbers are part
// of stored settings, so they never change.
#pragma once

#include <cstdint>

#include "qmutils/platform/export.h"

/// The base class of QMMixedDataC: it has no state, so copying copies nothing.
class QMUTILS_API CMDFormat {
 public:
  enum FormatFlagsT : std::uint32_t {
    // Radix; any other number in the mask is decimal.
    MD_RADIX = 0x7,          ///< mask
    MD_RADIX_HEX = 0x1,      ///< upper-case digits behind "0x"
    MD_RADIX_DEFAULT = 0x2,  ///< what a new stream has: decimal
    MD_RADIX_OCTAL = 0x4,    ///< with the stream's prefix "0"
    MD_RIGHT = 0x10,         ///< right-justified in the field
    MD_GENERAL = 0x20,       ///< doubles: general instead of fixed notation

    // Type: exactly one is set.
    MD_TYPE = 0xF00,      ///< mask
    MD_TYPE_INT = 0x100,  ///< 32 bits, signed unless MD_UNSIGNED
    MD_TYPE_DOUBLE = 0x200,
    MD_TYPE_ULONG = 0x400,  ///< 32 bits
    MD_TYPE_STRING = 0x800,
    MD_UNSIGNED = 0x10000,  ///< the value has no sign

    // Unit.
    MD_UNIT = 0xF00000,  ///< mask
    MD_UNIT_NONE = 0x000000,
    MD_UNIT_INCH = 0x100000,
    MD_UNIT_MM = 0x200000,
    MD_UNIT_POINT = 0x300000,  ///< 1/72 inch
    MD_UNIT_PERCENT = 0x400000,
    MD_UNIT_DEGREE = 0x500000,       ///< of an angle
    MD_UNIT_DPI = 0x600000,          ///< dots per inch
    MD_UNIT_BITRATE = 0x700000,      ///< bits per second
    MD_UNIT_TIMECOUNTER = 0x800000,  ///< seconds, shown as 00000001:02:05.500
    MD_UNIT_CELSIUS = 0x900000,
    MD_UNIT_ENERGY_DENSITY = 0xA00000,   ///< microjoules per square centimetre
    MD_UNIT_TIMECOUNTER_HMS = 0xB00000,  ///< seconds, shown as 1h 02m 05s
    MD_UNIT_POWER = 0xC00000,            ///< watts
    MD_UNIT_SCALED = 0xF00000,           ///< the caller's own, reached through a scale factor

    // Modifiers of the unit.
    MD_NO_UNITS = 0x1000000,       ///< no postfix, no conversion
    MD_CONVERT_UNITS = 0x2000000,  ///< conversion is wanted
    MD_NEVER_CONVERT = 0x4000000,  ///< and this forbids it
    MD_AREA = 0x8000000,           ///< square units; power: per square centimetre
    MD_PER_SECOND = 0x20000000,    ///< speed: length per second
  };

  CMDFormat() = default;
  CMDFormat(const CMDFormat&) noexcept {}
  CMDFormat& operator=(const CMDFormat&) noexcept { return *this; }
  virtual ~CMDFormat() = default;
};

constexpr CMDFormat::FormatFlagsT operator|(CMDFormat::FormatFlagsT left,
                                            CMDFormat::FormatFlagsT right) {
  return static_cast<CMDFormat::FormatFlagsT>(static_cast<std::uint32_t>(left) |
                                              static_cast<std::uint32_t>(right));
}
