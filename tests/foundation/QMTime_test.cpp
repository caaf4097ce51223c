#include "qmutils/foundation/QMTime.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>

#include "qmutils/foundation/QMTimeC.h"
#include "qmutils/foundation/RealSecondsC.h"
#include "qmutils/platform/clock.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TimeZone.h"

namespace {

using qm::platform::fileTimeFromTicks;
using qm::platform::fileTimeTicks;

std::int64_t ticks(double seconds) {
  return static_cast<std::int64_t>(fileTimeTicks(ToFileTime(seconds)));
}

template <class T>
std::string printed(const T& value) {
  std::ostringstream os;
  os << std::hex << value;
  return os.str();
}

TEST(QMTime, ConvertsSecondsAndTicks) {
  EXPECT_EQ(ToSeconds(fileTimeFromTicks(14999999)), 1u);
  EXPECT_EQ(ToSeconds(fileTimeFromTicks(15000000)), 2u);
  EXPECT_DOUBLE_EQ(ToRealSeconds(fileTimeFromTicks(15000000)), 1.5);
  EXPECT_DOUBLE_EQ(ToRealSeconds(fileTimeFromTicks(~std::uint64_t{0} - 9999999)), -1.0);
  EXPECT_EQ(fileTimeTicks(ToFileTime(std::uint64_t{12807263183})), 128072631830000000u);
  EXPECT_EQ(ticks(-0.25), -2500000);
  EXPECT_EQ(ticks(0.00000005), 1);
  EXPECT_EQ(ticks(-0.00000005), -1);
  EXPECT_EQ(ticks(0.00000004), 0);
  EXPECT_EQ(ticks(1e300), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(ticks(-INFINITY), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(ticks(NAN), 0);
  EXPECT_TRUE(IsZero({0, 0}) && !IsZero({0, 1}) && !IsZero({1, 0}));
}

TEST(QMTime, ConvertsAndPrintsDates) {
  const char* const text = "Mon Nov 06 14:03:07.000 2006";
  const SYSTEMTIME time = ToSystemTime(std::uint64_t{12807295387});
  EXPECT_EQ(printed(time), text);
  EXPECT_EQ(ToSeconds(time), 12807295387u);
  EXPECT_EQ(ToSystemTime(~std::uint64_t{0} / 10'000'000).wYear, 0) << "out of range";
  EXPECT_EQ(ToSeconds(SYSTEMTIME{2006, 2, 0, 30, 0, 0, 0, 0}), 0u) << "no such day";
  std::tm tm{};
  tm.tm_year = 106, tm.tm_mon = 10, tm.tm_mday = 6, tm.tm_wday = 1;
  tm.tm_hour = 14, tm.tm_min = 3, tm.tm_sec = 7;
  EXPECT_EQ(printed(ToSystemTime(tm)), text);
  EXPECT_EQ(printed(SYSTEMTIME{2006, 0, 7, 6, 1, 2, 3, 4}), "??? ??? 06 01:02:03.004 2006");
  EXPECT_EQ(printed(SYSTEMTIME{1601, 13, 0, 1, 0, 0, 0, 0}), "Sun ??? 01 00:00:00.000 1601");
  EXPECT_EQ(printed(FILETIME{0, 0}), "Mon Jan 01 00:00:00.000 1601");
  EXPECT_EQ(printed(FILETIME{0, 0x80000000}), "Invalid File Time");
}

TEST(QMTime, SplitsDurations) {
  unsigned days, hours, minutes, seconds, ms;
  const std::pair<double, const char*> kCases[] = {{90061.5, "1 1:1:1.500"},
                                                   {86399.875, "0 23:59:59.875"},
                                                   {0.0, "0 0:0:0.0"},
                                                   {-5.5, "0 0:0:0.0"},
                                                   {NAN, "0 0:0:0.0"}};
  for (const auto& [duration, expected] : kCases) {
    Split(duration, days, hours, minutes, seconds, ms);
    std::ostringstream os;
    os << days << ' ' << hours << ':' << minutes << ':' << seconds << '.' << ms;
    EXPECT_EQ(os.str(), expected);
  }
  Split(90061.5, hours, minutes, seconds, ms);
  EXPECT_EQ(hours, 1u);
  Split(1e30, days, hours, minutes, seconds, ms);
  EXPECT_EQ(days, std::numeric_limits<unsigned>::max());
}

class TimeNow : public testing::Test {
 protected:
  qmtest::TimeZone zone_{"CET-1"};
  qmtest::FakeClock clock_;
};

TEST_F(TimeNow, InEachForm) {
  EXPECT_EQ(printed(GetSystemTime()), "Mon Nov 06 14:03:07.045 2006");
  EXPECT_EQ(printed(GetLocalTime()), "Mon Nov 06 15:03:07.045 2006");
  EXPECT_EQ(printed(GetSystemTimeAsFileTime()), "Mon Nov 06 14:03:07.045 2006");
  EXPECT_EQ(GetSystemTimeInSeconds(), 12807295387u);
  EXPECT_EQ(GetLocalTimeInSeconds(), 12807298987u);
  EXPECT_EQ(QMTimeC::GetTimeMS(), 12807298987045);
  EXPECT_EQ(QMTimeC::Difference(3, 5), -2);
}

TEST_F(TimeNow, StopwatchCountsAndGivesTheRestOfATimeOut) {
  RealSecondsC watch;
  EXPECT_EQ(watch.Ago(), 0.0);
  const double start = watch.Time();
  clock_.advanceMs(1500);
  EXPECT_DOUBLE_EQ(watch.Ago(), 1.5);
  EXPECT_EQ(watch.Time(), start);
  const std::pair<DWORD, DWORD> kTimeOuts[] = {
      {0, 0},    {INFINITE, INFINITE},           {2000, 501}, {1500, 0}, {1, 0},
      {1501, 2}, {0xFFFFFFFE, 0xFFFFFFFE - 1499}};
  for (const auto& [timeout, left] : kTimeOuts) {
    EXPECT_NEAR(watch.NextTimeOut(timeout), left, timeout == 1501 ? 1 : 0) << timeout;
  }
  EXPECT_EQ(printed(watch).find(" (15:03:07.045 1500 mSec ago)"), printed(watch).find(' '));
  watch.Reset();
  EXPECT_EQ(watch.Ago(), 0.0);
  EXPECT_EQ(watch.NextTimeOut(0xFFFFFFFE), 0xFFFFFFFE) << "must not become infinite";
  LARGE_INTEGER ahead;
  ahead.QuadPart = qm::platform::performanceCounter() + 1000;
  EXPECT_EQ(RealSecondsC(ahead).Ago(), 0.0);
}

}  // namespace
