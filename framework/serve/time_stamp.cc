#include "framework/serve/time_stamp.h"

#include <cstdio>
#include <cstdlib>

#include "platform/clock.h"

namespace framework {

namespace {

int Digits(std::string_view text, size_t at, size_t count) {
  int value = 0;
  for (size_t i = at; i < at + count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t year_of_era = y - era * 400;
  const int64_t day_of_year = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

bool ValidDate(int year, int month, int day) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1) return false;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= kDays[month - 1] + (month == 2 && leap);
}

}  // namespace

std::optional<StampMoment> ReadTimeStamp(std::string_view text) {
  if (text.size() != 16 || text.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  if (text[0] > '1') return std::nullopt;
  StampMoment m;
  m.year = 1900 + Digits(text, 0, 3);
  m.month = Digits(text, 3, 2);
  m.day = Digits(text, 5, 2);
  m.hour = Digits(text, 7, 2);
  m.minute = Digits(text, 9, 2);
  m.second = Digits(text, 11, 2);
  m.millisecond = Digits(text, 13, 3);
  if (!ValidDate(m.year, m.month, m.day) || m.hour > 23 || m.minute > 59 || m.second > 59) return std::nullopt;
  platform::LocalTime local;
  local.year = m.year;
  local.month = m.month;
  local.day = m.day;
  local.hour = m.hour;
  local.minute = m.minute;
  local.second = m.second;
  local.daylight = false;
  m.unix_seconds = platform::FromLocal(&local);
  if (m.unix_seconds == -1) return std::nullopt;
  const int64_t as_if_utc =
      DaysFromCivil(m.year, m.month, m.day) * 86400 + m.hour * 3600 + m.minute * 60 + m.second;
  m.utc_offset_seconds = static_cast<int>(as_if_utc - m.unix_seconds);
  return m;
}

std::string Iso8601(const StampMoment& m) {
  const int offset = std::abs(m.utc_offset_seconds) / 60;
  char text[40];
  snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d%c%02d:%02d", m.year, m.month, m.day, m.hour,
           m.minute, m.second, m.millisecond, m.utc_offset_seconds < 0 ? '-' : '+', offset / 60, offset % 60);
  return text;
}

}  // namespace framework
