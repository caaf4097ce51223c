// A typed value shown to an operator, read back, and converted into another unit.
#include <cstdio>
#include <cstring>

#include "qmutils/data/QMMixedDataC.h"

int main() {
  QMMixedDataC margin(CMDFormat::MD_TYPE_DOUBLE | CMDFormat::MD_UNIT_MM, 0, 2);
  margin.SetValue(12.5);
  CString text;
  std::puts(margin.AToString(text, 0));  // 12.50 mm

  CString typed("13.x7 mm");
  if (margin.ValidateInput(typed, 0) == 0) std::puts(typed);  // 13.70 mm
  margin.FromString(typed, false);

  double inches = margin.GetValue(&inches);
  inches = margin.ConvertBetweenUnits(inches, margin.GetFlags() | CMDFormat::MD_CONVERT_UNITS,
                                      CMDFormat::MD_UNIT_MM, CMDFormat::MD_UNIT_INCH, 4, 1.0);
  std::printf("%.4f\n", inches);  // 0.5394

  QMMixedDataC rate(CMDFormat::MD_TYPE_DOUBLE | CMDFormat::MD_UNIT_BITRATE, 0, 1);
  rate.SetValue(2500000.0);
  std::puts(rate.AToString(text, 0));  // 2.5 Mb/s
  return std::strcmp(typed, "13.70 mm") == 0 && std::strcmp(text, "2.5 Mb/s") == 0 ? 0 : 1;
}
