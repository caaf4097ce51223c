// Checking and repairing what an operator has typed.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>

#include "qmutils/data/ElapsedTime.h"
#include "qmutils/data/QMMixedDataC.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/c_locale.h"

namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::size_t kNone = std::string_view::npos;

bool isSign(char c) { return c == '-' || c == '+'; }
bool isExponent(char c) { return c == 'e' || c == 'E'; }

/// What may stand in a text beside digits.
struct Marks {
  std::string all;
  char decimalPoint = 0;
  bool exponents = false;  // a sign may follow one, and what may stand once may stand again
};

Marks numericMarks(bool isDouble) {
  const qm::platform::NumberMarks locale = qm::platform::numberMarks();
  Marks marks{"-+"};
  if (locale.thousandsSeparator != '\0') marks.all += locale.thousandsSeparator;
  if (isDouble) {
    marks.all += locale.decimalPoint;
    marks.all += "eE";
    marks.decimalPoint = locale.decimalPoint;
    marks.exponents = true;
  }
  return marks;
}

/// How often a mark may occur: hours, minutes and seconds have two separators.
std::size_t timesAllowed(char mark) { return mark == ':' ? 2 : 1; }

/// The first place at which this mark must not stand.
std::size_t badPlaceOf(char mark, std::string_view text, const Marks& marks) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char before = i > 0 ? text[i - 1] : '\0';
    if (marks.exponents && isExponent(text[i]) && text[i] != mark) count = 0;
    if (text[i] != mark) continue;
    if (isSign(mark) && i > 0 && !(marks.exponents && isExponent(before))) return i;
    if (mark == marks.decimalPoint && i > 0 && marks.all.find(before) != kNone) return i;
    if (++count > timesAllowed(mark)) return i;
  }
  return kNone;
}

/// The place of the character to delete: mark by mark, then what does not belong there at all.
std::size_t firstBadPlace(std::string_view text, const Marks& marks) {
  for (const char mark : marks.all) {
    const std::size_t place = badPlaceOf(mark, text, marks);
    if (place != kNone) return place;
  }
  return text.find_first_not_of(marks.all + std::string(kDigits));
}

std::string without(std::string_view text, std::size_t place) {
  return std::string(text).erase(place, 1);
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == kNone) return {};
  return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

/// The text itself when it does not end with the postfix, else without it and the blanks before.
std::string_view withoutPostFix(std::string_view text, const char* postFix) {
  const std::string_view end = trimmed(postFix);
  if (end.empty() || end.size() >= text.size() || !text.ends_with(end)) return text;
  const std::string_view rest = text.substr(0, text.size() - end.size());
  return rest.substr(0, rest.find_last_not_of(" \t") + 1);
}

/// Whether a text is good is not known then, so it stays.
int withoutMemory() {
  qm::logError("QMMixedDataC::ValidateInput(): ", QMErrToStr(QMErrors::MemoryAllocationFailed));
  return 0;
}

int toInt(const char* text) {
  return static_cast<int>(std::clamp<long long>(std::strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

}  // namespace

int QMMixedDataC::StripPostFix(CString& text, unsigned flags) const noexcept {
  const std::string_view rest = withoutPostFix(text.view(), GetPostFix(flags));
  if (rest.size() == text.view().size()) return 0;
  text = rest;
  return 1;
}

int QMMixedDataC::VerifyTimeCounter(CString& text) noexcept try {
  const std::string_view time = text.view();
  std::size_t bad = kNone;
  const bool hms = (m_Flags & MD_UNIT) == MD_UNIT_TIMECOUNTER_HMS;
  if (!hms || time.starts_with('-') || time.find_first_of("hms") == kNone) {
    bad = firstBadPlace(time, Marks{":.", '.'});
  } else {
    qm::secondsOfText(time, &bad);
    if (bad == time.size()) return 1;
  }
  if (bad == kNone) return 1;
  timeToString(text, qm::secondsOfText(without(time, bad)));
  return 0;
} catch (const std::bad_alloc&) {
  return withoutMemory();
}

int QMMixedDataC::ValidateInput(CString& text, int useLocale) noexcept try {
  if (text.IsEmpty()) return 1;
  if (isTime()) return VerifyTimeCounter(text);
  if ((m_Flags & MD_TYPE_STRING) != 0) {
    if (m_nWidth == 0 || text.view().size() <= m_nWidth) return 1;
    text = text.view().substr(0, m_nWidth);
    return 0;
  }

  const std::string_view number =
      withoutPostFix(text.view(), GetPostFix(m_Flags & (MD_UNIT | MD_AREA | MD_PER_SECOND)));
  const bool isDouble = (m_Flags & MD_TYPE_DOUBLE) != 0;
  const bool badSign = (m_Flags & MD_UNSIGNED) != 0 && !number.empty() && isSign(number.front());
  const std::size_t bad = badSign ? 0 : firstBadPlace(number, numericMarks(isDouble));
  if (bad == kNone) return 1;
  const std::string rest = without(number, bad);
  if (isDouble) {
    ToString(text, std::strtod(rest.c_str(), nullptr), useLocale);
  } else {
    ToString(text, toInt(rest.c_str()), useLocale);
  }
  return 0;
} catch (const std::bad_alloc&) {
  return withoutMemory();
}
