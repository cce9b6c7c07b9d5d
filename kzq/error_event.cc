#include "kzq/error_event.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "kvc/string_time.h"
#include "kzq/catalogue.h"
#include "kzq/sample_rows.h"
#include "platform/clock.h"
#include "platform/text.h"

namespace kzq {
namespace {

constexpr size_t kIssuerLength = 7;

int EventOffset() { return kzqerror_spec.offsets[kzqerror_spec.IndexOf("MSGTIME")]; }

int FieldWidth(const char* upper_name) { return kzqerror_spec.attributes[kzqerror_spec.IndexOf(upper_name)].width; }

// At most `limit` bytes of UTF-8 text, never ending inside a character.
std::string CutUtf8(std::string text, size_t limit) {
  if (text.size() <= limit) return text;
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
  return text;
}

bool IsHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }

// The message as UTF-8 for a field of `width` bytes. A message that does
// not fit with a terminator is cut to the first half of its units, leaving
// out the first half of a surrogate pair the cut would split, and then to
// the field.
std::string MessageText(const std::u16string& text, size_t width) {
  std::string utf8 = platform::Utf16ToUtf8(text);
  if (utf8.size() + 1 > width) {
    size_t half = text.size() / 2;
    if (half > 0 && IsHighSurrogate(text[half - 1])) --half;
    utf8 = platform::Utf16ToUtf8(std::u16string_view(text).substr(0, half));
  }
  return CutUtf8(std::move(utf8), width);
}

std::string TimeStamp(const LogTime& t) {
  char stamp[64];
  snprintf(stamp, sizeof stamp, "%03d%02d%02d%02d%02d%02d%03d", t.year, t.month, t.day, t.hour, t.minute, t.second, 0);
  return stamp;
}

// Whole minutes from the line's local time to `now`, toward zero.
int32_t MinutesSince(const LogTime& t, int64_t now) {
  platform::LocalTime local;
  local.year = t.year + 1900;
  local.month = t.month;
  local.day = t.day;
  local.hour = t.hour;
  local.minute = t.minute;
  local.second = t.second;
  const int64_t then = platform::FromLocal(&local);
  if (then == -1) return 0;
  const double minutes = std::trunc(static_cast<double>(now - then) / 60.0);
  if (minutes > INT32_MAX) return INT32_MAX;
  if (minutes < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(minutes);
}

std::string SampleTime(int64_t now) {
  platform::LocalTime local;
  if (!platform::ToLocal(now, &local)) return {};
  local.millisecond = 0;
  char stamp[64];
  return kvc::FormatTime(local, stamp, 4);
}

}  // namespace

int ErrorEventLength() { return kzqerror_spec.row_size - EventOffset(); }

std::string BuildErrorEvent(const EventInputs& in) {
  RowBuilder row(kzqerror_spec);
  row.Fill(' ');
  const std::string source = platform::Utf16ToUtf8(in.source_word);
  row.SetText("MSGTIME", TimeStamp(in.time), ' ');
  row.SetInt("MSGAGE", MinutesSince(in.time, in.now));
  row.SetText("ERRORID", std::to_string(in.error), ' ');
  row.SetInt("SEVERITY", in.severity);
  row.SetInt("SQLSTATE", in.state);
  row.SetText("MSGISSUER", CutUtf8(source, kIssuerLength), ' ');
  row.SetText("SAMPTIME", SampleTime(in.now), ' ');
  row.SetText("UMSGTEXT", MessageText(in.text, static_cast<size_t>(FieldWidth("UMSGTEXT"))), ' ');
  row.SetText("ERRSPID", CutUtf8(source, static_cast<size_t>(FieldWidth("ERRSPID"))), ' ');
  return std::string(reinterpret_cast<const char*>(row.Data()) + EventOffset(),
                     static_cast<size_t>(ErrorEventLength()));
}

std::string BuildErrorRow(const std::string& event, const std::string& origin_node, const char* server_id,
                          const char* host_name, const std::string& time_stamp) {
  RowBuilder row(kzqerror_spec);
  row.Fill(' ');
  row.SetLeading(origin_node, 1, time_stamp);
  if (server_id != nullptr) row.SetText("SERVERID", server_id, ' ');
  if (host_name != nullptr) row.SetText("HOSTNAME", host_name, ' ');
  std::string bytes(reinterpret_cast<const char*>(row.Data()), static_cast<size_t>(kzqerror_spec.row_size));
  const size_t n = std::min(event.size(), static_cast<size_t>(ErrorEventLength()));
  bytes.replace(static_cast<size_t>(EventOffset()), n, event, 0, n);
  return bytes;
}

}  // namespace kzq
