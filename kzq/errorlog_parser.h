// Reading what the database server has added to its errorlog since the
// last read: each error at or above the minimum severity, and each
// symptom dump, becomes an event, and the resume point follows every line.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "kzq/errorlog_state.h"

namespace kzq {

// What the monitor has met, for /metrics: written by the monitor's and
// the parser's threads, read by any.
struct ErrorlogActivity {
  std::atomic<uint64_t> reads{0};        // passes over the log's new text
  std::atomic<uint64_t> cycles{0};       // generations the server cycled away while they were being read
  std::atomic<uint64_t> truncations{0};  // the log no longer held what was read: read again from its start
  std::atomic<uint64_t> overflows{0};    // the directory's changes came faster than the system keeps them
  std::atomic<uint64_t> failed_state_writes{0};  // the resume point could not be saved
};

// What the monitor lends each parser run.
struct ErrorlogContext {
  std::atomic<long> offset{0};  // where the next read starts; 0: after the header block
  // The last dated line read up to the offset: where it starts and its date
  // and time words (offset -1 while none is known). The state file keeps
  // it, and finding it again tells which file the offset belongs to once
  // the server has cycled, truncated or replaced the log.
  ResumePoint resume{u"", u"", -1, 0};
  std::atomic<int> min_severity{17};  // a reload may change it while a run reads
  std::string state_file;       // "" when none is kept
  std::string log_path;         // the ERRORLOG file itself
  bool state_unwritable = false;  // the last save of the resume point failed
  std::atomic<bool> more_changes{false};  // a change came while a run was reading
  // The last read stopped before text it could not take yet: a line still
  // being written, an error without its message, or half of a write seen
  // while it was made. Its change is spent, so the monitor reads again soon.
  std::atomic<bool> unfinished{false};
  // Waits until the events emitted so far have reached their consumers;
  // the resume point is saved only after it, so that it never runs ahead
  // of what was delivered. Empty: nothing to wait for.
  std::function<void()> await_delivery;
  std::atomic<bool> roll_over{false};     // stop reading: the log is being cycled
  ErrorlogActivity activity;
};

using EmitEvent = std::function<void(const std::string& event)>;
using Clock = int64_t (*)();

// One run: reads from the context's offset to the end of the log (again
// while more changes were reported meanwhile), first finishing the log's
// previous generation when the server has cycled it since the last read,
// and from the start of the log when it was truncated or replaced.
// Returns the events found.
int ParseNewLogText(ErrorlogContext& context, const EmitEvent& emit, Clock now);

// A start without a resume point: the last dated line before `end`, read
// from the log's last 64 KiB, becomes the resume point and is saved, so
// that a process killed before its first event tells, once restarted, the
// errors written while it was down. Without such a line nothing is saved.
void MarkLogEnd(ErrorlogContext& context, long end);

}  // namespace kzq
