// Writes errorlog files as the database server does: UTF-16LE with a
// byte-order mark, CR LF line ends, and lines of
// "YYYY-MM-DD HH:MM:SS.cc <source padded to 12 columns><text>". Every call
// lands in the file at once, so a test can grow a log another part of the
// agent is reading.
#pragma once

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "platform/clock.h"
#include "platform/text.h"

namespace kzq_test {

// Messages beyond ASCII: two-byte, three-byte and four-byte UTF-8.
inline constexpr const char* kGermanText = "Anmeldung für Benutzer „Jürgen“ fehlgeschlagen: Größe überschritten.";
inline constexpr const char* kJapaneseText = "ユーザー 'sa' のログインに失敗しました。";
inline constexpr const char* kEmojiText = "Sicherung 💾 abgeschlossen ✅ 🚀";

// The time written in front of a line.
struct LogClock {
  int year = 2026;
  int month = 11;
  int day = 23;
  int hour = 10;
  int minute = 0;
  int second = 0;
  int hundredths = 0;
};

// UTF-16LE bytes of UTF-8 text.
inline std::string Utf16Bytes(const std::string& utf8) {
  std::string bytes;
  for (char16_t unit : platform::Utf8ToUtf16(utf8)) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

// One line as the server formats it, without its line end.
inline std::string LogLineText(const LogClock& t, const std::string& source, const std::string& text) {
  char stamp[64];
  snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%02d ", t.year, t.month, t.day, t.hour, t.minute,
           t.second, t.hundredths);
  const size_t pad = source.size() < 12 ? 12 - source.size() : 1;
  return stamp + source + std::string(pad, ' ') + text;
}

class ErrorlogWriter {
 public:
  // Starts the file afresh with the byte-order mark and the server's
  // five-line start-up header.
  static ErrorlogWriter Create(const std::string& path, const LogClock& start) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << "\xFF\xFE";
    ErrorlogWriter writer(path, start);
    writer.Info("Server", "SQL Server 2022 (RTM-CU14) - 16.0.4135.4 (X64)")
        .Info("Server", "UTC adjustment: 1:00")
        .Info("Server", "All rights reserved.")
        .Info("Server", "Server process ID is 4242.")
        .Info("Server", "Logging SQL Server messages in file 'C:\\Data\\Log\\ERRORLOG'.");
    return writer;
  }
  // Appends to the file as it is.
  static ErrorlogWriter Append(const std::string& path, const LogClock& start) { return ErrorlogWriter(path, start); }

  ErrorlogWriter& At(const LogClock& time) {
    clock_ = time;
    return *this;
  }
  ErrorlogWriter& Advance(int seconds) {
    platform::LocalTime t;
    if (platform::ToUtc(UtcSeconds(clock_) + seconds, &t))
      clock_ = {t.year, t.month, t.day, t.hour, t.minute, t.second, clock_.hundredths};
    return *this;
  }
  const LogClock& Clock() const { return clock_; }

  ErrorlogWriter& Info(const std::string& source, const std::string& text) {
    return Bytes(Utf16Bytes(LogLineText(clock_, source, text) + "\r\n"));
  }
  // The error line and the message line after it.
  ErrorlogWriter& Error(const std::string& source, long error, int severity, int state, const std::string& message) {
    char numbers[96];
    snprintf(numbers, sizeof numbers, "Error: %ld, Severity: %d, State: %d.", error, severity, state);
    return Bytes(
        Utf16Bytes(LogLineText(clock_, source, numbers) + "\r\n" + LogLineText(clock_, source, message) + "\r\n"));
  }
  // A symptom dump: the line that starts it (`first_text` should hold
  // "create symptom dump"), `detail_lines` lines of detail and, when
  // `finished`, the line that names the dump file.
  ErrorlogWriter& SymptomDump(const std::string& source, const std::string& first_text, int detail_lines,
                              bool finished = true) {
    std::string text = LogLineText(clock_, source, first_text) + "\r\n";
    for (int i = 0; i < detail_lines; ++i)
      text += LogLineText(clock_, source, "* Short Stack Dump frame " + std::to_string(i)) + "\r\n";
    if (finished)
      text += LogLineText(clock_, source, "***Stack Dump being sent to C:\\Data\\Log\\SQLDump0001.txt") + "\r\n";
    return Bytes(Utf16Bytes(text));
  }
  // `count` numbered informational lines, written in large blocks.
  ErrorlogWriter& InfoLines(int count, const std::string& source = "spid12s") {
    std::string block;
    for (int i = 0; i < count; ++i) {
      block +=
          Utf16Bytes(LogLineText(clock_, source,
                                 "Checkpoint of database 'sales' wrote " + std::to_string(i) + " pages in 14 ms.") +
                     "\r\n");
      if (block.size() > (1 << 20)) {
        Bytes(block);
        block.clear();
      }
    }
    return Bytes(block);
  }
  // Bytes as they stand: damaged text, a half unit, a line without its end.
  ErrorlogWriter& Bytes(const std::string& bytes) {
    std::ofstream(path_, std::ios::binary | std::ios::app) << bytes;
    return *this;
  }

 private:
  ErrorlogWriter(std::string path, const LogClock& start) : path_(std::move(path)), clock_(start) {}

  static int64_t UtcSeconds(const LogClock& t) {
    // Days from 1970-01-01 in the proleptic Gregorian calendar.
    const int y = t.year - (t.month <= 2 ? 1 : 0);
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t year_of_era = y - era * 400;
    const int64_t day_of_year = (153 * (t.month + (t.month > 2 ? -3 : 9)) + 2) / 5 + t.day - 1;
    const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    const int64_t days = era * 146097 + day_of_era - 719468;
    return days * 86400 + t.hour * 3600 + t.minute * 60 + t.second;
  }

  std::string path_;
  LogClock clock_;
};

}  // namespace kzq_test
