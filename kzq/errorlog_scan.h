// The errorlog's recent past: at start the monitor queues the newest
// qualifying errors written before it began to watch, reading the log and
// its older generations backwards in 2048-byte steps, within a time span
// and a row budget; a report sample of the error table uses the same scan.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "kzq/errorlog_line.h"
#include "kzq/errorlog_parser.h"

namespace kzq {

struct ErrorlogSettings {
  int startup_minutes = 0;  // COLL_ERRORLOG_STARTUP_MAX_TIME: 0 off, 1 no time limit
  int startup_rows = 0;     // COLL_ERRORLOG_STARTUP_MAX_EVENT_ROW: 0 off, 1 no count limit
  int max_event_rows = 50;  // COLL_ERRORLOG_MAX_EVENT_ROW: the queue's bound
  int min_severity = 17;    // COLL_ALERT_SEV
  long max_read_bytes = 0;  // MAXREADSZ_ERRORLOG: what a scan reads of one file at most
};

// Reads the settings (a negative queue bound becomes 50, with a trace).
ErrorlogSettings ReadErrorlogSettings();

// The start time `minutes` back from `now` (1: no limit, year 1900).
LogTime ReadTime(int minutes, int64_t now);

enum ScanResult { kScanDone = 0, kScanOlderFileNext = 1, kScanNoFile = 2 };

struct FileScan {
  LogTime start;
  int min_severity = 17;
  int budget = 0;                           // 1: no limit
  int* count = nullptr;                     // shared by the files of one scan
  const std::atomic<bool>* roll_over = nullptr;
  EmitEvent queue;                          // where qualifying events go, oldest of a step first
  Clock now = nullptr;
  long max_bytes = 0;  // MAXREADSZ_ERRORLOG: what is read of one file at most, back from its end; 0: all
};

// Scans one file backwards from its end.
ScanResult ScanLogFile(const std::string& path, const FileScan& scan);

// The monitor's start-up scan over the log and its generations.
void StartupScan(const ErrorlogSettings& settings, const std::string& state_file, const std::string& log_path,
                 const std::atomic<bool>& roll_over, const EmitEvent& queue, Clock now);

}  // namespace kzq
