#include "platform/clock.h"

#include <ctime>

#include "platform/common/tm.h"

namespace platform {

using common::FromTm;

LocalTime NowLocal() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  std::tm tm{};
  localtime_r(&ts.tv_sec, &tm);
  return FromTm(tm, static_cast<int>(ts.tv_nsec / 1000000));
}

int64_t NowUnixSeconds() { return static_cast<int64_t>(time(nullptr)); }

int64_t NowUnixMillis() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool ToLocal(int64_t unix_seconds, LocalTime* out) {
  time_t t = static_cast<time_t>(unix_seconds);
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr) return false;
  *out = FromTm(tm, 0);
  return true;
}

bool ToUtc(int64_t unix_seconds, LocalTime* out) {
  time_t t = static_cast<time_t>(unix_seconds);
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr) return false;
  *out = FromTm(tm, 0);
  return true;
}

int64_t FromLocal(LocalTime* local) {
  std::tm tm = common::ToTm(*local);
  const time_t t = mktime(&tm);
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
