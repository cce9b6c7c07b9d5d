#include "framework/serve/task_threads.h"

namespace framework {

TaskThreads::TaskThreads(int threads, size_t max_waiting) : max_waiting_(max_waiting) {
  for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { Run(); });
}

TaskThreads::~TaskThreads() { Stop(); }

bool TaskThreads::Post(std::function<void()> task) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (stopping_ || waiting_.size() >= max_waiting_) return false;
    waiting_.push_back(std::move(task));
  }
  posted_.notify_one();
  return true;
}

void TaskThreads::Stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    waiting_.clear();
  }
  posted_.notify_all();
  for (std::thread& t : threads_)
    if (t.joinable()) t.join();
}

void TaskThreads::Run() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> guard(lock_);
      posted_.wait(guard, [this] { return stopping_ || !waiting_.empty(); });
      if (stopping_) return;
      task = std::move(waiting_.front());
      waiting_.pop_front();
    }
    task();
  }
}

}  // namespace framework
