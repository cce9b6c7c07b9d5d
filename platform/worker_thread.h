// A thread that can be suspended and resumed from outside as a whole, for
// a service's pause and continue.
#pragma once

#include <memory>

namespace platform {

class WorkerThread {
 public:
  virtual ~WorkerThread() = default;
  // Stops the thread where it is; returns once it no longer runs.
  virtual bool Suspend() = 0;
  virtual bool Resume() = 0;
};

// Starts `body` at once. The thread is detached: it ends when `body`
// returns or with the process. nullptr with *error when it cannot start.
std::unique_ptr<WorkerThread> StartWorkerThread(int (*body)(), int* error);

}  // namespace platform
