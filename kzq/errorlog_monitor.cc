#include "kzq/errorlog_monitor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "framework/agent.h"
#include "kvc/agent_config.h"
#include "kvc/string_time.h"
#include "kzq/error_event.h"
#include "kzq/errorlog_cycle.h"
#include "kzq/errorlog_queue.h"
#include "kzq/errorlog_trace.h"
#include "kzq/errorlog_state.h"
#include "kzq/catalogue.h"
#include "platform/clock.h"
#include "platform/dir_watch.h"
#include "platform/file_system.h"
#include "platform/text.h"

namespace kzq {
namespace {

constexpr int kWatchWaitMillis = 250;  // how soon a park or a stop is noticed
// How long the first event request waits for the monitor to fix where news
// begin (the start-up scan of a large log may take a while).
constexpr int kStartPointPatienceMillis = 10000;
constexpr int kHighestSeverity = 25;

std::string Text(const char* value) { return value != nullptr ? value : ""; }

bool NamesTheLog(const std::string& changed, const std::string& log_name) {
  // The log and its generations ("ERRORLOG.1") all count as the log: a
  // cycle starts the parser, which finds the rest of the old log in
  // ERRORLOG.1 itself.
  if (changed.size() < log_name.size()) return false;
  for (size_t i = 0; i < log_name.size(); ++i)
    if (toupper(static_cast<unsigned char>(changed[i])) != toupper(static_cast<unsigned char>(log_name[i])))
      return false;
  return true;
}

// The configured log's directory and the log's own name there, found in
// any case (on Linux the server writes "errorlog"). False for a path
// without a directory part or without a file name.
bool LocateLog(const std::string& configured, std::string* directory, std::string* path) {
  const size_t slash = configured.find_last_of("\\/");
  if (slash == std::string::npos || slash == 0 || slash + 1 == configured.size()) return false;
  *directory = configured.substr(0, slash);
  *path = *directory + configured[slash] + platform::FindEntryIgnoringCase(*directory, configured.substr(slash + 1));
  return true;
}

std::string OriginNode() {
  static const std::string origin = [] {
    char host[64];
    DetermineLocalHost(host, sizeof host);
    return std::string(host);
  }();
  return origin;
}

std::string RowOf(const std::string& event, int64_t now) {
  const kvc::AgentConfig& config = kvc::TheAgentConfig();
  platform::LocalTime local;
  platform::ToLocal(now, &local);
  local.millisecond = 0;
  char stamp[64];
  kvc::FormatTime(local, stamp, 4);
  return BuildErrorRow(event, OriginNode(), config.serverId, config.hostName, stamp);
}

// The point's date and time words sort as they come (the log writes them
// as "2026-11-25 01:02:03.45"), and the offset is padded to sort as a
// number.
std::string EventId(const ResumePoint& point) {
  char offset[24];
  snprintf(offset, sizeof offset, "%012ld", point.offset);
  return platform::Utf16ToUtf8(point.date_word) + " " + platform::Utf16ToUtf8(point.time_word) + " " + offset;
}

}  // namespace

ErrorlogMonitor::ErrorlogMonitor(ErrorEventSink& sink, ErrorEventQueue& queue, Clock now)
    : sink_(sink), queue_(queue), now_(now) {
  context_.await_delivery = [this] { sink_.AwaitDelivery(); };
}

ErrorlogMonitor::~ErrorlogMonitor() {
  {
    std::lock_guard<std::mutex> guard(park_lock_);
    stopping_ = true;
    park_changed_.notify_all();
  }
  context_.roll_over = true;  // a running parser stops at its next line
  if (thread_.joinable()) thread_.join();
  if (parser_.joinable()) parser_.join();
}

void ErrorlogMonitor::RequestStarted() {
  std::lock_guard<std::mutex> requests(request_lock_);
  if (requests_ == 0) {
    if (thread_.joinable()) {
      ERRORLOG_FLOW("Resuming suspended MonitorErrorLog thread.\n");
      std::lock_guard<std::mutex> guard(park_lock_);
      parked_ = false;
      park_changed_.notify_all();
    } else {
      thread_ = std::thread([this] {
        Run();
        StartPointFixed();  // a run that could not start fixes nothing to wait for
      });
      // On a first start news begin where the log ends when the thread
      // gets going; an error written in between would count as old.
      std::unique_lock<std::mutex> guard(park_lock_);
      park_changed_.wait_for(guard, std::chrono::milliseconds(kStartPointPatienceMillis),
                             [this] { return start_point_fixed_ || stopping_; });
    }
  }
  if (thread_.joinable()) ++requests_;
  ERRORLOG_FLOW("event_request_count:%d.\n", requests_.load());
}

void ErrorlogMonitor::StartPointFixed() {
  {
    std::lock_guard<std::mutex> guard(park_lock_);
    start_point_fixed_ = true;
  }
  park_changed_.notify_all();
}

void ErrorlogMonitor::RequestEnded() {
  std::lock_guard<std::mutex> requests(request_lock_);
  if (requests_ == 0) {
    ERRORLOG_FAILURE("No thread exist.\n");
    return;
  }
  const int remaining = --requests_;
  ERRORLOG_FLOW("Request count decremented. event_request_count:%d.\n", remaining);
  if (remaining != 0) return;
  ERRORLOG_FLOW("Suspending thread. event_request_count:%d.\n", requests_.load());
  {
    std::lock_guard<std::mutex> guard(park_lock_);
    parked_ = true;
  }
  queue_.Clear();
}

bool ErrorlogMonitor::WaitWhileParked() {
  std::unique_lock<std::mutex> guard(park_lock_);
  park_changed_.wait(guard, [this] { return !parked_ || stopping_; });
  return !stopping_;
}

void ErrorlogMonitor::Emit(const std::string& event) {
  const std::string row = RowOf(event, now_());
  static const size_t severity_at = static_cast<size_t>(kzqerror_spec.offsets[kzqerror_spec.IndexOf("SEVERITY")]);
  int32_t severity = 0;
  memcpy(&severity, row.data() + severity_at, sizeof severity);
  {
    std::lock_guard<std::mutex> guard(counts_lock_);
    ++errors_by_severity_[severity];
  }
  sink_.Emit(row, EventId(context_.resume));
  queue_.AppendBounded(event, settings_.max_event_rows);
}

void ErrorlogMonitor::SetMinSeverity(int severity) {
  reloaded_severity_ = severity;
  context_.min_severity = severity;
  min_severity_ = severity;
}

framework::CounterFamily ErrorlogMonitor::ErrorsBySeverity() const {
  std::map<int, uint64_t> counts;
  {
    std::lock_guard<std::mutex> guard(counts_lock_);
    counts = errors_by_severity_;
  }
  // Series from the minimum up exist from the start, so that an alert on
  // their increase sees the first error.
  for (int severity = min_severity_; severity <= kHighestSeverity; ++severity)
    counts.emplace(severity, 0);
  framework::CounterFamily family{"kzq_errorlog_errors_total",
                                  "Errors the errorlog monitor read, by severity, whether or not anyone listened.",
                                  {}};
  for (const auto& [severity, count] : counts)
    family.samples.push_back({{{"severity", std::to_string(severity)}}, count});
  return family;
}

std::vector<framework::CounterFamily> ErrorlogMonitor::Counters() const {
  const ErrorlogActivity& a = context_.activity;
  const auto plain = [](const char* name, const char* help, const std::atomic<uint64_t>& value) {
    return framework::CounterFamily{name, help, {{{}, value.load()}}};
  };
  return {
      ErrorsBySeverity(),
      plain("kzq_errorlog_reads_total",
            "Times the errorlog monitor read the new text of SQL Server's ERRORLOG (once per change it was told of).",
            a.reads),
      plain("kzq_errorlog_cycles_total",
            "Times SQL Server cycled its ERRORLOG (renamed it ERRORLOG.1 and began a new one) with text the monitor "
            "had not read yet; the monitor finished the old generation first.",
            a.cycles),
      plain("kzq_errorlog_truncations_total",
            "Times the monitor found ERRORLOG truncated or replaced, or its resume point in no generation of the "
            "log, and read the log again from its start: old errors may be reported again.",
            a.truncations),
      plain("kzq_errorlog_watch_overflows_total",
            "Times changes in the ERRORLOG directory came faster than the system keeps them, so the monitor read "
            "the log again.",
            a.overflows),
      plain("kzq_errorlog_state_write_failures_total",
            "Failed writes of the monitor's resume point (the KZQERROR_EVENT state file); while they fail, an agent "
            "restart may report errors again.",
            a.failed_state_writes),
  };
}

// Steps 1-8 of the monitor's start: where the log is, the settings, the
// start-up scan and the resume point. False when the monitor cannot run.
bool ErrorlogMonitor::Prepare(std::string* directory) {
  kvc::AgentConfig& config = kvc::TheAgentConfig();
  kvc::ReadAgentEnvironment(config);
  const std::string log = Text(config.errorLog);
  if (log.empty()) {
    ERRORLOG_FAILURE("\t\tError log name was not supplied.\n");
    return false;
  }
  ERRORLOG_FLOW("\t\tErrolog file name is '%s'.\n", log.c_str());
  if (!LocateLog(log, directory, &context_.log_path)) {
    ERRORLOG_FAILURE("\t\tInvalid Errorlog Path : '%s'.\n", log.c_str());
    return false;
  }
  configured_log_ = log;
  settings_ = ReadErrorlogSettings();
  if (reloaded_severity_ >= 0) settings_.min_severity = reloaded_severity_;
  context_.min_severity = settings_.min_severity;
  min_severity_ = settings_.min_severity;
  ERRORLOG_FLOW("\t\t Errorlog min severity :'%d'.\n", context_.min_severity.load());
  context_.state_file = ErrorStateFilePath(Text(config.home), Text(config.version), Text(config.serverId));
  ERRORLOG_FLOW("\t\t PrevParseDetailFile:%s.\n", context_.state_file.c_str());
  return true;
}

void ErrorlogMonitor::Run() {
  std::string directory;
  if (!Prepare(&directory)) return;
  int error = 0;
  std::unique_ptr<platform::DirectoryWatch> watch = platform::WatchDirectory(directory, &error);
  if (watch == nullptr) {
    ERRORLOG_FAILURE("\t\tCreateFile Function Failed. Errorcode:%ld.\n", static_cast<long>(error));
    return;
  }
  // The recent past is for report samples; listeners get only what is
  // written from here on and what the resume point says they missed, so
  // no error reaches them twice or as new when it is old.
  StartupScan(settings_, context_.state_file, context_.log_path, context_.roll_over,
              [this](const std::string& event) { queue_.Append(event); }, now_);
  queue_.Trim(settings_.max_event_rows);
  ResumeFromStateFile();
  StartPointFixed();
  WatchLoop(directory, std::move(watch));
}

void ErrorlogMonitor::ResumeFromStateFile() {
  const auto point = ReadResumePoint(context_.state_file, 50);
  if (!point.has_value()) {
    ERRORLOG_FAILURE("\t\tError in opening file :%s.\n", context_.state_file.c_str());
    // Only what is written from now on is reported.
    FILE* file = fopen(context_.log_path.c_str(), "rb");
    long size = 0;
    if (file != nullptr && fseek(file, 0, SEEK_END) == 0) size = ftell(file);
    if (file != nullptr) fclose(file);
    context_.offset = size < 0 ? 0 : size;
    MarkLogEnd(context_, context_.offset);
    return;
  }
  if (point->values < 3) {
    ERRORLOG_FAILURE("\t\t Errror in swscanf. Offset is:%ld.\n", context_.offset.load());
  } else if (!ResumeFrom(context_, *point)) {
    ++context_.activity.truncations;
    ERRORLOG_FAILURE("\t\tResume point '%s' (offset %ld) is in no generation of the log: it was truncated, replaced or "
                     "cycled more often than kept since, or the point is damaged. Reading the log from its start.\n",
                     context_.state_file.c_str(), point->offset);
  }
}

void ErrorlogMonitor::WatchLoop(const std::string& directory, std::unique_ptr<platform::DirectoryWatch> watch) {
  const std::string log_name = context_.log_path.substr(directory.size() + 1);
  std::vector<std::string> changed;
  int error = 0;
  watching_ = true;
  while (WaitWhileParked()) {
    if (watch == nullptr) {
      // The watch broke: a new one, and the log read again for what came
      // meanwhile. The monitor never stops for good while anyone listens.
      platform::SleepMillis(kWatchWaitMillis);
      watch = platform::WatchDirectory(directory, &error);
      if (watch != nullptr) StartParser();
      continue;
    }
    switch (watch->Next(&changed, kWatchWaitMillis, &error)) {
      case platform::WatchResult::kChanged:
        for (const std::string& name : changed)
          if (NamesTheLog(name, log_name)) {
            StartParser();
            break;
          }
        break;
      case platform::WatchResult::kOverflow:
        ++context_.activity.overflows;
        ERRORLOG_FAILURE("\t\tChanges in '%s' came faster than they could be told: reading the log again.\n",
                         directory.c_str());
        StartParser();
        break;
      case platform::WatchResult::kFailed:
        ERRORLOG_FAILURE("\t\tReadDirectoryChangesW failed with Error:%ld.\n", static_cast<long>(error));
        watch.reset();
        break;
      case platform::WatchResult::kTimeout:
        // A read that stopped at text still being written may have seen the
        // write's change already: it is not left waiting for the next one.
        if (context_.unfinished && !parser_running_) StartParser();
        break;
    }
  }
}

// At most one parser reads at a time; a change that comes while it reads
// makes it read once more when it is done.
void ErrorlogMonitor::StartParser() {
  if (parser_running_) {
    context_.more_changes = true;
    return;
  }
  if (parser_.joinable()) parser_.join();
  // A log that did not exist when the monitor started is found now, in
  // whatever case the server gave it ("errorlog" for "ERRORLOG").
  std::string directory;
  LocateLog(configured_log_, &directory, &context_.log_path);
  parser_running_ = true;
  parser_ = std::thread([this] {
    // A change flagged just after the run looked for one is not lost: the
    // thread takes it itself unless a new run has begun.
    do {
      ParseNewLogText(context_, [this](const std::string& event) { Emit(event); }, now_);
      parser_running_ = false;
    } while (context_.more_changes.exchange(false) && !parser_running_.exchange(true));
  });
}

int ErrorlogReportSample(framework::tavra& object, ErrorEventQueue& queue, bool listened, int reloaded_severity) {
  if (!listened) {
    // The queue is filled afresh, so no error is answered twice.
    queue.Clear();
    kvc::ReadAgentEnvironment(kvc::TheAgentConfig());
    const std::string log = Text(kvc::TheAgentConfig().errorLog);
    ErrorlogSettings settings = ReadErrorlogSettings();
    if (reloaded_severity >= 0) settings.min_severity = reloaded_severity;
    std::string directory, path;
    if (LocateLog(log, &directory, &path)) {
      int count = 0;
      FileScan scan{LogTime{}, settings.min_severity, settings.max_event_rows, &count, nullptr,
                    [&queue](const std::string& event) { queue.Append(event); }, platform::NowUnixSeconds,
                    settings.max_read_bytes};
      ScanLogFile(path, scan);
    }
    ERRORLOG_FLOW("Size of queue:%d.\n", queue.Size());
  }
  for (const std::string& event : queue.Snapshot()) {
    const std::string row = RowOf(event, platform::NowUnixSeconds());
    object.AddRows(row.data(), 1);
  }
  return 0;
}

}  // namespace kzq
