#include "demo/errorlog_text.h"

#include <cstdio>
#include <fstream>

#include "platform/text.h"

namespace kzq_demo {

LogClock ClockOf(const platform::LocalTime& local) {
  return {local.year, local.month, local.day, local.hour, local.minute, local.second, local.millisecond / 10};
}

std::string Utf16Bytes(const std::string& utf8) {
  std::string bytes;
  for (char16_t unit : platform::Utf8ToUtf16(utf8)) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

std::string LogLineText(const LogClock& time, const std::string& source, const std::string& text) {
  char stamp[64];
  snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%02d ", time.year, time.month, time.day, time.hour,
           time.minute, time.second, time.hundredths);
  const size_t pad = source.size() < 12 ? 12 - source.size() : 1;
  return stamp + source + std::string(pad, ' ') + text;
}

std::string LogLines(const LogClock& time, const std::string& source, const std::vector<std::string>& texts) {
  std::string text;
  for (const std::string& line : texts) text += LogLineText(time, source, line) + "\r\n";
  return Utf16Bytes(text);
}

std::string ErrorNumbersText(long error, int severity, int state) {
  char text[96];
  snprintf(text, sizeof text, "Error: %ld, Severity: %d, State: %d.", error, severity, state);
  return text;
}

std::string StackDumpSentText(const std::string& dump_file) { return "***Stack Dump being sent to " + dump_file; }

std::vector<std::string> StartupHeader(const StartupFacts& facts) {
  return {"SQL Server 2022 (RTM-CU14) - 16.0.4135.4 (X64)", "UTC adjustment: " + facts.utc_adjustment,
          "All rights reserved.", "Server process ID is " + std::to_string(facts.process_id) + ".",
          "Logging SQL Server messages in file '" + facts.log_file + "'."};
}

bool AppendToLog(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::app);
  out << bytes;
  out.close();
  return !out.fail();
}

}  // namespace kzq_demo
