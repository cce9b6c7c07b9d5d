#include "kzq/errorlog_line.h"

#include <cstdint>
#include <cstring>
#include <string_view>
#include <tuple>

namespace kzq {
namespace {

constexpr int kDefaultDumpSeverity = 17;

// The characters a scan for a word or a number skips.
bool IsSpace(char16_t unit) {
  return unit == u' ' || unit == u'\t' || unit == u'\n' || unit == u'\r' || unit == u'\v' || unit == u'\f';
}

bool IsDigit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }

// The next blank-separated word from `at`, empty when there is none.
std::u16string_view NextWord(std::u16string_view line, size_t* at) {
  while (*at < line.size() && IsSpace(line[*at])) ++*at;
  const size_t begin = *at;
  while (*at < line.size() && !IsSpace(line[*at])) ++*at;
  return line.substr(begin, *at - begin);
}

// A decimal number with an optional sign after optional blanks, held within
// 32 bits. False when there are no digits.
bool ReadNumber(std::u16string_view text, size_t* at, long* value) {
  size_t i = *at;
  while (i < text.size() && IsSpace(text[i])) ++i;
  const bool negative = i < text.size() && text[i] == u'-';
  if (i < text.size() && (text[i] == u'-' || text[i] == u'+')) ++i;
  if (i >= text.size() || !IsDigit(text[i])) return false;
  int64_t magnitude = 0;
  for (; i < text.size() && IsDigit(text[i]); ++i)
    if (magnitude <= INT32_MAX) magnitude = magnitude * 10 + (text[i] - u'0');
  const int64_t limit = negative ? -static_cast<int64_t>(INT32_MIN) : INT32_MAX;
  if (magnitude > limit) magnitude = limit;
  *value = static_cast<long>(negative ? -magnitude : magnitude);
  *at = i;
  return true;
}

// Reads `text` against a pattern as a formatted scan does: a blank in the
// pattern takes any run of blanks (or none), "%d" a number, anything else
// must match exactly. Returns how many numbers were read before the first
// mismatch.
int ScanNumbers(std::u16string_view text, std::string_view pattern, long* values, int capacity) {
  size_t at = 0;
  int count = 0;
  for (size_t p = 0; p < pattern.size(); ++p) {
    if (pattern[p] == ' ') {
      while (at < text.size() && IsSpace(text[at])) ++at;
    } else if (pattern.substr(p, 2) == "%d") {
      if (count == capacity || !ReadNumber(text, &at, &values[count])) break;
      ++count;
      ++p;
    } else if (at < text.size() && text[at] == static_cast<char16_t>(pattern[p])) {
      ++at;
    } else {
      break;
    }
  }
  return count;
}

// The number the units [begin, end) of `word` spell, -1 unless all are
// digits. No branch per unit: the places are fixed.
long FixedNumber(std::u16string_view word, size_t begin, size_t end) {
  long value = 0;
  bool digits = true;
  for (size_t i = begin; i < end; ++i) {
    const unsigned digit = static_cast<unsigned>(word[i]) - u'0';
    digits &= digit <= 9;
    value = value * 10 + static_cast<long>(digit);
  }
  return digits ? value : -1;
}

// The three numbers of a date or time word as the server writes it, read
// at their fixed places: `kFirstDigits` digits, the separator, two digits,
// the separator, two digits, and no digit after them. They are the numbers
// ScanNumbers reads from such a word, without its search for blanks, signs
// and number ends on every line of a long log. False for another shape.
template <size_t kFirstDigits, char16_t kSeparator>
bool ReadFixedShape(std::u16string_view word, long* values) {
  constexpr size_t kSize = kFirstDigits + 6;
  if (word.size() < kSize || (word.size() > kSize && IsDigit(word[kSize]))) return false;
  if (word[kFirstDigits] != kSeparator || word[kFirstDigits + 3] != kSeparator) return false;
  values[0] = FixedNumber(word, 0, kFirstDigits);
  values[1] = FixedNumber(word, kFirstDigits + 1, kFirstDigits + 3);
  values[2] = FixedNumber(word, kFirstDigits + 4, kSize);
  return values[0] >= 0 && values[1] >= 0 && values[2] >= 0;
}

// Whether `part` (not empty) is in `text`. Candidates are found by the low
// byte of its first unit with memchr, many bytes at a time, which is what
// makes the per-line checks of a long log cheap; a hit is then compared
// unit by unit.
bool Contains(std::u16string_view text, std::u16string_view part) {
  if (part.size() > text.size()) return false;
  const size_t last = text.size() - part.size();  // the last unit a match can start at
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const size_t byte_count = 2 * (last + 1);
  const auto low = static_cast<unsigned char>(part[0] & 0xFF);
  for (size_t at = 0; at < byte_count;) {
    const void* hit = memchr(bytes + at, low, byte_count - at);
    if (hit == nullptr) return false;
    const size_t offset = static_cast<size_t>(static_cast<const unsigned char*>(hit) - bytes);
    if (text.substr(offset / 2, part.size()) == part) return true;
    at = offset + 1;
  }
  return false;
}

std::u16string_view WithoutLineEnd(const std::u16string& line) {
  std::u16string_view view = line;
  while (!view.empty() && (view.back() == u'\n' || view.back() == u'\r')) view.remove_suffix(1);
  return view;
}

}  // namespace

bool SplitLogLine(const std::u16string& line, LogLine* out) {
  const std::u16string_view view = WithoutLineEnd(line);
  size_t at = 0;
  const std::u16string_view date = NextWord(view, &at);
  const std::u16string_view time = NextWord(view, &at);
  const std::u16string_view source = NextWord(view, &at);
  if (source.empty()) {
    for (std::u16string* field : {&out->date_word, &out->time_word, &out->source_word, &out->text}) field->clear();
    return false;
  }
  size_t i = date.size() + time.size() + source.size() + 3;
  do {
    ++i;
  } while (i < view.size() && view[i] == u' ');
  out->date_word = date;
  out->time_word = time;
  out->source_word = source;
  out->text = i < view.size() ? view.substr(i) : std::u16string_view();
  return true;
}

bool ParseLineTime(const LogLine& line, LogTime* out) {
  long date[3] = {};
  long time[3] = {};
  if (!ReadFixedShape<4, u'-'>(line.date_word, date) && ScanNumbers(line.date_word, "%d-%d-%d", date, 3) != 3)
    return false;
  if (!ReadFixedShape<2, u':'>(line.time_word, time) && ScanNumbers(line.time_word, "%d:%d:%d", time, 3) != 3)
    return false;
  *out = {static_cast<int>(date[0] - 1900), static_cast<int>(date[1]), static_cast<int>(date[2]),
          static_cast<int>(time[0]),        static_cast<int>(time[1]), static_cast<int>(time[2])};
  return true;
}

bool IsLater(const LogTime& a, const LogTime& b) {
  return std::tie(a.year, a.month, a.day, a.hour, a.minute, a.second) >
         std::tie(b.year, b.month, b.day, b.hour, b.minute, b.second);
}

bool IsErrorLine(const std::u16string& line) {
  return Contains(line, u"Error:") && Contains(line, u"Severity:") && Contains(line, u"State:");
}

bool ParseErrorNumbers(const std::u16string& text, long* error, int* severity, int* state) {
  long values[3] = {};
  if (ScanNumbers(text, "Error: %d, Severity: %d, State: %d.", values, 3) != 3) return false;
  *error = values[0];
  *severity = static_cast<int>(values[1]);
  *state = static_cast<int>(values[2]);
  return true;
}

bool IsSymptomDumpLine(const std::u16string& line) { return Contains(line, u"create symptom dump"); }

bool IsStackDumpSentLine(const std::u16string& line) { return Contains(line, u"**Stack Dump being sent"); }

int SymptomDumpSeverity(const std::u16string& text) {
  long severity = 0;
  if (Contains(text, u"severity=")) ScanNumbers(text, "severity=%d", &severity, 1);
  return severity == 0 ? kDefaultDumpSeverity : static_cast<int>(severity);
}

}  // namespace kzq
