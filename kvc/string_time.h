// Time stamps, bounded strings and the fixed-width fields of rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/clock.h"

namespace kvc {

// The 16-character time stamp CYYMMDDHHMMSSmmm plus its terminator.
inline constexpr size_t kTimeStampLength = 16;

// ToTimeStamp's error for a text that cannot be read as a date at all; the
// numbers above it name the field that was out of range.
inline constexpr int kDateUnreadable = 519;
inline constexpr int kDateBadMonth = 520;
inline constexpr int kDateBadDay = 521;
inline constexpr int kDateBadHour = 522;
inline constexpr int kDateBadMinute = 523;
inline constexpr int kDateBadSecond = 524;
inline constexpr int kDateTrailingText = 525;

// The current local time as text in `buffer` (at least 64 bytes), or in a
// static buffer when it is null. Forms: 1 "2026/11/13 07:10:05", 2 the
// locale's "%c", 3 "1261113071005", 4 "1261113071005000", any other
// "20261113071005".
char* FormatNow(char* buffer, int form);

// FormatNow for a given time.
char* FormatTime(const platform::LocalTime& time, char* buffer, int form);

// Reads a date and time (year, month, day, hour, minute, second, separated
// by single non-digit characters; also the plain digit forms
// YYYYMMDDHHMMSS and the 16-digit stamp) into the 16-character stamp in
// `result` (17 bytes). Only the first `length` characters are read (up to
// the terminator when below 1). Returns 0, or an error number with the
// text "DateFmtErr=<n>" in `result`.
int ToTimeStamp(const char* text, int length, char* result);

// Reads a 16-character stamp CYYMMDDHHMMSSmmm into `out` (date, time and
// milliseconds; weekday and yearday are not set). False when `stamp` is
// not 16 digits or names no real date and time, as the all-zero stamps
// that stand for "no time" do.
bool ReadTimeStamp(std::string_view stamp, platform::LocalTime* out);

// Reads "year/month/day hour:minute:second[.hundredths]" ('-' and '.' also
// accepted as separators). Returns seconds since 1970 and fills `out`, or -1.
int64_t StringToTime(const char* text, platform::LocalTime* out);

// strlen bounded by `limit`; reaching the bound is traced when
// COLL_LENGTH_WARN is on. A null text has length 0.
size_t BoundedLength(const char* text, size_t limit);

// Copies `source` into a row field of `width` bytes: padded with blanks
// when shorter, cut when longer, never terminated.
void CopyFixed(char* field, size_t width, std::string_view source);

// Rewrites `text` for a command line: when it holds `quote` or `blank` it
// is enclosed in `quote` with every `quote` inside doubled; otherwise it is
// copied as it stands. Returns the length written to `out` (terminated), or
// -1 when `out_size` is too small.
int QuoteText(const char* text, char quote, char blank, char* out, size_t out_size);

}  // namespace kvc
