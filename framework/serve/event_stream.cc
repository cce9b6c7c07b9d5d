#include "framework/serve/event_stream.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include "framework/serve/row_json.h"
#include "framework/table_manager.h"

namespace framework {
namespace {

std::atomic<uint64_t> g_events_emitted{0};

// The open subscriptions, for the producer's wait.
struct OpenSubscriptions {
  std::mutex lock;
  std::vector<EventSubscription*> all;
};

OpenSubscriptions& Open() {
  static auto* open = new OpenSubscriptions;  // never destroyed: streams may end at exit
  return *open;
}

}  // namespace

uint64_t EventsEmitted() { return g_events_emitted.load(); }

std::unique_ptr<EventSubscription> EventSubscription::Open(const std::string& table,
                                                           const std::string& last_event_id) {
  TableManager* manager = TableManager::Find(table);
  if (manager == nullptr) return nullptr;
  std::unique_ptr<EventSubscription> subscription(new EventSubscription);
  subscription->table_ = manager->Table();
  subscription->last_event_id_ = last_event_id;
  {
    OpenSubscriptions& open = framework::Open();
    std::lock_guard<std::mutex> guard(open.lock);
    open.all.push_back(subscription.get());
  }
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
  OpenSubscriptions& open = framework::Open();
  std::lock_guard<std::mutex> guard(open.lock);
  open.all.erase(std::remove(open.all.begin(), open.all.end(), this), open.all.end());
}

// Called by the producer while it holds the manager's lock: only copies.
int EventSubscription::Deliver(const tavra& table) {
  CapturedSample rows;
  CaptureRows(table, &rows);
  const std::string& id = table.EventId();
  {
    std::lock_guard<std::mutex> guard(lock_);
    // A producer that starts over from its last saved point after a restart
    // may repeat what this consumer already had.
    if (!id.empty() && !last_event_id_.empty() && id <= last_event_id_) return 0;
    const std::string id_line = id.empty() ? "" : "id: " + id + "\n";
    for (int i = 0; i < rows.count; ++i) {
      if (queue_.size() == kEventBacklog) {
        queue_.pop_front();
        ++dropped_;
        ++gap_untold_;
        ++written_;  // never to be written: nobody waits for it
      }
      queue_.push_back(id_line + "data: " + WireText(RowJson(rows, i)) + "\n\n");
      ++delivered_;
    }
  }
  g_events_emitted += static_cast<uint64_t>(rows.count);
  arrived_.notify_all();
  return 0;
}

std::optional<std::string> EventSubscription::NextFrame(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> guard(lock_);
  if (!arrived_.wait_for(guard, wait, [this] { return !queue_.empty() || gap_untold_ > 0; })) return std::nullopt;
  frame_is_event_ = gap_untold_ == 0;
  if (!frame_is_event_) {
    const std::string frame = "event: gap\ndata: {\"dropped\": " + std::to_string(gap_untold_) + "}\n\n";
    gap_untold_ = 0;
    return frame;
  }
  std::string frame = std::move(queue_.front());
  queue_.pop_front();
  return frame;
}

void EventSubscription::Written() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (frame_is_event_) ++written_;
  }
  written_changed_.notify_all();
}

uint64_t EventSubscription::Dropped() const {
  std::lock_guard<std::mutex> guard(lock_);
  return dropped_;
}

bool WaitUntilEventsWritten(const std::string& table, std::chrono::milliseconds stall) {
  OpenSubscriptions& open = Open();
  std::lock_guard<std::mutex> open_guard(open.lock);  // none closes while waited for
  bool all_kept_up = true;
  for (EventSubscription* s : open.all) {
    if (s->table_ != table) continue;
    std::unique_lock<std::mutex> guard(s->lock_);
    const uint64_t target = s->delivered_;
    if (s->behind_) s->behind_ = s->written_ < target;
    // Waits while the consumer makes progress, however long it takes.
    for (uint64_t seen = s->written_; !s->behind_ && s->written_ < target;) {
      if (!s->written_changed_.wait_for(guard, stall, [&] { return s->written_ != seen; })) s->behind_ = true;
      seen = s->written_;
    }
    all_kept_up = all_kept_up && !s->behind_;
  }
  return all_kept_up;
}

}  // namespace framework
