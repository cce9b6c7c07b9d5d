#include "kzq/errorlog_queue.h"

namespace kzq {

void ErrorEventQueue::AppendBounded(std::string event, int bound) {
  std::lock_guard<std::mutex> guard(lock_);
  while (!events_.empty() && static_cast<int>(events_.size()) >= bound) events_.pop_front();
  events_.push_back(std::move(event));
}

void ErrorEventQueue::Append(std::string event) {
  std::lock_guard<std::mutex> guard(lock_);
  events_.push_back(std::move(event));
}

void ErrorEventQueue::Trim(int bound) {
  std::lock_guard<std::mutex> guard(lock_);
  while (!events_.empty() && static_cast<int>(events_.size()) > (bound < 0 ? 0 : bound)) events_.pop_front();
}

void ErrorEventQueue::Clear() {
  std::lock_guard<std::mutex> guard(lock_);
  events_.clear();
}

std::vector<std::string> ErrorEventQueue::Snapshot() const {
  std::lock_guard<std::mutex> guard(lock_);
  return {events_.begin(), events_.end()};
}

std::vector<std::string> ErrorEventQueue::TakeAll() {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::string> all(std::make_move_iterator(events_.begin()), std::make_move_iterator(events_.end()));
  events_.clear();
  return all;
}

int ErrorEventQueue::Size() const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<int>(events_.size());
}

}  // namespace kzq
