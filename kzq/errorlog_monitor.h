// The live half of the kzqerror table: a thread that watches the errorlog's
// directory while anyone listens for error events, reads what the database
// server adds, and hands each error to the table's listeners at once and to
// the queue its report sample answers from.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "framework/serve/metrics_text.h"
#include "framework/tavra.h"
#include "platform/dir_watch.h"
#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_scan.h"

namespace kzq {

class ErrorlogMonitor {
 public:
  // `emit_row` takes each new kzqerror row as it is found, with its event
  // id: the resume point just after it, "<date> <time> <offset, 12
  // digits>", which grows with every later error; `await_delivery` (may be
  // null) waits until the rows emitted so far reached their consumers,
  // before the resume point passes them.
  using EmitRow = void (*)(const std::string& row, const std::string& event_id);
  using AwaitDelivery = void (*)();
  ErrorlogMonitor(EmitRow emit_row, Clock now, AwaitDelivery await_delivery = nullptr);
  ~ErrorlogMonitor();  // stops the thread

  // An event request opened: the thread starts, or resumes where it parked.
  void RequestStarted();
  // An event request closed: with the last one the thread parks at its next
  // wait and the queue is emptied.
  void RequestEnded();
  int RequestCount() const { return requests_; }
  // The start-up scan and the resume point are done and changes are being
  // watched.
  bool Watching() const { return watching_; }
  // Errors read so far, by severity, whether or not anyone listened: every
  // severity from the minimum up, and any other seen. Any thread.
  std::vector<std::pair<int, uint64_t>> ErrorsBySeverity() const;

 private:
  void Run();
  bool Prepare(std::string* directory);
  void ResumeFromStateFile();
  void WatchLoop(const std::string& directory, std::unique_ptr<platform::DirectoryWatch> watch);
  // Waits while parked; false once the monitor is being destroyed.
  bool WaitWhileParked();
  void StartParser();
  void Emit(const std::string& event);

  const EmitRow emit_row_;
  const Clock now_;
  ErrorlogSettings settings_;
  std::string configured_log_;  // COLL_ERRORLOG as given
  ErrorlogContext context_;
  std::thread thread_;
  std::thread parser_;
  std::atomic<bool> parser_running_{false};
  std::atomic<int> requests_{0};
  // Consumers come and go on threads of their own: one start or end at a time.
  std::mutex request_lock_;
  std::atomic<bool> watching_{false};
  std::atomic<int> min_severity_{17};
  mutable std::mutex counts_lock_;
  std::map<int, uint64_t> errors_by_severity_;
  std::mutex park_lock_;
  std::condition_variable park_changed_;
  bool parked_ = false;
  bool stopping_ = false;
};

// The agent's monitor, made on first use, feeding kzqerror's listeners.
ErrorlogMonitor& TheErrorlogMonitor();

// /metrics' kzq_errorlog_errors_total of the agent's monitor.
std::vector<framework::CounterFamily> ErrorlogCounters();

// kzqerror's report sample: with no event request open, the newest errors
// of the log are scanned afresh; the queue's events become the rows.
int ErrorlogReportSample(framework::tavra& object);

}  // namespace kzq
