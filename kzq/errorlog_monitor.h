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

#include "framework/serve/agent_description.h"
#include "framework/tavra.h"
#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_scan.h"
#include "kzq/row_source.h"
#include "platform/dir_watch.h"

namespace kzq {

class ErrorEventQueue;

// Where the monitor hands each new kzqerror row. Called on the monitor's
// parser thread, one row at a time.
class ErrorEventSink {
 public:
  virtual ~ErrorEventSink() = default;
  // `event_id` is the resume point just after the row, "<date> <time>
  // <offset, 12 digits>", which grows with every later error.
  virtual void Emit(const std::string& row, const std::string& event_id) = 0;
  // Waits until the rows emitted so far reached their consumers, before
  // the resume point passes them; by default nothing to wait for.
  virtual void AwaitDelivery() {}
};

// RequestStarted and RequestEnded come from the threads that open and
// close event requests, several at once; RequestCount, Watching and
// Counters from any thread. The sink and the queue must outlive it.
class ErrorlogMonitor final : public EventRequestListener {
 public:
  ErrorlogMonitor(ErrorEventSink& sink, ErrorEventQueue& queue, Clock now);
  ~ErrorlogMonitor() override;  // stops the threads

  // An event request opened: the thread starts, or resumes where it parked.
  void RequestStarted() override;
  // An event request closed: with the last one the thread parks at its next
  // wait and the queue is emptied.
  void RequestEnded() override;
  int RequestCount() const { return requests_; }
  // A reloaded COLL_ALERT_SEV: the next line read is judged by it, and it
  // outlasts the monitor's later starts. Any thread.
  void SetMinSeverity(int severity);
  // The reloaded minimum, or -1 when none was given.
  int ReloadedMinSeverity() const { return reloaded_severity_; }
  // The start-up scan and the resume point are done and changes are being
  // watched.
  bool Watching() const { return watching_; }
  // /metrics' families: errors read by severity, whether or not anyone
  // listened (every severity from the minimum up, and any other seen),
  // reads, cycles, truncations, watch overflows and failed resume point
  // writes.
  std::vector<framework::CounterFamily> Counters() const;

 private:
  void Run();
  void StartPointFixed();
  bool Prepare(std::string* directory);
  void ResumeFromStateFile();
  void WatchLoop(const std::string& directory, std::unique_ptr<platform::DirectoryWatch> watch);
  // Waits while parked; false once the monitor is being destroyed.
  bool WaitWhileParked();
  void StartParser();
  void Emit(const std::string& event);
  framework::CounterFamily ErrorsBySeverity() const;

  ErrorEventSink& sink_;
  ErrorEventQueue& queue_;
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
  std::atomic<int> reloaded_severity_{-1};
  mutable std::mutex counts_lock_;
  std::map<int, uint64_t> errors_by_severity_;
  std::mutex park_lock_;
  std::condition_variable park_changed_;
  bool parked_ = false;
  // Set once the first run has fixed where news begin (or given up), so the
  // first request is acknowledged only when an error written after it
  // cannot be taken for an old one.
  bool start_point_fixed_ = false;
  bool stopping_ = false;
};

// kzqerror's report sample: with no event request open (`listened`
// false), the newest errors of the log are scanned afresh into the queue;
// the queue's events become the rows. Any sampling thread.
int ErrorlogReportSample(framework::tavra& object, ErrorEventQueue& queue, bool listened, int reloaded_severity = -1);

}  // namespace kzq
