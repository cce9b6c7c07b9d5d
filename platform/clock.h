// Wall clock, local time and monotonic time.
#pragma once

#include <cstdint>

namespace platform {

// A broken-down local time. `year` is the full year (2026), `month` 1-12,
// `weekday` 0 = Sunday, `yearday` 0-365.
struct LocalTime {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
  int weekday = 0;
  int yearday = 0;
  bool daylight = false;
};

// The current local time, with milliseconds.
LocalTime NowLocal();

// Seconds since 1970-01-01 UTC.
int64_t NowUnixSeconds();

// Milliseconds since 1970-01-01 UTC.
int64_t NowUnixMillis();

// The local time of a moment given in seconds since 1970-01-01 UTC.
// Returns false when the moment cannot be represented.
bool ToLocal(int64_t unix_seconds, LocalTime* out);

// The UTC calendar time of a moment; false when it cannot be represented.
bool ToUtc(int64_t unix_seconds, LocalTime* out);

// The moment of a local time (fields normalised as mktime does; weekday and
// yearday are ignored on input and filled on output). -1 when the time
// cannot be represented.
int64_t FromLocal(LocalTime* local);

// Milliseconds from an arbitrary fixed point; never goes backwards.
uint64_t MonotonicMillis();

void SleepMillis(uint32_t milliseconds);

}  // namespace platform
