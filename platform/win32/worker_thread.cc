#include "platform/worker_thread.h"

#include <windows.h>

namespace platform {
namespace {

DWORD WINAPI ThreadMain(LPVOID body) { return static_cast<DWORD>(reinterpret_cast<int (*)()>(body)()); }

class Win32Worker final : public WorkerThread {
 public:
  explicit Win32Worker(HANDLE thread) : thread_(thread) {}
  ~Win32Worker() override { CloseHandle(thread_); }
  // SuspendThread only asks; reading the thread's context waits until the
  // thread has really stopped.
  bool Suspend() override {
    if (SuspendThread(thread_) == static_cast<DWORD>(-1)) return false;
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    return GetThreadContext(thread_, &context) != 0;
  }
  bool Resume() override { return ResumeThread(thread_) != static_cast<DWORD>(-1); }

 private:
  const HANDLE thread_;
};

}  // namespace

std::unique_ptr<WorkerThread> StartWorkerThread(int (*body)(), int* error) {
  HANDLE thread = CreateThread(nullptr, 0, ThreadMain, reinterpret_cast<LPVOID>(body), 0, nullptr);
  if (thread == nullptr) {
    *error = static_cast<int>(GetLastError());
    return nullptr;
  }
  return std::make_unique<Win32Worker>(thread);
}

}  // namespace platform
