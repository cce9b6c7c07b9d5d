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
