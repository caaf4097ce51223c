#include "qmutils/platform/clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>

#include "qmutils/platform/error.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TimeZone.h"

namespace qm::platform {
namespace {

constexpr std::uint64_t kTicksPerDay = 864'000'000'000;

bool convert(std::uint64_t ticks, SYSTEMTIME* time) {
  return fileTimeToSystemTime(fileTimeFromTicks(ticks), time);
}

TEST(Clock, EveryDayFrom1601Converts) {
  using namespace std::chrono;
  std::uint64_t ticks = 0;
  for (sys_days day(1601y / 1 / 1); day < sys_days(30828y / 1 / 1); day += days(1)) {
    SYSTEMTIME time{};
    ASSERT_TRUE(convert(ticks + kTicksPerDay - 1, &time));
    const year_month_day date(day);
    ASSERT_TRUE(time.wYear == static_cast<int>(date.year()) &&
                time.wMonth == static_cast<unsigned>(date.month()) &&
                time.wDay == static_cast<unsigned>(date.day()) &&
                time.wDayOfWeek == weekday(day).c_encoding() && time.wHour == 23 &&
                time.wMinute == 59 && time.wSecond == 59 && time.wMilliseconds == 999)
        << "day " << day.time_since_epoch().count();
    FILETIME back{};
    ASSERT_TRUE(systemTimeToFileTime(time, &back));
    ASSERT_EQ(fileTimeTicks(back), (ticks += kTicksPerDay) - 10'000);
  }
  EXPECT_EQ(ticks / kTicksPerDay, 10'674'942u);
}

TEST(Clock, RefusesWhatIsOutOfRange) {
  SYSTEMTIME time{};
  EXPECT_TRUE(convert(0x7FFFFFFFFFFFFFFF, &time));
  EXPECT_EQ(time.wYear, 30828);
  setLastError(0);
  EXPECT_FALSE(convert(0x8000000000000000, &time));
  EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER);
  const SYSTEMTIME kBad[] = {
      {1600, 12, 0, 31, 0, 0, 0, 0}, {30828, 1, 0, 1, 0, 0, 0, 0}, {2006, 0, 0, 1, 0, 0, 0, 0},
      {2006, 13, 0, 1, 0, 0, 0, 0},  {2006, 2, 0, 29, 0, 0, 0, 0}, {1900, 2, 0, 29, 0, 0, 0, 0},
      {2006, 4, 0, 31, 0, 0, 0, 0},  {2006, 1, 0, 0, 0, 0, 0, 0},  {2006, 1, 0, 1, 24, 0, 0, 0},
      {2006, 1, 0, 1, 0, 60, 0, 0},  {2006, 1, 0, 1, 0, 0, 60, 0}, {2006, 1, 0, 1, 0, 0, 0, 1000}};
  FILETIME result{};
  for (const SYSTEMTIME& bad : kBad) {
    setLastError(0);
    EXPECT_FALSE(systemTimeToFileTime(bad, &result));
    EXPECT_EQ(lastError(), ERROR_INVALID_PARAMETER);
  }
  EXPECT_TRUE(systemTimeToFileTime({2000, 2, 6, 29, 0, 0, 0, 0}, &result)) << "weekday is ignored";
}

TEST(Clock, LocalTimeFollowsTheZoneOfItsDate) {
  const qmtest::TimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  qmtest::FakeClock clock;
  clock.setUtc({2006, 10, 0, 29, 0, 59, 59, 999});
  EXPECT_EQ(localSystemTime().wHour, 2);
  clock.advanceMs(1);
  EXPECT_EQ(localSystemTime().wHour, 2) << "the hour comes twice when summer time ends";
  clock.advanceMs(3'600'000);
  EXPECT_EQ(localSystemTime().wHour, 3);
  EXPECT_EQ(utcSystemTime().wHour, 2);
  clock.setUtc({2006, 12, 0, 31, 23, 30, 0, 5});
  const SYSTEMTIME local = localSystemTime();
  EXPECT_EQ(local.wYear, 2007);
  EXPECT_EQ(local.wDay, 1);
  EXPECT_EQ(local.wDayOfWeek, 1);
  EXPECT_EQ(local.wMilliseconds, 5);
}

TEST(Clock, TheSystemsClocksAgreeWithTheCLibrary) {
  const std::int64_t before = monotonicNanoseconds();
  const std::time_t now = std::time(nullptr);
  const auto seconds = static_cast<std::int64_t>(utcTicks() / 10'000'000) - 11'644'473'600;
  EXPECT_LE(std::abs(seconds - now), 2);
  EXPECT_GE(monotonicNanoseconds(), before);
  EXPECT_GT(performanceFrequency(), 0);
}

TEST(Clock, DeadlinesRoundUpAndNeverComeEarly) {
  qmtest::FakeClock clock;
  const Deadline deadline = Deadline::after(10);
  EXPECT_EQ(deadline.remainingMs(), 10u);
  clock.advanceMs(9);
  EXPECT_FALSE(deadline.passed());
  EXPECT_EQ(deadline.remainingMs(), 1u);
  clock.advanceMs(1);
  EXPECT_TRUE(deadline.passed());
  EXPECT_EQ(deadline.remainingMs(), 0u);
  EXPECT_TRUE(Deadline::after(0).passed());
  const Deadline never = Deadline::after(INFINITE);
  const Deadline last = Deadline::after(INFINITE - 1);
  EXPECT_EQ(last.remainingMs(), INFINITE - 1);
  clock.advanceMs(1'000'000'000'000);
  EXPECT_TRUE(last.passed());
  EXPECT_FALSE(never.passed());
  EXPECT_EQ(never.remainingMs(), INFINITE);
}

}  // namespace
}  // namespace qm::platform
