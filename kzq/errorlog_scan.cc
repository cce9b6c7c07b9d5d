#include "kzq/errorlog_scan.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "kvc/agent_config.h"
#include "kzq/errorlog_events.h"
#include "kzq/errorlog_trace.h"
#include "kzq/errorlog_state.h"
#include "kzq/utf16_line_reader.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/text.h"

namespace kzq {
namespace {

constexpr long kStep = 2048;

int EnvInt(const char* name, int fallback) {
  const auto value = platform::GetEnv(name);
  return value.has_value() ? atoi(value->c_str()) : fallback;
}

// One line of a step. True when the scan is done.
bool TakeLine(Utf16LineReader& reader, const std::u16string& line, const FileScan& scan, bool* start_reached) {
  LogLine split;
  LogTime time;
  // The server writes undated continuation lines (a message's second
  // line, a dump's body): they neither qualify nor end the scan.
  if (!SplitLogLine(line, &split) || !ParseLineTime(split, &time)) return false;
  if (!IsLater(time, scan.start)) {
    *start_reached = true;
    return false;
  }
  std::string event;
  if (IsErrorLine(line)) {
    ErrorNumbers numbers;
    if (!ParseErrorNumbers(split.text, &numbers.error, &numbers.severity, &numbers.state)) {
      ERRORLOG_FAILURE("\t\tError in swscanf while parsing Error.\n");
      return false;
    }
    // Strictly above the minimum: the live monitor also takes the minimum.
    if (numbers.severity <= scan.min_severity || !ReadErrorEvent(reader, time, numbers, scan.now(), &event))
      return false;
  } else if (IsSymptomDumpLine(line)) {
    event = ReadSymptomDumpEvent(reader, split, time, scan.now());
  } else {
    return false;
  }
  scan.queue(event);
  if (scan.budget == 1) return false;
  return ++*scan.count == scan.budget;
}

}  // namespace

ErrorlogSettings ReadErrorlogSettings() {
  ErrorlogSettings s;
  s.startup_minutes = EnvInt("COLL_ERRORLOG_STARTUP_MAX_TIME", 0);
  s.startup_rows = EnvInt("COLL_ERRORLOG_STARTUP_MAX_EVENT_ROW", 0);
  s.max_event_rows = EnvInt("COLL_ERRORLOG_MAX_EVENT_ROW", 50);
  if (s.max_event_rows < 0) {
    ERRORLOG_FAILURE("\t\tWrong value of MS_ERROR_MAX_EVENT_ROW:%d\n", s.max_event_rows);
    s.max_event_rows = 50;
  }
  s.min_severity = EnvInt("COLL_ALERT_SEV", 17);
  kvc::ReadAgentEnvironment(kvc::TheAgentConfig());
  s.max_read_bytes = kvc::TheAgentConfig().maxReadErrorLog;
  ERRORLOG_FLOW("\t\t Errrolog Configuration: statrup_minutes ='%d', startup_rows='%d', max_event_row='%d'.\n",
              s.startup_minutes, s.startup_rows, s.max_event_rows);
  return s;
}

LogTime ReadTime(int minutes, int64_t now) {
  LogTime t;
  if (minutes != 1) {
    platform::LocalTime local;
    platform::ToLocal(now - static_cast<int64_t>(minutes) * 60, &local);
    t = {local.year - 1900, local.month, local.day, local.hour, local.minute, local.second};
  }
  ERRORLOG_FLOW("\t\t read_time is '%d-%d-%d %d:%d:%d'.\n", t.year, t.month, t.day, t.hour, t.minute, t.second);
  return t;
}

ScanResult ScanLogFile(const std::string& path, const FileScan& scan) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) {
    ERRORLOG_FAILURE("\t\tERRORLOG FILE '%s' cannot be opened.\n", path.c_str());
    return kScanNoFile;
  }
  fseek(file, 0, SEEK_END);
  long step_end = ftell(file);
  const long file_end = step_end;
  Utf16LineReader reader(file);
  ScanResult result = kScanOlderFileNext;
  std::u16string line;
  // The text before the last whole step of a file is never read.
  while (result != kScanDone && step_end - kStep >= 0 && !(scan.roll_over != nullptr && *scan.roll_over)) {
    if (scan.max_bytes > 0 && file_end - step_end >= scan.max_bytes) {
      ERRORLOG_FLOW("Read limit of %ld bytes reached in %s.\n", scan.max_bytes, path.c_str());
      break;
    }
    reader.Seek(step_end - kStep);
    if (!reader.ReadLine(&line, kMaxLogLineUnits)) {
      ERRORLOG_FAILURE("\t\tError in fgetws\n");
      break;
    }
    const long earlier_end = reader.Tell();
    bool start_reached = false;
    while (reader.Tell() < step_end && ReadWholeLine(reader, &line)) {
      if (TakeLine(reader, line, scan, &start_reached)) {
        result = kScanDone;
        break;
      }
    }
    if (start_reached) result = kScanDone;
    step_end = earlier_end;
  }
  fclose(file);
  return result;
}

void StartupScan(const ErrorlogSettings& settings, const std::string& state_file, const std::string& log_path,
                 const std::atomic<bool>& roll_over, const EmitEvent& queue, Clock now) {
  if (settings.startup_minutes < 1 || settings.startup_rows < 1) return;
  const LogTime read_time = ReadTime(settings.startup_minutes, now());
  std::optional<LogTime> state_time;
  const auto point = ReadResumePoint(state_file, 35);
  if (!point.has_value()) {
    ERRORLOG_FAILURE("\t\t File '%s' not exist.\n", state_file.c_str());
  } else if (point->values < 2) {
    ERRORLOG_FAILURE("\t\tError in Reading file: '%s'.\n", state_file.c_str());
  } else {
    LogLine words{point->date_word, point->time_word, u"", u""};
    LogTime t;
    if (ParseLineTime(words, &t)) state_time = t;
    else ERRORLOG_FAILURE("\t\t Date is not in corerct format.\n");
  }
  LogTime start = read_time;
  if (state_time.has_value())
    start = settings.startup_minutes == 1 || IsLater(*state_time, read_time) ? *state_time : read_time;
  int count = 0;
  FileScan scan{start, settings.min_severity, settings.startup_rows, &count, &roll_over, queue, now,
                settings.max_read_bytes};
  ScanResult result = ScanLogFile(log_path, scan);
  for (int generation = 1; result == kScanOlderFileNext; ++generation)
    result = ScanLogFile(log_path + "." + std::to_string(generation), scan);
}

}  // namespace kzq
