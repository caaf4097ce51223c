#include "qmutils/foundation/LogStamp.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/thread.h"

namespace qm {

namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;
constexpr std::uint64_t kTicksPerMs = 10'000;
constexpr std::size_t kMillisecondsAt = 9;  // in "14:03:07.045 "

struct StampTexts {
  std::uint64_t second = UINT64_MAX;
  char time[16] = {};
  char date[16] = {};
  WORD day = 0;

  void workOut(std::uint64_t ticks) noexcept {
    const SYSTEMTIME local = platform::localSystemTimeAt(ticks);
    std::snprintf(time, sizeof time, "%02u:%02u:%02u.000 ", local.wHour % 100u,
                  local.wMinute % 100u, local.wSecond % 100u);
    std::snprintf(date, sizeof date, " %02u\\%02u\\%04u ", local.wDay % 100u, local.wMonth % 100u,
                  local.wYear % 10'000u);
    day = local.wDay;
    second = ticks / kTicksPerSecond;
  }
};

thread_local StampTexts stampTexts;

}  // namespace

LogStamp LogStamp::now() noexcept {
  StampTexts& texts = stampTexts;
  const std::uint64_t ticks = platform::utcTicks();
  if (ticks / kTicksPerSecond != texts.second) texts.workOut(ticks);
  const auto ms = static_cast<unsigned>(ticks % kTicksPerSecond / kTicksPerMs);
  char* digits = texts.time + kMillisecondsAt;
  digits[0] = static_cast<char>('0' + ms / 100);
  digits[1] = static_cast<char>('0' + ms / 10 % 10);
  digits[2] = static_cast<char>('0' + ms % 10);
  return {texts.time, texts.date, texts.day};
}

LogTag::LogTag(const LogStamp& stamp, bool withDate, unsigned int level) noexcept {
  put(stamp.time);
  if (withDate) put(stamp.date);
  putHex(level, 3);
  put(" 0x");
  putHex(platform::currentThreadId(), 4);
  put(" 0x");
  putHex(static_cast<DWORD>(platform::currentThreadPriority()), 4);
  put(" ");
}

void LogTag::put(std::string_view text) noexcept {
  std::memcpy(text_ + size_, text.data(), text.size());
  size_ += text.size();
}

void LogTag::putHex(DWORD value, std::size_t leastDigits) noexcept {
  char digits[8];
  const char* end = std::to_chars(digits, std::end(digits), value, 16).ptr;
  for (auto count = static_cast<std::size_t>(end - digits); count < leastDigits; ++count) put("0");
  put({digits, end});
}

const char* weekdayName(WORD dayOfWeek) noexcept {
  constexpr const char* kNames[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};
  return kNames[dayOfWeek % std::size(kNames)];
}

}  // namespace qm
