// Plates, clipping margins and the machine's transform.
#include <gtest/gtest.h>

#include <cmath>
#include <iomanip>
#include <sstream>
#include <string>

#include "qmutils/imager/EngineClipDataC.h"
#include "qmutils/imager/MachineTransformC.h"
#include "qmutils/imager/QMPlateC.h"
#include "tests/support/LogCapture.h"

namespace {

using QMErrors::NoError;

TEST(QMPlateC, CalibrationTakesTheName) {
  const std::string longest(255, 'n'), tooLong(256, 'n');
  QMPlateC plate("name", 1.5, 2.5, 30, 1, 3.5, QMPlateC::PowerTypeT(4), "cal", 5);
  EXPECT_STREQ(plate.GetName(), "");
  EXPECT_STREQ(plate.GetCalibration(), "cal");
  EXPECT_EQ(plate.SetName(longest.c_str()), NoError);
  EXPECT_EQ(plate.GetName(), longest);
  EXPECT_EQ(plate.SetName(tooLong.c_str()), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(plate.SetName(nullptr), QMErrors::NullObjectProvided);
  EXPECT_EQ(plate.SetCalibration(tooLong.c_str()), QMErrors::BadCommandLineArguments);
  EXPECT_EQ(plate.GetName(), longest) << "a refused text changes nothing";
  const QMPlateC copy(plate);
  EXPECT_EQ(plate.SetCalibration(plate.GetName()), NoError);
  EXPECT_EQ(plate.GetCalibration(), longest);
  EXPECT_STREQ(plate.GetName(), "");
  EXPECT_EQ(plate.SetName("name"), NoError);
  EXPECT_EQ(plate.SetCalibration(nullptr), NoError);
  EXPECT_STREQ(plate.GetName(), "");
  EXPECT_EQ(plate.GetCalibration(), longest);

  EXPECT_EQ(copy.GetName(), longest);
  EXPECT_STREQ(copy.GetCalibration(), "cal");
  EXPECT_DOUBLE_EQ(copy.GetThicknessMM(), 0.3);
  EXPECT_EQ(copy.GetFirst() + copy.GetSecond() + copy.GetThird(), 7.5);
  EXPECT_EQ(copy.IsPositivePlate() + copy.GetPowerType() + copy.GetLast(), 10);
}

TEST(EngineClipDataC, PrintsAndConverts) {
  EngineClipDataC clip = EngineClipDataS{0, 2, 26, 0xFFFFFFFF, 3, 4};
  EngineClipDataS& record = clip;
  record.m_nSlowTrailingLines = 16;
  const std::string text =
      "m_bEnableClipping = FALSE\nm_bClipColor = TRUE\nm_nFastLeadingPixels = 1a, (26)\n"
      "m_nFastTrailingPixels = ffffffff, (4294967295)\nm_nSlowLeadingLines = 3, (3)\n"
      "m_nSlowTrailingLines = 10, (16)\n";
  std::ostringstream os;
  os << std::uppercase << std::setw(40) << clip;
  EXPECT_EQ(os.str(), text);
  qmtest::LogCapture log(5);
  for (const unsigned level : {9u, 2u}) {
    QMLogStreamC line(nullptr, nullptr, nullptr, nullptr);
    line.SetMessageLevel(level);
    line << clip << std::endl;
  }
  EXPECT_EQ(log.text(), text + "\n");
  clip = EngineClipDataC();
  EXPECT_EQ(record.m_nSlowTrailingLines, 0u);
}

TEST(MachineTransformC, ConvertsAtTheSelectedResolution) {
  class Transform : public MachineTransformC {
   public:
    using MachineTransformC::GetPPMetre;
    using MachineTransformC::MachineTransformC;
  };
  const double pixels[] = {1200, 2400}, lines[] = {1200, 4800};
  Transform transform(pixels, lines, 2);
  EXPECT_EQ(transform.SetResolution(2400.0, 1), NoError);
  EXPECT_EQ(transform.GetResolution(0), 4800);
  EXPECT_EQ(transform.SetResolution(2400.1, 1), QMErrors::ResolutionOutsideValidRange);
  EXPECT_EQ(transform.SetResolution(2400.0, 0), QMErrors::ResolutionOutsideValidRange);
  EXPECT_EQ(transform.GetResolution(1), 2400) << "the index stays";
  EXPECT_EQ(transform.GetResolution(0u, 1), 1200);

  EXPECT_EQ(transform.MetreToPixels(0.0254, 1), 2400u);
  EXPECT_EQ(transform.MMToPixels(25.4 * 10.5 / 2400, 1), 11u) << "half a pixel rounds up";
  EXPECT_EQ(transform.MMToPixels(25.4 * 10.49 / 2400, 1), 10u);
  EXPECT_EQ(transform.MMToLines(25.4), 4800u);
  EXPECT_EQ(transform.MetreToLines(-1), 0u);
  EXPECT_EQ(transform.MetreToLines(1e9), 4294967295u);
  EXPECT_DOUBLE_EQ(transform.PixelsToMM(2400, 1), 25.4);
  EXPECT_DOUBLE_EQ(transform.LinesToMetre(4800), 0.0254);
  EXPECT_DOUBLE_EQ(transform.LinesToMM(4800), 25.4);
  EXPECT_DOUBLE_EQ(transform.GetPixelSizeM(), 0.0254 / 2400);
  EXPECT_DOUBLE_EQ(transform.GetPPMetre(0), 4800 / 0.0254);

  EXPECT_EQ(transform.SetResolution(7u), NoError);
  EXPECT_EQ(transform.GetResolution(1), 0) << "behind the end there is none";
  EXPECT_TRUE(std::isinf(transform.PixelsToMM(1, 1)));
  EXPECT_EQ(transform.MetreToPixels(1, 1), 0u);
  EXPECT_EQ(transform.Set(nullptr, lines, 8), NoError);
  EXPECT_EQ(transform.SetResolution(1200.0, 1), QMErrors::ResolutionOutsideValidRange);

  EXPECT_EQ(MachineTransformC::RPStoRPM(2), 120);
  EXPECT_EQ(MachineTransformC::RPMtoRPS(60), 60 * 0.016666666666666666);
}

}  // namespace
