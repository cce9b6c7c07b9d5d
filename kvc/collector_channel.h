// The agent's side of the channel to the collector, typed: one exchange is
// one table's request and the collector's answer to it. The two areas
// carry one request and one answer at a time, so exchanges are serialised
// by a timed lock; a caller that cannot wait long (a consumer asking for a
// fresh sample) says how long it waits with ChannelPatience.
//
// Any thread may call Exchange and Counts.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kvc {

class CollectorChannel;

// The process's channel: the one the agent's start hands to its tables,
// and the one KVCCOMM's "get" uses. Never destroyed, as the endpoints.
CollectorChannel& SharedChannel();

class KVCCommObject;

// A lock taken with a time limit, which knows the code of the call that
// holds it (for the log lines of a caller kept waiting). Unlike a mutex it
// may be given back by another thread than the one that took it.
class TimedLock {
 public:
  // Takes the lock for `code`; false when it was not free within `wait`.
  bool TakeWithin(int code, std::chrono::milliseconds wait);
  void Give();
  // The code of the call that holds it, 0 when free.
  int Holder() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable freed_;
  int holder_ = 0;
};

// What one exchange gave. On success `rows` holds numrow x lenrow bytes
// (numrow 0: the collector had none). Otherwise `failed_step` names the
// endpoint operation that failed with `result` (-10 timed out, -1 failed),
// or `busy` says the exchange was not made at all.
struct ChannelAnswer {
  int32_t numrow = 0;
  int32_t lenrow = 0;
  std::string rows;
  int result = 0;
  std::string failed_step;
  bool busy = false;
  bool unavailable = false;  // the shared endpoints are not open
  // Not asked: the last exchange went unanswered and the collector's
  // service is not running. Reported as a time-out of GetData.
  bool skipped = false;

  bool Succeeded() const { return failed_step.empty() && !busy && !unavailable; }
};

// A collector's header is not trusted beyond the bytes it sent: rows it
// counts but did not send, a negative length or a product that overflows
// are refused (logged, and the answer left with no rows). False when
// refused.
bool AcceptRows(const std::string& table, ChannelAnswer* answer);

// Counts since the process started, for /metrics.
struct ChannelCounts {
  uint64_t exchanges = 0;   // exchanges begun
  uint64_t timeouts = 0;    // a request or its answer not through in time
  uint64_t failures = 0;    // a semaphore or area operation failed
  uint64_t refused = 0;     // answers whose rows were refused (uncovered counts, wrong row length)
  uint64_t late = 0;        // answers to an earlier request, skipped
  uint64_t abandoned = 0;   // answers given up part-way, marked finished for the collector
  uint64_t busy = 0;        // exchanges not made: another held the channel past the caller's patience
  uint64_t repairs = 0;     // header fields found out of range and repaired
  uint64_t skipped = 0;     // exchanges not made: the collector is down and did not answer the last one
};

// While one exists, exchanges of its thread wait at most `millis` for a
// running one instead of 30 seconds: a consumer waiting for a fresh sample
// is told at once that the channel is busy (during an outage every
// exchange runs out its time-out) rather than queued behind the scheduler.
class ChannelPatience {
 public:
  explicit ChannelPatience(int millis);
  ~ChannelPatience();
  ChannelPatience(const ChannelPatience&) = delete;
  ChannelPatience& operator=(const ChannelPatience&) = delete;
  // The calling thread's patience in milliseconds, 0 when none was given.
  static int Current();

 private:
  int previous_;
};

// Works on the process's two endpoints ("initsm" opens them), looked up at
// each exchange, so a channel shut and opened again is used as it stands.
class CollectorChannel {
 public:
  CollectorChannel() = default;
  CollectorChannel(const CollectorChannel&) = delete;
  CollectorChannel& operator=(const CollectorChannel&) = delete;

  // Sends the request for `table` (with the session identifier, when not
  // empty, and the wanted columns) and takes its answer.
  ChannelAnswer Exchange(const std::string& table, const std::string& session,
                         const std::vector<std::string>& attributes = {});
  // A caller refused an answer's rows (their length is not the table's).
  void CountRefused() { ++refused_; }
  // Tells whether the collector's service runs. Once an exchange has gone
  // unanswered, later ones are made only while it says so, or one every
  // kOutageRetrySeconds: without it a dead collector would cost every
  // table of a round its whole wait. Set by the agent's start before any
  // exchange; without it every exchange is made.
  void SetCollectorProbe(std::function<bool()> collector_running);
  static constexpr int kOutageRetrySeconds = 30;
  ChannelCounts Counts() const;

 private:
  ChannelAnswer ExchangeHeld(const std::string& table, const std::string& session,
                             const std::vector<std::string>& attributes);
  bool ReceiveAnswer(KVCCommObject* data, int wait_seconds, const std::string& unique, std::time_t started,
                     ChannelAnswer* answer);
  void Fail(const char* step, int result, ChannelAnswer* answer);
  bool CollectorKnownDown() const;

  TimedLock lock_;
  std::atomic<std::time_t> last_success_{0};
  std::atomic<uint64_t> exchanges_{0}, timeouts_{0}, failures_{0}, refused_{0}, late_{0}, busy_{0}, skipped_{0};
  std::function<bool()> collector_running_;
  // When the last unanswered exchange ended; 0 after an answer.
  std::atomic<std::time_t> unanswered_at_{0};
};

}  // namespace kvc
