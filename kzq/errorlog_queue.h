// The error events waiting for the kzqerror table's report sample, oldest
// first. The agent's data paths own one; the errorlog monitor's thread,
// its parser thread and the sampling threads share it, so any thread may
// call it and every operation takes the queue's lock.
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace kzq {

class ErrorEventQueue {
 public:
  // Appends, first removing the oldest events so that at most `bound`
  // remain with the new one.
  void AppendBounded(std::string event, int bound);
  // Appends without a bound (the start-up scan trims afterwards).
  void Append(std::string event);
  // Removes the oldest events until at most `bound` remain.
  void Trim(int bound);
  void Clear();
  // A copy of the events, oldest first.
  std::vector<std::string> Snapshot() const;
  // Takes every event out, oldest first.
  std::vector<std::string> TakeAll();
  int Size() const;

 private:
  mutable std::mutex lock_;
  std::deque<std::string> events_;
};

}  // namespace kzq
