#include "framework/serve/time_stamp.h"

#include <cstdio>
#include <cstdlib>

#include "kvc/string_time.h"
#include "platform/clock.h"

namespace framework {

namespace {

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t year_of_era = y - era * 400;
  const int64_t day_of_year = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

}  // namespace

std::optional<StampMoment> ReadTimeStamp(std::string_view text) {
  platform::LocalTime local;
  if (!kvc::ReadTimeStamp(text, &local)) return std::nullopt;
  StampMoment m;
  m.year = local.year;
  m.month = local.month;
  m.day = local.day;
  m.hour = local.hour;
  m.minute = local.minute;
  m.second = local.second;
  m.millisecond = local.millisecond;
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
