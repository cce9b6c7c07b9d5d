// A fixed number of threads taking tasks from a bounded queue.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace framework {

// Post() may be called from any thread; Stop() (or the destructor) from
// the owner's, once.
class TaskThreads {
 public:
  TaskThreads(int threads, size_t max_waiting);
  ~TaskThreads();
  TaskThreads(const TaskThreads&) = delete;
  TaskThreads& operator=(const TaskThreads&) = delete;

  // Queues the task; false, without running it, when `max_waiting` tasks
  // already wait or the threads are stopping.
  bool Post(std::function<void()> task);
  // Lets the running tasks finish, drops those that wait, joins the threads.
  void Stop();

 private:
  void Run();

  const size_t max_waiting_;
  std::mutex lock_;
  std::condition_variable posted_;
  std::deque<std::function<void()>> waiting_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace framework
