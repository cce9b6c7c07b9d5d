// Conversions between LocalTime and the C library's broken-down time,
// shared by both backends.
#pragma once

#include <ctime>

#include "platform/clock.h"

namespace platform::common {

inline LocalTime FromTm(const std::tm& tm, int millisecond) {
  LocalTime t;
  t.year = tm.tm_year + 1900;
  t.month = tm.tm_mon + 1;
  t.day = tm.tm_mday;
  t.hour = tm.tm_hour;
  t.minute = tm.tm_min;
  t.second = tm.tm_sec;
  t.millisecond = millisecond;
  t.weekday = tm.tm_wday;
  t.yearday = tm.tm_yday;
  t.daylight = tm.tm_isdst > 0;
  return t;
}

// The calendar fields only; the daylight flag is left for mktime to find.
inline std::tm ToTm(const LocalTime& t) {
  std::tm tm{};
  tm.tm_year = t.year - 1900;
  tm.tm_mon = t.month - 1;
  tm.tm_mday = t.day;
  tm.tm_hour = t.hour;
  tm.tm_min = t.minute;
  tm.tm_sec = t.second;
  tm.tm_isdst = -1;
  return tm;
}

}  // namespace platform::common
