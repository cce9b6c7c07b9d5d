// Live events of a pushed table for one consumer: opening a subscription
// opens an event request (so the table's producer runs while anyone
// listens), each pushed row becomes one JSON text in the subscription's
// queue, and closing it ends the request. The producer may wait until its
// events have been written out to every consumer that keeps up before it
// records them as delivered.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "framework/tavra.h"

namespace framework {

class TableManager;

// Events a slow consumer may have waiting before the oldest are dropped;
// the consumer is then told how many with a "gap" event.
inline constexpr size_t kEventBacklog = 10000;

// Called by the producer (Deliver), the consumer's writer (NextFrame,
// Written) and WaitUntilEventsWritten, each on a thread of its own.
class EventSubscription final : public RowConsumer {
 public:
  // Null when the table is unknown or its manager makes no object. With
  // `last_event_id` (a reconnecting consumer's Last-Event-ID), events whose
  // ids are not after it are not sent again.
  static std::unique_ptr<EventSubscription> Open(const std::string& table, const std::string& last_event_id = {});
  ~EventSubscription() override;

  int Deliver(const tavra& table) override;
  // The next server-sent-events frame: "id: <event id>\ndata: <row
  // JSON>\n\n" (no id line for an event without one), or, when events were
  // dropped since the last one, "event: gap\ndata: {"dropped": n}\n\n"
  // first. std::nullopt when none came within `wait`.
  std::optional<std::string> NextFrame(std::chrono::milliseconds wait);
  // The frame NextFrame gave has been written to the consumer's connection.
  void Written();
  // Events dropped because the consumer fell behind.
  uint64_t Dropped() const;

 private:
  friend bool WaitUntilEventsWritten(const std::string& table, std::chrono::milliseconds stall);
  EventSubscription() = default;

  std::string table_;
  std::string last_event_id_;  // ids up to this one were received before
  TableManager* manager_ = nullptr;
  tavra* object_ = nullptr;
  mutable std::mutex lock_;
  std::condition_variable arrived_;
  std::condition_variable written_changed_;
  std::deque<std::string> queue_;  // whole frames
  uint64_t delivered_ = 0;      // events put in the queue (dropped ones too)
  uint64_t written_ = 0;        // events written out or dropped
  uint64_t dropped_ = 0;
  uint64_t gap_untold_ = 0;     // dropped since the consumer was last told
  bool frame_is_event_ = false;  // the frame being written carries an event
  bool behind_ = false;  // stalled once: not waited for until it has caught up
};

// Events handed to any subscription since the process started.
uint64_t EventsEmitted();

// Waits until every open subscription of `table` has written out (or
// dropped) every event delivered to it so far. A subscription that writes
// nothing for `stall` is left behind, and not waited for again until it has
// caught up: one slow consumer must not hold up the others, and it is told
// of what it loses. False when one is behind.
bool WaitUntilEventsWritten(const std::string& table, std::chrono::milliseconds stall);

}  // namespace framework
