// Writes errorlog files as the database server does (the text itself is
// demo/errorlog_text.h). Every call lands in the file at once, so a test
// can grow a log another part of the agent is reading.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "demo/errorlog_text.h"
#include "platform/clock.h"

namespace kzq_test {

// Messages beyond ASCII: two-byte and three-byte UTF-8.
inline constexpr const char* kGermanText = "Anmeldung für Benutzer „Jürgen“ fehlgeschlagen: Größe überschritten.";
inline constexpr const char* kJapaneseText = "ユーザー 'sa' のログインに失敗しました。";

using kzq_demo::LogClock;
using kzq_demo::LogLineText;
using kzq_demo::Utf16Bytes;

class ErrorlogWriter {
 public:
  // Starts the file afresh with the byte-order mark and the server's
  // five-line start-up header.
  static ErrorlogWriter Create(const std::string& path, const LogClock& start) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << kzq_demo::kByteOrderMark;
    ErrorlogWriter writer(path, start);
    const kzq_demo::StartupFacts facts{"1:00", 4242, "C:\\Data\\Log\\ERRORLOG"};
    writer.Bytes(kzq_demo::LogLines(start, "Server", kzq_demo::StartupHeader(facts)));
    return writer;
  }
  // Cycles the log as the server does: each ERRORLOG.n moves up to
  // ERRORLOG.n+1, oldest first, ERRORLOG becomes ERRORLOG.1, and a new log
  // starts with its header.
  static ErrorlogWriter Cycle(const std::string& path, const LogClock& start) {
    int generations = 0;
    while (std::filesystem::exists(path + "." + std::to_string(generations + 1))) ++generations;
    for (int n = generations; n >= 1; --n) Rename(path + "." + std::to_string(n), path + "." + std::to_string(n + 1));
    Rename(path, path + ".1");
    return Create(path, start);
  }
  // Removes the log, as an operator might.
  static void Remove(const std::string& path) {
    Retry("remove " + path, [&path](std::error_code& error) { std::filesystem::remove(path, error); });
  }

  ErrorlogWriter& Advance(int seconds) {
    platform::LocalTime t;
    if (platform::ToUtc(UtcSeconds(clock_) + seconds, &t))
      clock_ = {t.year, t.month, t.day, t.hour, t.minute, t.second, clock_.hundredths};
    return *this;
  }
  const LogClock& Clock() const { return clock_; }

  ErrorlogWriter& Info(const std::string& source, const std::string& text) {
    return Bytes(kzq_demo::LogLines(clock_, source, {text}));
  }
  // The error line and the message line after it.
  ErrorlogWriter& Error(const std::string& source, long error, int severity, int state, const std::string& message) {
    return Bytes(kzq_demo::LogLines(clock_, source, {kzq_demo::ErrorNumbersText(error, severity, state), message}));
  }
  // A symptom dump: the line that starts it (`first_text` should hold
  // "create symptom dump"), `detail_lines` lines of detail and the line
  // that names the dump file.
  ErrorlogWriter& SymptomDump(const std::string& source, const std::string& first_text, int detail_lines) {
    std::vector<std::string> texts{first_text};
    for (int i = 0; i < detail_lines; ++i) texts.push_back("* Short Stack Dump frame " + std::to_string(i));
    texts.push_back(kzq_demo::StackDumpSentText("C:\\Data\\Log\\SQLDump0001.txt"));
    return Bytes(kzq_demo::LogLines(clock_, source, texts));
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
    kzq_demo::AppendToLog(path_, bytes);
    return *this;
  }

 private:
  ErrorlogWriter(std::string path, const LogClock& start) : path_(std::move(path)), clock_(start) {}

  // On Windows a reader's open file holds up a rename or a removal for the
  // moment it reads. What still fails after 10 s is said on standard error.
  template <typename Step>
  static void Retry(const std::string& what, Step step) {
    const uint64_t deadline = platform::MonotonicMillis() + 10000;
    std::error_code error;
    for (step(error); error && platform::MonotonicMillis() < deadline; step(error)) platform::SleepMillis(10);
    if (error) fprintf(stderr, "cannot %s: %s\n", what.c_str(), error.message().c_str());
  }
  static void Rename(const std::string& from, const std::string& to) {
    Retry("rename " + from, [&](std::error_code& error) { std::filesystem::rename(from, to, error); });
  }

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
