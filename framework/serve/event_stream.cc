#include "framework/serve/event_stream.h"

#include <atomic>

#include "framework/serve/row_json.h"
#include "framework/table_manager.h"

namespace framework {
namespace {

std::atomic<uint64_t> g_events_emitted{0};

}  // namespace

uint64_t EventsEmitted() { return g_events_emitted.load(); }

std::unique_ptr<EventSubscription> EventSubscription::Open(const std::string& table) {
  TableManager* manager = TableManager::Find(table);
  if (manager == nullptr) return nullptr;
  std::unique_ptr<EventSubscription> subscription(new EventSubscription);
  RequestDetail detail;
  detail.table = manager->Table();
  detail.type = kSampleEvent;
  detail.consumer = subscription.get();
  const ContextInfo context{manager->Application()};
  subscription->object_ = manager->OpenRequest(&detail, &context);
  if (subscription->object_ == nullptr) return nullptr;
  subscription->manager_ = manager;
  return subscription;
}

EventSubscription::~EventSubscription() {
  if (object_ != nullptr) manager_->CloseRequest(object_);
}

// Called by the producer while it holds the manager's lock: only copies.
int EventSubscription::Deliver(const tavra& table) {
  CapturedSample rows;
  CaptureRows(table, &rows);
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (int i = 0; i < rows.count; ++i) {
      if (queue_.size() == kEventBacklog) {
        queue_.pop_front();
        ++dropped_;
      }
      queue_.push_back(WireText(RowJson(rows, i)));
    }
  }
  g_events_emitted += static_cast<uint64_t>(rows.count);
  arrived_.notify_all();
  return 0;
}

std::optional<std::string> EventSubscription::Next(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> guard(lock_);
  if (!arrived_.wait_for(guard, wait, [this] { return !queue_.empty(); })) return std::nullopt;
  std::string event = std::move(queue_.front());
  queue_.pop_front();
  return event;
}

uint64_t EventSubscription::Dropped() const {
  std::lock_guard<std::mutex> guard(lock_);
  return dropped_;
}

}  // namespace framework
