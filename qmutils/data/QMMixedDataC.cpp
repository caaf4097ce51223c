// The value itself: storage, copying, comparison, extremes, units.
#include "qmutils/data/QMMixedDataC.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include "qmutils/data/Saturated.h"
#include "qmutils/data/Units.h"

namespace {

/// `unsigned long` has 32 bits in the interface; larger numbers become the largest.
std::uint32_t narrowed(unsigned long value) {
  constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
  return value > kMost ? kMost : static_cast<std::uint32_t>(value);
}

}  // namespace

template <class Number>
Number QMMixedDataC::payload() const noexcept {
  static_assert(sizeof(Number) <= sizeof m_Value);
  Number value;
  std::memcpy(&value, m_Value.data(), sizeof value);
  return value;
}

/// The bytes behind a shorter number stay, as programs that read another type see them.
template <class Number>
void QMMixedDataC::setPayload(Number value) noexcept {
  m_bTextSet = false;
  m_Text.Empty();
  std::memcpy(m_Value.data(), &value, sizeof value);
}

QMMixedDataC::QMMixedDataC(FormatFlagsT flags, unsigned width, unsigned precision) noexcept
    : m_Flags(flags), m_nPrecision(precision), m_nWidth(width) {}

QMMixedDataC::QMMixedDataC() noexcept : QMMixedDataC(FormatFlagsT{}, 0, 6) {}

QMMixedDataC::QMMixedDataC(int value, unsigned width, unsigned precision) noexcept
    : QMMixedDataC(MD_TYPE_INT, width, precision) {
  setPayload(value);
}

QMMixedDataC::QMMixedDataC(unsigned int value, unsigned width, unsigned precision) noexcept
    : QMMixedDataC(MD_TYPE_INT | MD_UNSIGNED, width, precision) {
  setPayload(value);
}

QMMixedDataC::QMMixedDataC(unsigned long value, unsigned width, unsigned precision) noexcept
    : QMMixedDataC(MD_TYPE_ULONG, width, precision) {
  setPayload(narrowed(value));
}

QMMixedDataC::QMMixedDataC(double value, unsigned width, unsigned precision) noexcept
    : QMMixedDataC(MD_TYPE_DOUBLE, width, precision) {
  setPayload(value);
}

QMMixedDataC::QMMixedDataC(const char* text, unsigned maxLength) noexcept
    : QMMixedDataC(MD_TYPE_STRING, maxLength, 0) {
  SetValue(text);
}

QMMixedDataC::~QMMixedDataC() = default;

QMMixedDataC& QMMixedDataC::operator=(const QMMixedDataC& other) noexcept {
  if (this == &other) return *this;
  m_Divisor = other.m_Divisor;
  m_PostFixDivisor = other.m_PostFixDivisor;
  m_Flags = other.m_Flags;
  m_Locale = other.m_Locale;
  m_nPrecision = other.m_nPrecision;
  m_nWidth = other.m_nWidth;
  if (other.m_bTextSet) {
    SetValue(other.m_Text);
  } else if ((m_Flags & MD_TYPE_STRING) != 0) {
    SetValue(CString());
  } else if ((m_Flags & MD_TYPE_DOUBLE) != 0) {
    setPayload(other.payload<double>());
  } else {
    setPayload(other.payload<std::uint32_t>());
  }
  return *this;
}

bool operator==(const QMMixedDataC& left, const QMMixedDataC& right) noexcept {
  if ((left.m_Flags & QMMixedDataC::MD_TYPE_DOUBLE) != 0) {
    const auto a = left.payload<double>();
    const auto b = right.payload<double>();
    return !(a < b) && !(a > b);
  }
  // A text that is not set reads as empty; a value without a type may hold one as well.
  const std::string_view leftText = left.m_bTextSet ? left.m_Text.view() : std::string_view();
  const std::string_view rightText = right.m_bTextSet ? right.m_Text.view() : std::string_view();
  if ((left.m_Flags & QMMixedDataC::MD_TYPE_STRING) != 0) {
    return !left.m_bTextSet || leftText == rightText;
  }
  return left.payload<std::uint32_t>() == right.payload<std::uint32_t>() && leftText == rightText;
}

double QMMixedDataC::GetValue(double* out) const noexcept {
  const auto value = payload<double>();
  if (out != nullptr) *out = value;
  return value;
}

int QMMixedDataC::GetValue(int* out) const noexcept {
  const auto value = payload<int>();
  if (out != nullptr) *out = value;
  return value;
}

unsigned int QMMixedDataC::GetValue(unsigned int* out) const noexcept {
  const auto value = payload<unsigned int>();
  if (out != nullptr) *out = value;
  return value;
}

unsigned long QMMixedDataC::GetValue(unsigned long* out) const noexcept {
  const unsigned long value = payload<std::uint32_t>();
  if (out != nullptr) *out = value;
  return value;
}

CString& QMMixedDataC::GetValue(CString& out) const noexcept {
  if (!m_bTextSet) {
    out.Empty();
    return out;
  }
  return out = m_Text;
}

void QMMixedDataC::SetValue(double value) noexcept { setPayload(value); }
void QMMixedDataC::SetValue(int value) noexcept { setPayload(value); }
void QMMixedDataC::SetValue(unsigned int value) noexcept { setPayload(value); }
void QMMixedDataC::SetValue(unsigned long value) noexcept { setPayload(narrowed(value)); }

void QMMixedDataC::SetValue(const CString& text) noexcept { setText(text.view()); }
void QMMixedDataC::SetValue(const char* text) noexcept { setText(text != nullptr ? text : ""); }

/// Without memory everything stays.
void QMMixedDataC::setText(std::string_view text) noexcept {
  CString copy(text);
  if (copy.view().size() != text.size()) return;
  m_Text = std::move(copy);
  m_Value = {};
  m_bTextSet = true;
}

const char* QMMixedDataC::SetLocale(const char* name) noexcept { return m_Locale = name; }

const char* QMMixedDataC::GetLocale(int useOwn) const noexcept {
  return useOwn != 0 ? static_cast<const char*>(m_Locale) : "C";
}

bool QMMixedDataC::IsMaxValue() const noexcept {
  if ((m_Flags & MD_TYPE_DOUBLE) != 0) {
    return payload<double>() == std::numeric_limits<double>::max();
  }
  const bool isUnsigned = (m_Flags & MD_UNSIGNED) != 0;
  const bool isUnsignedMax = payload<std::uint32_t>() == std::numeric_limits<std::uint32_t>::max();
  if ((m_Flags & MD_TYPE_INT) != 0) {
    return isUnsigned ? isUnsignedMax
                      : payload<std::int32_t>() == std::numeric_limits<std::int32_t>::max();
  }
  return (m_Flags & MD_TYPE_ULONG) != 0 && isUnsigned && isUnsignedMax;
}

bool QMMixedDataC::IsMinValue() const noexcept {
  if ((m_Flags & MD_TYPE_DOUBLE) != 0) {
    return payload<double>() == std::numeric_limits<double>::min();
  }
  const bool isUnsigned = (m_Flags & MD_UNSIGNED) != 0;
  const bool isZero = payload<std::uint32_t>() == 0;
  if ((m_Flags & MD_TYPE_INT) != 0) {
    return isUnsigned ? isZero
                      : payload<std::int32_t>() == std::numeric_limits<std::int32_t>::min();
  }
  return (m_Flags & MD_TYPE_ULONG) != 0 && isUnsigned && isZero;
}

const char* QMMixedDataC::GetPostFix(unsigned flags) const noexcept {
  return qm::postFix(flags, m_PostFixDivisor);
}

double QMMixedDataC::ConvertBetweenUnits(double value, unsigned flags, unsigned fromUnit,
                                         unsigned toUnit, unsigned precision,
                                         double scale) const noexcept {
  return qm::convertUnits(value, flags, fromUnit, toUnit, precision, scale);
}

unsigned int QMMixedDataC::ConvertBetweenUnits(unsigned int value, unsigned flags,
                                               unsigned fromUnit, unsigned toUnit,
                                               unsigned precision, double scale) const noexcept {
  return qm::saturated<unsigned int>(
      qm::convertUnits(value, flags, fromUnit, toUnit, precision, scale));
}

int QMMixedDataC::ConvertBetweenUnits(int value, unsigned flags, unsigned fromUnit, unsigned toUnit,
                                      unsigned precision, double scale) const noexcept {
  return qm::saturated<int>(qm::convertUnits(value, flags, fromUnit, toUnit, precision, scale));
}

double QMMixedDataC::ConvertBetweenUnits(double* const value, unsigned fromUnit, unsigned toUnit,
                                         double scale) const noexcept {
  if (value == nullptr) return 0;
  return *value = ConvertBetweenUnits(*value, m_Flags, fromUnit, toUnit, m_nPrecision, scale);
}

unsigned int QMMixedDataC::ConvertBetweenUnits(unsigned int* const value, unsigned fromUnit,
                                               unsigned toUnit, double scale) const noexcept {
  if (value == nullptr) return 0;
  return *value = ConvertBetweenUnits(*value, m_Flags, fromUnit, toUnit, m_nPrecision, scale);
}

int QMMixedDataC::ConvertBetweenUnits(int* const value, unsigned fromUnit, unsigned toUnit,
                                      double scale) const noexcept {
  if (value == nullptr) return 0;
  return *value = ConvertBetweenUnits(*value, m_Flags, fromUnit, toUnit, m_nPrecision, scale);
}
