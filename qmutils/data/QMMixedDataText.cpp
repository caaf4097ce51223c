// Values as text and texts as values.
#include <cstdint>
#include <ios>
#include <istream>
#include <optional>
#include <ostream>
#include <type_traits>

#include "qmutils/data/ElapsedTime.h"
#include "qmutils/data/NumberStream.h"
#include "qmutils/data/QMMixedDataC.h"
#include "qmutils/data/Saturated.h"
#include "qmutils/data/Units.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMErrors.h"

namespace {

using Format = CMDFormat;

// What the streams could not hold on a thread's stack. No double has more digits than this.
constexpr unsigned kMaxWidth = 4096;
constexpr unsigned kMaxPrecision = 1100;
// The widest field, or the longest number with a separator behind each digit; and the postfix.
constexpr std::size_t kMaxText = kMaxWidth + 256;

constexpr double kMaxShown = 1099511627776.0;  // 2^40

unsigned atMost(unsigned limit, unsigned value) { return value < limit ? value : limit; }

void setRadix(std::ostream& os, unsigned flags) {
  switch (flags & Format::MD_RADIX) {
    case Format::MD_RADIX_HEX:
      os << std::hex << std::uppercase << "0x";
      break;
    case Format::MD_RADIX_OCTAL:
      os << std::oct << std::showbase;
      break;
    default:
      os << std::dec;
  }
}

void logWithoutMemory(const char* label) {
  qm::logError(label, QMErrToStr(QMErrors::MemoryAllocationFailed));
}

/// One number behind blanks. False when there is nothing in the text, or no memory (a stream that
/// has none turns bad).
template <class Number>
bool extract(const char* text, const char* locale, Number& out) {
  qm::TextViewBuffer buffer(text != nullptr ? text : "");
  std::istream is(&buffer);
  Number number{};
  const bool any = qm::setLocale(is, locale) && !(is >> std::ws).eof();
  if (any) is >> number;
  if (is.bad()) {
    logWithoutMemory("QMMixedDataC::FromString(): ");
    return false;
  }
  if (any) out = number;
  return any;
}

}  // namespace

bool QMMixedDataC::isTime() const noexcept {
  const unsigned unit = m_Flags & MD_UNIT;
  return unit == MD_UNIT_TIMECOUNTER || unit == MD_UNIT_TIMECOUNTER_HMS;
}

/// What is to be shown of a value. The divisor is remembered for the postfix and for reading the
/// text back.
double QMMixedDataC::chooseRange(double value) noexcept {
  const std::optional<double> factor = qm::rangeFactor(m_Flags, value);
  if (factor) m_Divisor = *factor;
  m_PostFixDivisor = m_Divisor;
  return factor ? value / *factor : value;
}

template <class Number>
CString& QMMixedDataC::numberToString(CString& out, Number value, int useLocale) noexcept {
  bool negative = false;
  if constexpr (std::is_signed_v<Number>) {
    negative = (m_Flags & MD_UNSIGNED) == 0 && (m_Flags & (MD_TYPE_INT | MD_TYPE_DOUBLE)) != 0 &&
               value < 0;
  }
  double shown = chooseRange(value);
  if (isTime()) return timeToString(out, value);

  qm::ShortTextBuffer<kMaxText> buffer;
  std::ostream os(&buffer);
  qm::setLocale(os, GetLocale(useLocale));
  setRadix(os, m_Flags);
  os.fill((m_Flags & MD_TYPE_STRING) != 0 || negative ? ' ' : '0');
  if ((m_Flags & MD_RIGHT) != 0) os.setf(std::ios::right, std::ios::adjustfield);
  os.precision(atMost(kMaxPrecision, m_nPrecision));
  if (!negative) os.width(atMost(kMaxWidth, m_nWidth));
  if constexpr (std::is_floating_point_v<Number>) {
    os.setf(std::ios::showpoint);
    if ((m_Flags & MD_GENERAL) == 0) os.setf(std::ios::fixed, std::ios::floatfield);
    if (shown > kMaxShown) shown = kMaxShown;
    os << shown;
  } else {
    os << qm::saturated<Number>(shown);
  }
  os << GetPostFix(m_Flags);
  if (os) {
    out = buffer.text();
  } else {
    logWithoutMemory("QMMixedDataC::ToString(): ");
  }
  return out;
}

CString& QMMixedDataC::ToString(CString& out, int value, int useLocale) noexcept {
  return numberToString(out, value, useLocale);
}

CString& QMMixedDataC::ToString(CString& out, unsigned int value, int useLocale) noexcept {
  return numberToString(out, value, useLocale);
}

CString& QMMixedDataC::ToString(CString& out, unsigned long value, int useLocale) noexcept {
  return numberToString(out, qm::saturated<std::uint32_t>(static_cast<double>(value)), useLocale);
}

CString& QMMixedDataC::ToString(CString& out, double value, int useLocale) noexcept {
  return numberToString(out, value, useLocale);
}

CString& QMMixedDataC::AToString(CString& out, int useLocale) noexcept {
  if ((m_Flags & MD_TYPE_INT) != 0) {
    return ToString(out, GetValue(static_cast<int*>(nullptr)), useLocale);
  }
  if ((m_Flags & MD_TYPE_DOUBLE) != 0) {
    return ToString(out, GetValue(static_cast<double*>(nullptr)), useLocale);
  }
  if ((m_Flags & MD_TYPE_ULONG) == 0) return GetValue(out);
  return ToString(out, GetValue(static_cast<unsigned long*>(nullptr)), useLocale);
}

int QMMixedDataC::FromString(const char* text, int& out, int useLocale) const noexcept {
  extract(text, GetLocale(useLocale), out);
  return out;
}

unsigned int QMMixedDataC::FromString(const char* text, unsigned int& out,
                                      int useLocale) const noexcept {
  extract(text, GetLocale(useLocale), out);
  return out;
}

unsigned long QMMixedDataC::FromString(const char* text, unsigned long& out,
                                       int useLocale) const noexcept {
  std::uint32_t value;
  if (extract(text, GetLocale(useLocale), value)) out = value;
  return out;
}

double QMMixedDataC::FromString(const char* text, double& out, int useLocale) const noexcept {
  double value;
  if (extract(text, GetLocale(useLocale), value)) out = value * m_PostFixDivisor;
  return out;
}

void QMMixedDataC::FromString(const char* text, bool useLocale) noexcept {
  if (isTime()) {
    FromTimeCounter(text);
  } else if ((m_Flags & MD_TYPE_INT) != 0) {
    int value = GetValue(&value);
    SetValue(FromString(text, value, useLocale));
  } else if ((m_Flags & MD_TYPE_DOUBLE) != 0) {
    double value = GetValue(&value);
    SetValue(FromString(text, value, useLocale));
  } else if ((m_Flags & MD_TYPE_ULONG) != 0) {
    unsigned long value = GetValue(&value);
    SetValue(FromString(text, value, useLocale));
  } else if ((m_Flags & MD_TYPE_STRING) != 0) {
    SetValue(text);
  }
}

CString& QMMixedDataC::timeToString(CString& out, double seconds) const noexcept {
  return (m_Flags & MD_UNIT) == MD_UNIT_TIMECOUNTER_HMS ? ToTimeCounterStringHMS(out, seconds)
                                                        : ToTimeCounterString(out, seconds);
}

CString& QMMixedDataC::ToTimeCounterString(CString& out, double seconds) const noexcept {
  char text[qm::kElapsedTimeSize];
  qm::elapsedTimeText(text, seconds);
  return out = text;
}

CString& QMMixedDataC::ToTimeCounterStringHMS(CString& out, double seconds) const noexcept {
  char text[qm::kElapsedTimeSize];
  qm::elapsedTimeTextHMS(text, seconds);
  return out = text;
}

double QMMixedDataC::FromTimeCounter(const char* text, double* out) const noexcept {
  const double seconds = qm::secondsOfText(text != nullptr ? text : "");
  if (out != nullptr) *out = seconds;
  return seconds;
}

double QMMixedDataC::FromTimeCounter(const char* text) noexcept {
  const double seconds = FromTimeCounter(text, nullptr);
  if ((m_Flags & MD_TYPE_INT) != 0) {
    SetValue(qm::saturated<int>(seconds));
  } else if ((m_Flags & MD_TYPE_ULONG) != 0) {
    SetValue(qm::saturated<std::uint32_t>(seconds));
  } else {
    SetValue(seconds);
  }
  return seconds;
}
