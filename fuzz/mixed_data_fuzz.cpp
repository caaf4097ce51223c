// Any text into a typed value of any type, unit and format: a result without undefined behaviour,
// repairs that come to an end, and numbers that read back as what was shown.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qmutils/data/QMMixedDataC.h"

namespace {

constexpr int kMaxRepairs = 8;

class Value : public QMMixedDataC {
 public:
  using QMMixedDataC::FromTimeCounter;
  using QMMixedDataC::QMMixedDataC;
};

struct Head {
  std::uint32_t flags;
  std::uint32_t precision;
  std::uint16_t width;
  double number;
};

/// Whole numbers with a decimal form come back as they were.
void checkRoundTrip(const Head& head, double number) {
  if (!(number > -1e9 && number < 1e9)) return;
  const int whole = static_cast<int>(number);
  QMMixedDataC value(CMDFormat::MD_TYPE_INT |
                         static_cast<CMDFormat::FormatFlagsT>(head.flags & CMDFormat::MD_UNIT),
                     head.width % 40, 0);
  const unsigned unit = head.flags & CMDFormat::MD_UNIT;
  if (unit == CMDFormat::MD_UNIT_BITRATE || unit == CMDFormat::MD_UNIT_POWER) return;
  if (unit == CMDFormat::MD_UNIT_TIMECOUNTER || unit == CMDFormat::MD_UNIT_TIMECOUNTER_HMS) {
    value = QMMixedDataC(CMDFormat::MD_TYPE_INT, 0, 0);
  }
  value.SetValue(whole);
  CString text;
  value.AToString(text, 0);
  value.SetValue(0);
  value.FromString(text, false);
  int back;
  if (value.GetValue(&back) != whole) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Head head;
  if (size < sizeof head) return 0;
  std::memcpy(&head, data, sizeof head);
  const std::string text(reinterpret_cast<const char*>(data) + sizeof head, size - sizeof head);

  Value value(static_cast<CMDFormat::FormatFlagsT>(head.flags), head.width, head.precision);
  CString input(text.c_str());
  // What a repair has written is acceptable soon; only the prefix "0x" never is.
  int repairs = 0;
  while (value.ValidateInput(input, 0) == 0 && ++repairs < kMaxRepairs) continue;
  const bool hex = (head.flags & CMDFormat::MD_RADIX) == CMDFormat::MD_RADIX_HEX;
  if (repairs == kMaxRepairs && !hex) std::abort();
  value.FromString(text.c_str(), false);
  value.AToString(input, 0);
  value.FromTimeCounter(text.c_str(), nullptr);
  value.SetValue(head.number);
  value.AToString(input, 0);
  value.ToTimeCounterString(input, head.number);
  value.ToTimeCounterStringHMS(input, head.number);
  for (unsigned from = 0; from < 16; ++from) {
    for (unsigned to = 0; to < 16; ++to) {
      const double scale = head.number;
      value.ConvertBetweenUnits(head.number, head.flags, from << 20, to << 20, head.precision,
                                scale);
      value.ConvertBetweenUnits(static_cast<int>(head.width), head.flags, from << 20, to << 20,
                                head.precision, scale);
      value.ConvertBetweenUnits(head.precision, head.flags, from << 20, to << 20, head.precision,
                                scale);
    }
  }
  checkRoundTrip(head, head.number);
  return 0;
}
