// The time zone of a test: in force while the object lives.
#pragma once

#include <cstdlib>
#include <ctime>

namespace qmtest {

struct TimeZone {
  explicit TimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~TimeZone() {
    unsetenv("TZ");
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
};

}  // namespace qmtest
