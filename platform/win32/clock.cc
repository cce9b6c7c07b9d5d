#include "platform/clock.h"

#include <windows.h>

#include <ctime>

#include "platform/common/tm.h"

namespace platform {

using common::FromTm;

LocalTime NowLocal() {
  SYSTEMTIME st;
  GetLocalTime(&st);
  LocalTime t;
  t.year = st.wYear;
  t.month = st.wMonth;
  t.day = st.wDay;
  t.hour = st.wHour;
  t.minute = st.wMinute;
  t.second = st.wSecond;
  // mktime fills the weekday, day of year and daylight flag.
  std::tm filled = common::ToTm(t);
  if (_mktime64(&filled) != -1) t = FromTm(filled, 0);
  t.hour = st.wHour;  // keep the clock's own reading across a DST change
  t.millisecond = st.wMilliseconds;
  return t;
}

int64_t NowUnixSeconds() { return static_cast<int64_t>(_time64(nullptr)); }

int64_t NowUnixMillis() {
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  const int64_t ticks = (static_cast<int64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  constexpr int64_t kUnixEpochTicks = 116444736000000000;  // 1970-01-01 in 100 ns since 1601
  return (ticks - kUnixEpochTicks) / 10000;
}

bool ToLocal(int64_t unix_seconds, LocalTime* out) {
  __time64_t t = unix_seconds;
  std::tm tm{};
  if (_localtime64_s(&tm, &t) != 0) return false;
  *out = FromTm(tm, 0);
  return true;
}

bool ToUtc(int64_t unix_seconds, LocalTime* out) {
  __time64_t t = unix_seconds;
  std::tm tm{};
  if (_gmtime64_s(&tm, &t) != 0) return false;
  *out = FromTm(tm, 0);
  return true;
}

int64_t FromLocal(LocalTime* local) {
  std::tm tm = common::ToTm(*local);
  const __time64_t t = _mktime64(&tm);
  if (t == -1) return -1;
  *local = FromTm(tm, local->millisecond);
  return static_cast<int64_t>(t);
}

uint64_t MonotonicMillis() { return GetTickCount64(); }

void SleepMillis(uint32_t milliseconds) { Sleep(milliseconds); }

}  // namespace platform
