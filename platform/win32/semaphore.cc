#include "platform/semaphore.h"

#include <windows.h>

#include "platform/common/sliced_wait.h"
#include "platform/error.h"
#include "platform/win32/errors.h"
#include "platform/win32/object_access.h"
#include "platform/win32/object_names.h"

namespace platform {
namespace {

class Win32Semaphore final : public Semaphore {
 public:
  explicit Win32Semaphore(HANDLE sem) : sem_(sem) {}
  ~Win32Semaphore() override { CloseHandle(sem_); }

  int Wait(uint32_t timeout_ms) override {
    if (timeout_ms > 0 && TakeWithinSpin()) return kOk;
    return SlicedWait(timeout_ms, [this](uint32_t slice_ms) { return WaitAtMost(slice_ms); });
  }

  int WaitAtMost(uint32_t timeout_ms) {
    switch (WaitForSingleObject(sem_, timeout_ms)) {
      case WAIT_OBJECT_0:
        return kOk;
      case WAIT_TIMEOUT:
        return kErrTimeout;
      default:
        return win32::LastError();
    }
  }

  // A peer on another CPU usually posts within microseconds (the next chunk
  // of an answer), while going to sleep and being woken costs tens of
  // microseconds on each side. So the count is tried for a moment first,
  // yielding between tries so that a peer on this same CPU gets to run.
  bool TakeWithinSpin() {
    LARGE_INTEGER frequency, start, now;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&start);
    const LONGLONG spin = frequency.QuadPart / 20000;  // 50 us
    do {
      if (WaitForSingleObject(sem_, 0) == WAIT_OBJECT_0) return true;
      SwitchToThread();
      QueryPerformanceCounter(&now);
    } while (now.QuadPart - start.QuadPart < spin);
    return false;
  }

  int Release() override {
    return ReleaseSemaphore(sem_, 1, nullptr) ? kOk : win32::LastError();
  }

 private:
  const HANDLE sem_;
};

}  // namespace

std::unique_ptr<Semaphore> OpenNamedSemaphore(const std::string& name, int initial,
                                         const ObjectAccess& access, int* error) {
  HANDLE sem = win32::CreateSharedObject(
      access,
      [&](SECURITY_ATTRIBUTES* attributes) {
        return CreateSemaphoreA(attributes, initial > 0 ? 1 : 0, 1, win32::GlobalObjectName(name).c_str());
      },
      error);
  if (sem == nullptr) return nullptr;
  return std::make_unique<Win32Semaphore>(sem);
}

void RemoveSemaphore(const std::string&) {}

}  // namespace platform
