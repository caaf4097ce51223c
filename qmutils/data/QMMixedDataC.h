// One typed value for settings and operator input: a number or a text together with all that is
// needed to show it to an operator and to read it back - type, unit, radix, width, precision,
// scale factors and a locale.
//
//   QMMixedDataC width(CMDFormat::MD_TYPE_DOUBLE | CMDFormat::MD_UNIT_MM, 0, 2);
//   width.SetValue(12.5);
//   CString text;
//   width.AToString(text, 0);       // "12.50 mm"
//   width.FromString("13 mm", false);
//   width.GetValue(&number);        // 13.0
//
// A value has the type it was made with; only assignment changes it. Integers have 32 bits on every
// system, `unsigned long` ones too: larger numbers become the largest. Nothing is checked or
// converted between types: asking for another type than the value's gives the raw bytes, zeroes
// where none were stored.
//
// Texts and values are converted by stream rules under a locale: the value's own (SetLocale) where
// `useLocale` is non-zero, else "C". The name "" stands for the locale of the environment when it
// is first used; a name that the system does not know counts as "C". Formatting a number may change
// divisor and postfix divisor, because it chooses the range ("Kb/s", "Mb/s"); so a value belongs to
// one thread at a time. Nothing throws; when memory runs out a text stays as it was, and a log line
// tells.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "qmutils/data/CMDFormat.h"
#include "qmutils/platform/export.h"
#include "qmutils/windowing/CString.h"

class QMUTILS_API QMMixedDataC : public CMDFormat {
 public:
  /// An untyped value without a text, precision 6: for arrays.
  QMMixedDataC() noexcept;
  // `width`: the field's width in characters, 0 for none, at most 4,096. `precision`: digits of a
  // double behind the decimal point, at most 1,100.
  QMMixedDataC(int value, unsigned width, unsigned precision) noexcept;
  QMMixedDataC(unsigned int value, unsigned width, unsigned precision) noexcept;
  /// Has no MD_UNSIGNED, so it is never at an extreme.
  QMMixedDataC(unsigned long value, unsigned width, unsigned precision) noexcept;
  QMMixedDataC(double value, unsigned width, unsigned precision) noexcept;
  /// `maxLength` in bytes, 0 for unlimited; it binds ValidateInput() alone.
  QMMixedDataC(const char* text, unsigned maxLength) noexcept;
  /// Any type, unit and notation; the value is zero, a text is not set.
  QMMixedDataC(FormatFlagsT flags, unsigned width, unsigned precision) noexcept;
  QMMixedDataC(const QMMixedDataC& other) noexcept = default;
  /// Takes type and format of the other value as well. Of a number other than a double only the 32
  /// bits it has are copied.
  QMMixedDataC& operator=(const QMMixedDataC& other) noexcept;
  ~QMMixedDataC() override;

  /// The flag word the value was made with.
  unsigned GetFlags() const noexcept { return m_Flags; }

  // Store the payload in `*out` (unless null) and return it.
  double GetValue(double* out) const noexcept;
  int GetValue(int* out) const noexcept;
  unsigned int GetValue(unsigned int* out) const noexcept;
  unsigned long GetValue(unsigned long* out) const noexcept;
  /// An empty text when none is set.
  CString& GetValue(CString& out) const noexcept;

  // Leave the type as it is. A number takes the place of a text and the other way round.
  void SetValue(double value) noexcept;
  void SetValue(int value) noexcept;
  void SetValue(unsigned int value) noexcept;
  void SetValue(unsigned long value) noexcept;
  void SetValue(const CString& text) noexcept;
  /// Null counts as empty.
  void SetValue(const char* text) noexcept;

  /// Copies the name (null: empty) and returns the copy, which is valid until the next call.
  const char* SetLocale(const char* name) noexcept;
  /// The value's own, or "C" for 0.
  const char* GetLocale(int useOwn) const noexcept;

  void SetDivisor(double divisor) noexcept { m_Divisor = divisor; }
  double GetDivisor() const noexcept { return m_Divisor; }
  /// The factor that belongs to the postfix shown: every double that is parsed is multiplied by it.
  void SetPostFixDivisor(double divisor) noexcept { m_PostFixDivisor = divisor; }
  double GetPostFixDivisor() const noexcept { return m_PostFixDivisor; }

  /// The largest finite double; the largest int; of an unsigned long only with MD_UNSIGNED. Never
  /// true for a text.
  bool IsMaxValue() const noexcept;
  /// The smallest positive normal double, on which installed programs rely; the smallest int, or 0
  /// with MD_UNSIGNED.
  bool IsMinValue() const noexcept;

  /// The value as text, with its unit. int-typed values are shown as signed numbers, those with
  /// MD_UNSIGNED as well. A value without a type is a text.
  CString& AToString(CString& out, int useLocale) noexcept;

  // A number by this value's flags, width and precision: padded on the left with '0', except that
  // negative numbers are not padded at all. Choosing the range of a bit rate, a power or an area
  // sets divisor and postfix divisor; every other unit copies the divisor into the postfix divisor.
  // Doubles above 2^40 are shown as 2^40.
  CString& ToString(CString& out, int value, int useLocale) noexcept;
  CString& ToString(CString& out, unsigned int value, int useLocale) noexcept;
  CString& ToString(CString& out, unsigned long value, int useLocale) noexcept;
  CString& ToString(CString& out, double value, int useLocale) noexcept;

  /// Reads the value from a text, by type and unit. What follows the number is ignored. An empty
  /// text leaves a number as it is, one without a number gives 0, one out of range the nearest
  /// number. A text without a time gives an elapsed time of 0.
  void FromString(const char* text, bool useLocale) noexcept;
  // The same for one number, stored in `out` and returned. Only the double is multiplied by the
  // postfix divisor.
  int FromString(const char* text, int& out, int useLocale) const noexcept;
  unsigned int FromString(const char* text, unsigned int& out, int useLocale) const noexcept;
  unsigned long FromString(const char* text, unsigned long& out, int useLocale) const noexcept;
  double FromString(const char* text, double& out, int useLocale) const noexcept;

  /// 1 when the text is acceptable as it stands; else 0, and the text has been repaired: without
  /// its first bad character and formatted anew, or cut to the maximum length. Decimal point and
  /// thousands separator are those of the C runtime's current locale; the separator may stand once.
  /// Without memory the result is 0 and the text stays.
  int ValidateInput(CString& text, int useLocale) noexcept;

  /// 3725.5 seconds as "00000001:02:05.500", cut to milliseconds. A negative time has its sign in
  /// front.
  CString& ToTimeCounterString(CString& out, double seconds) const noexcept;
  /// 3725.5 seconds as "1h 02m 05s"; hours and minutes only when they are not 0.
  CString& ToTimeCounterStringHMS(CString& out, double seconds) const noexcept;

  /// The text that follows a number, by unit and modifiers of `flags` and this value's postfix
  /// divisor; begins with a blank or is empty. A constant.
  const char* GetPostFix(unsigned flags) const noexcept;

  // Converts between units (codes under MD_UNIT) if `flags` want it; pairs that have no factor
  // between them stay as they are. Dots per inch convert to dots per millimetre and back. The
  // result of an integer is truncated; unless `flags` have the type double, a small amount was
  // added before: 0.05 to millimetres and points made of inches, 1.27 and 3.6 to dots per inch,
  // next to nothing elsewhere. `scale`: units of MD_UNIT_SCALED per other unit. With MD_AREA,
  // inches to millimetres and back come out multiplied by 10 to the power of `precision` (1 to 300,
  // 0 counts as 1), or by 10 where `flags` do not have the type double; installed programs rely on
  // it. Uses nothing of the value.
  double ConvertBetweenUnits(double value, unsigned flags, unsigned fromUnit, unsigned toUnit,
                             unsigned precision, double scale) const noexcept;
  unsigned int ConvertBetweenUnits(unsigned int value, unsigned flags, unsigned fromUnit,
                                   unsigned toUnit, unsigned precision,
                                   double scale) const noexcept;
  int ConvertBetweenUnits(int value, unsigned flags, unsigned fromUnit, unsigned toUnit,
                          unsigned precision, double scale) const noexcept;
  // The same by this value's flags and precision, in place and returned. Null gives 0.
  double ConvertBetweenUnits(double* const value, unsigned fromUnit, unsigned toUnit,
                             double scale) const noexcept;
  unsigned int ConvertBetweenUnits(unsigned int* const value, unsigned fromUnit, unsigned toUnit,
                                   double scale) const noexcept;
  int ConvertBetweenUnits(int* const value, unsigned fromUnit, unsigned toUnit,
                          double scale) const noexcept;

 protected:
  /// Reads an elapsed time in either text form ("1:02:05.5", "02:05", "5", "1h 02m 05s") into the
  /// value, whole seconds into an integer; a text without a time gives 0.
  double FromTimeCounter(const char* text) noexcept;
  double FromTimeCounter(const char* text, double* out) const noexcept;
  /// As ValidateInput(), for elapsed times: digits, up to two ':' and one '.', no sign. Where the
  /// unit is the form with letters, a text that has some is good if it can be read to its end.
  int VerifyTimeCounter(CString& text) noexcept;
  /// Takes the postfix and the blanks before it off the text's end; 1 if there was one.
  int StripPostFix(CString& text, unsigned flags) const noexcept;

 private:
  friend QMUTILS_API bool operator==(const QMMixedDataC& left, const QMMixedDataC& right) noexcept;

  template <class Number>
  Number payload() const noexcept;
  template <class Number>
  void setPayload(Number value) noexcept;
  void setText(std::string_view text) noexcept;
  template <class Number>
  CString& numberToString(CString& out, Number value, int useLocale) noexcept;
  bool isTime() const noexcept;
  double chooseRange(double value) noexcept;
  CString& timeToString(CString& out, double seconds) const noexcept;

  std::array<std::byte, 8> m_Value{};
  bool m_bTextSet = false;  // of a text the characters are in m_Text, the payload is zero
  unsigned m_Flags;
  unsigned m_nPrecision;
  unsigned m_nWidth;
  CString m_Text;
  CString m_Locale;
  double m_Divisor = 1.0;
  double m_PostFixDivisor = 1.0;
};

/// Looks at the left value's type only: doubles are equal when neither is less (so a NaN equals
/// everything), texts byte by byte (a text that is not set equals everything), other values by
/// their 32 bits and, if a text was set, by that. Units and formats are not compared.
QMUTILS_API bool operator==(const QMMixedDataC& left, const QMMixedDataC& right) noexcept;
