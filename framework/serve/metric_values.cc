#include "framework/serve/metric_values.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "framework/serve/row_json.h"
#include "framework/serve/time_stamp.h"
#include "platform/clock.h"

namespace framework {
namespace {

// Digits at text[at, at + count) as a number; -1 when one is not a digit.
int Digits(const std::string& text, size_t at, size_t count) {
  int value = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

std::optional<int64_t> LocalSeconds(int year, int month, int day, int hour, int minute, int second) {
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  platform::LocalTime local;
  local.year = year;
  local.month = month;
  local.day = day;
  local.hour = hour;
  local.minute = minute;
  local.second = second;
  const int64_t seconds = platform::FromLocal(&local);
  if (seconds < 0) return std::nullopt;
  return seconds;
}

std::optional<int64_t> TimeStampSeconds(const std::string& text) {
  const auto moment = ReadTimeStamp(text);
  if (!moment) return std::nullopt;
  return moment->unix_seconds;
}

// mm/dd/yy, a year below 70 in this century.
std::optional<int64_t> DateSeconds(const std::string& text) {
  if (text.size() != 8 || text[2] != '/' || text[5] != '/') return std::nullopt;
  const int month = Digits(text, 0, 2), day = Digits(text, 3, 2), year = Digits(text, 6, 2);
  if (month < 0 || day < 0 || year < 0) return std::nullopt;
  return LocalSeconds(year < 70 ? 2000 + year : 1900 + year, month, day, 0, 0, 0);
}

}  // namespace

bool ReadsTime(UnitConversion conversion) {
  return conversion == UnitConversion::kTimeStamp || conversion == UnitConversion::kTimeStampAge ||
         conversion == UnitConversion::kDateAge;
}

std::optional<double> ConvertNumber(UnitConversion conversion, int64_t equals, int64_t value) {
  const double v = static_cast<double>(value);
  switch (conversion) {
    case UnitConversion::kAsIs:
      return v;
    case UnitConversion::kMegabytes:
      return v * 1024 * 1024;
    case UnitConversion::kKilobytes:
      return v * 1024;
    case UnitConversion::kPercent:
      return v / 100;
    case UnitConversion::kMilliseconds:
      return v / 1000;
    case UnitConversion::kMinutes:
      return v * 60;
    case UnitConversion::kEquals:
      return value == equals ? 1 : 0;
    case UnitConversion::kTimeStamp:
    case UnitConversion::kTimeStampAge:
    case UnitConversion::kDateAge:
      break;
  }
  return std::nullopt;
}

std::optional<double> ConvertTime(UnitConversion conversion, const std::string& text, int64_t now) {
  const std::optional<int64_t> seconds =
      conversion == UnitConversion::kDateAge ? DateSeconds(text) : TimeStampSeconds(text);
  if (!ReadsTime(conversion) || !seconds) return std::nullopt;
  if (conversion == UnitConversion::kTimeStamp) return static_cast<double>(*seconds);
  return static_cast<double>(std::max<int64_t>(0, now - *seconds));
}

std::optional<int64_t> NumberField(const AttributeDescriptor& attribute, const unsigned char* row) {
  if (attribute.type != kTextType) return IntegerField(attribute, row);
  const std::optional<std::string> text = TextField(attribute, row);
  if (!text || text->empty()) return std::nullopt;
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
  return value;
}

std::optional<double> FamilyValue(const MetricFamilyDescription& family, const AttributeDescriptor& attribute,
                                  const unsigned char* row, int64_t now) {
  if (ReadsTime(family.conversion)) {
    const std::optional<std::string> text = TextField(attribute, row);
    return text ? ConvertTime(family.conversion, *text, now) : std::nullopt;
  }
  const std::optional<int64_t> number = NumberField(attribute, row);
  return number ? ConvertNumber(family.conversion, family.equals, *number) : std::nullopt;
}

std::string ValueText(double value) {
  if (std::isnan(value)) return "NaN";
  char buffer[400];
  // Whole numbers in full ("100000000", not "1e+08"): easier to read, same value.
  const bool whole = std::fabs(value) < 9007199254740992.0 && value == std::floor(value);
  const auto result = whole ? std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed)
                            : std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

}  // namespace framework
