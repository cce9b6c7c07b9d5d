#include "kvc/string_time.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"

namespace kvc {
namespace {

constexpr size_t kFormatBuffer = 64;
constexpr size_t kMaxDateText = 99;

int NormaliseYear(int year) {
  if (year >= 1900) return year;
  return year < 81 ? year + 2000 : year + 1900;
}

bool IsTrimmed(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\'' || c == '"'; }

std::string TrimDateText(const char* text, int length) {
  size_t n = length < 1 ? strlen(text) : strnlen(text, static_cast<size_t>(length));
  if (n > kMaxDateText) n = kMaxDateText;
  size_t begin = 0;
  while (begin < n && IsTrimmed(text[begin])) ++begin;
  while (n > begin && IsTrimmed(text[n - 1])) --n;
  return std::string(text + begin, n - begin);
}

bool IsSpecialStamp(const std::string& s) {
  return s.size() == kTimeStampLength && s.compare(0, 15, "000000000000000") == 0 &&
         s[15] >= '0' && s[15] <= '3';
}

int DaysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

struct DateFields {
  int value[6] = {0, 0, 0, 0, 0, 0};  // year, month, day, hour, minute, second
};

int DigitsAt(const std::string& s, size_t at, size_t count) {
  int v = 0;
  for (size_t i = 0; i < count; ++i) v = v * 10 + (s[at + i] - '0');
  return v;
}

// The plain digit forms: YYYYMMDDHHMMSS and the stamp CYYMMDDHHMMSSmmm.
bool ReadDigitForm(const std::string& s, DateFields* f) {
  if (s.find_first_not_of("0123456789") != std::string::npos) return false;
  size_t at = 0;
  if (s.size() == 14) {
    f->value[0] = DigitsAt(s, 0, 4);
    at = 4;
  } else if (s.size() == kTimeStampLength) {
    f->value[0] = 1900 + DigitsAt(s, 0, 3);
    at = 3;
  } else {
    return false;
  }
  for (int i = 1; i < 6; ++i, at += 2) f->value[i] = DigitsAt(s, at, 2);
  return true;
}

// Fields separated by single non-digit characters; hour, minute and second
// may be left out, and a fraction after the second is dropped.
int ReadSeparatedForm(const std::string& s, DateFields* f) {
  size_t p = 0;
  int field = 0;
  while (p < s.size() && field < 7) {
    if (!isdigit(static_cast<unsigned char>(s[p]))) return field == 0 ? kDateUnreadable : kDateTrailingText;
    long v = 0;
    size_t digits = 0;
    while (p < s.size() && isdigit(static_cast<unsigned char>(s[p])) && digits < 9) {
      v = v * 10 + (s[p++] - '0');
      ++digits;
    }
    if (field < 6) f->value[field] = static_cast<int>(v);
    ++field;
    if (p >= s.size()) {
      Log('t', "udt8081", "tcpin:%s %c.\n", s.c_str() + p, ' ');
      break;
    }
    Log('t', "udt8082", "tcpin:%s %c\n", s.c_str() + p + 1, s[p]);
    ++p;
    if (p >= s.size()) return kDateTrailingText;
  }
  if (p < s.size()) return kDateTrailingText;
  return field < 3 ? kDateUnreadable : 0;
}

// The years a stamp can hold: its century digit C counts from 1900.
constexpr int kFirstStampYear = 1900;
constexpr int kLastStampYear = 2899;

int CheckFields(DateFields* f) {
  f->value[0] = NormaliseYear(f->value[0]);
  const int* v = f->value;
  // A year outside the stamp's range would print as more (or other) than
  // its three digits and leave no room for the terminator.
  if (v[0] < kFirstStampYear || v[0] > kLastStampYear) return kDateUnreadable;
  if (v[1] < 1 || v[1] > 12) return kDateBadMonth;
  if (v[2] < 1 || v[2] > DaysInMonth(v[0], v[1])) return kDateBadDay;
  if (v[3] > 23) return kDateBadHour;
  if (v[4] > 59) return kDateBadMinute;
  if (v[5] > 59) return kDateBadSecond;
  return 0;
}

}  // namespace

char* FormatTime(const platform::LocalTime& t, char* buffer, int form) {
  const int year = NormaliseYear(t.year);
  switch (form) {
    case 1:
      snprintf(buffer, kFormatBuffer, "%04d/%02d/%02d %02d:%02d:%02d", year, t.month, t.day,
               t.hour, t.minute, t.second);
      break;
    case 2: {
      std::tm tm{};
      tm.tm_year = year - 1900;
      tm.tm_mon = t.month - 1;
      tm.tm_mday = t.day;
      tm.tm_hour = t.hour;
      tm.tm_min = t.minute;
      tm.tm_sec = t.second;
      tm.tm_wday = t.weekday;
      tm.tm_yday = t.yearday;
      tm.tm_isdst = t.daylight ? 1 : 0;
      if (strftime(buffer, 49, "%c", &tm) == 0) buffer[0] = '\0';
      break;
    }
    case 3:
      snprintf(buffer, kFormatBuffer, "%03d%02d%02d%02d%02d%02d", year - 1900, t.month, t.day,
               t.hour, t.minute, t.second);
      break;
    case 4:
      snprintf(buffer, kFormatBuffer, "%03d%02d%02d%02d%02d%02d%03d", year - 1900, t.month, t.day,
               t.hour, t.minute, t.second, 0);
      break;
    default:
      snprintf(buffer, kFormatBuffer, "%04d%02d%02d%02d%02d%02d", year, t.month, t.day, t.hour,
               t.minute, t.second);
  }
  return buffer;
}

char* FormatNow(char* buffer, int form) {
  static thread_local char shared[kFormatBuffer];
  return FormatTime(platform::NowLocal(), buffer == nullptr ? shared : buffer, form);
}

int ToTimeStamp(const char* text, int length, char* result) {
  const std::string s = text == nullptr ? std::string() : TrimDateText(text, length);
  if (IsSpecialStamp(s)) {
    memcpy(result, s.c_str(), kTimeStampLength + 1);
    return 0;
  }
  DateFields f;
  int error = ReadDigitForm(s, &f) ? 0 : ReadSeparatedForm(s, &f);
  if (error == 0) error = CheckFields(&f);
  if (error != 0) {
    snprintf(result, kTimeStampLength + 1, "DateFmtErr=%d", error);
    return error;
  }
  const int* v = f.value;
  char stamp[kFormatBuffer];
  snprintf(stamp, sizeof stamp, "%03d%02d%02d%02d%02d%02d%03d", v[0] - 1900, v[1], v[2], v[3],
           v[4], v[5], 0);
  memcpy(result, stamp, kTimeStampLength + 1);
  return 0;
}

bool ReadTimeStamp(std::string_view stamp, platform::LocalTime* out) {
  const std::string s(stamp);
  DateFields f;
  if (s.size() != kTimeStampLength || !ReadDigitForm(s, &f) || CheckFields(&f) != 0) return false;
  *out = platform::LocalTime{};
  int* const fields[] = {&out->year, &out->month, &out->day, &out->hour, &out->minute, &out->second};
  for (int i = 0; i < 6; ++i) *fields[i] = f.value[i];
  out->millisecond = DigitsAt(s, 13, 3);
  return true;
}

int64_t StringToTime(const char* text, platform::LocalTime* out) {
  if (Options().trace_detail) Log('t', "str0002", "str2timet(\"%s\",%p)", text, static_cast<void*>(out));
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, hundredths = 0;
  const int form = sscanf(text, "%4u %*1[/-] %2u %*1[/-] %2u %2u %*1[:.] %2u%*1[:.] %2u.%2u",
                          &year, &month, &day, &hour, &minute, &second, &hundredths);
  platform::LocalTime t;
  t.year = static_cast<int>(year);
  t.month = static_cast<int>(month);
  t.day = static_cast<int>(day);
  t.hour = static_cast<int>(hour);
  t.minute = static_cast<int>(minute);
  t.second = static_cast<int>(second);
  t.millisecond = static_cast<int>(hundredths) * 10;
  const int64_t seconds = form >= 6 ? platform::FromLocal(&t) : -1;
  if (seconds == -1) {
    Log('w', "str0006", "Invalid str2timet: %s", text);
    return -1;
  }
  if (Options().trace_detail)
    Log('t', "str0004",
        "str2timet struct tm: form=%d, year=%d, mon=%d, date=%d, hour=%d, min=%d, sec=%d, "
        "weekday(Sun=0)=%d, Julian=%d, %s Time",
        form, t.year - 1900, t.month - 1, t.day, t.hour, t.minute, t.second, t.weekday, t.yearday,
        t.daylight ? "Daylight" : "Standard");
  *out = t;
  return seconds;
}

size_t BoundedLength(const char* text, size_t limit) {
  if (text == nullptr) return 0;
  const size_t n = strnlen(text, limit);
  if (n == limit && Options().length_warning)
    Log('t', "usl0305", "Exceeded max length on strlen:%.10s, %d", text + limit, static_cast<int>(limit));
  return n;
}

void CopyFixed(char* field, size_t width, std::string_view source) {
  const size_t n = source.size() < width ? source.size() : width;
  memcpy(field, source.data(), n);
  memset(field + n, ' ', width - n);
}

int QuoteText(const char* text, char quote, char blank, char* out, size_t out_size) {
  const bool needs_quotes = strchr(text, quote) != nullptr || strchr(text, blank) != nullptr;
  size_t used = 0;
  const auto put = [&](char c) {
    if (used + 1 >= out_size) return false;
    out[used++] = c;
    return true;
  };
  bool ok = !needs_quotes || put(quote);
  for (const char* p = text; ok && *p != '\0'; ++p) ok = (*p != quote || put(quote)) && put(*p);
  ok = ok && (!needs_quotes || put(quote));
  if (!ok || out_size == 0) return -1;
  out[used] = '\0';
  return static_cast<int>(used);
}

}  // namespace kvc
