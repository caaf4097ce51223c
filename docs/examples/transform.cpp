// Lengths and the engine's pixels at the selected resolution.
#include <cstdio>

#include "qmutils/imager/MachineTransformC.h"

int main() {
  const double pixels[] = {1200, 2400};  // around the drum, dots per inch
  const double lines[] = {1200, 2400};   // along it
  MachineTransformC transform(pixels, lines, 2);
  if (transform.SetResolution(2400.0, 1) != QMErrors::NoError) return 1;
  const unsigned width = transform.MMToPixels(25.4, 1);
  std::printf("%u pixels, %.2f mm\n", width, transform.LinesToMM(1200));  // 2400 pixels, 12.70 mm
  return width == 2400 ? 0 : 1;
}
