// Live events of a pushed table for one consumer: opening a subscription
// opens an event request (so the table's producer runs while anyone
// listens), each pushed row becomes one JSON text in the subscription's
// queue, and closing it ends the request.
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

// Events a slow consumer may have waiting before the oldest are dropped.
inline constexpr size_t kEventBacklog = 10000;

class EventSubscription final : public RowConsumer {
 public:
  // Null when the table is unknown or its manager makes no object.
  static std::unique_ptr<EventSubscription> Open(const std::string& table);
  ~EventSubscription() override;

  int Deliver(const tavra& table) override;
  // The next event's JSON, or std::nullopt when none came within `wait`.
  std::optional<std::string> Next(std::chrono::milliseconds wait);
  // Events dropped because the consumer fell behind.
  uint64_t Dropped() const;

 private:
  EventSubscription() = default;

  TableManager* manager_ = nullptr;
  tavra* object_ = nullptr;
  mutable std::mutex lock_;
  std::condition_variable arrived_;
  std::deque<std::string> queue_;
  uint64_t dropped_ = 0;
};

// Events handed to any subscription since the process started.
uint64_t EventsEmitted();

}  // namespace framework
