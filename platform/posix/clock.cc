#include "platform/clock.h"

#include <ctime>

namespace platform {
namespace {

LocalTime FromTm(const std::tm& tm, int millisecond) {
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

}  // namespace

LocalTime NowLocal() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  std::tm tm{};
  localtime_r(&ts.tv_sec, &tm);
  return FromTm(tm, static_cast<int>(ts.tv_nsec / 1000000));
}

int64_t NowUnixSeconds() { return static_cast<int64_t>(time(nullptr)); }

bool ToLocal(int64_t unix_seconds, LocalTime* out) {
  time_t t = static_cast<time_t>(unix_seconds);
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr) return false;
  *out = FromTm(tm, 0);
  return true;
}

int64_t FromLocal(LocalTime* local) {
  std::tm tm{};
  tm.tm_year = local->year - 1900;
  tm.tm_mon = local->month - 1;
  tm.tm_mday = local->day;
  tm.tm_hour = local->hour;
  tm.tm_min = local->minute;
  tm.tm_sec = local->second;
  tm.tm_isdst = -1;
  time_t t = mktime(&tm);
  if (t == static_cast<time_t>(-1)) return -1;
  *local = FromTm(tm, local->millisecond);
  return static_cast<int64_t>(t);
}

uint64_t MonotonicMillis() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void SleepMillis(uint32_t milliseconds) {
  timespec ts{static_cast<time_t>(milliseconds / 1000),
              static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

}  // namespace platform
