#include "platform/clock.h"

#include <windows.h>

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
  SYSTEMTIME st;
  GetLocalTime(&st);
  std::tm tm{};
  tm.tm_year = st.wYear - 1900;
  tm.tm_mon = st.wMonth - 1;
  tm.tm_mday = st.wDay;
  tm.tm_hour = st.wHour;
  tm.tm_min = st.wMinute;
  tm.tm_sec = st.wSecond;
  tm.tm_isdst = -1;
  // mktime fills the weekday, day of year and daylight flag.
  std::tm filled = tm;
  if (mktime(&filled) == static_cast<time_t>(-1)) filled = tm;
  LocalTime t = FromTm(filled, st.wMilliseconds);
  t.hour = st.wHour;  // keep the clock's own reading across a DST change
  return t;
}

int64_t NowUnixSeconds() { return static_cast<int64_t>(_time64(nullptr)); }

bool ToLocal(int64_t unix_seconds, LocalTime* out) {
  __time64_t t = unix_seconds;
  std::tm tm{};
  if (_localtime64_s(&tm, &t) != 0) return false;
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
  const __time64_t t = _mktime64(&tm);
  if (t == -1) return -1;
  *local = FromTm(tm, local->millisecond);
  return static_cast<int64_t>(t);
}

uint64_t MonotonicMillis() { return GetTickCount64(); }

void SleepMillis(uint32_t milliseconds) { Sleep(milliseconds); }

}  // namespace platform
