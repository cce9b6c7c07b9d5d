#include "platform/named_lock.h"

#include <windows.h>

#include "platform/error.h"
#include "platform/win32/errors.h"
#include "platform/win32/object_access.h"
#include "platform/win32/object_names.h"

namespace platform {
namespace {

class MutexLock final : public NamedLock {
 public:
  explicit MutexLock(HANDLE mutex) : mutex_(mutex) {}
  ~MutexLock() override { CloseHandle(mutex_); }

  // An abandoned mutex (its holder died) is ours all the same.
  bool TryLockFor(uint32_t timeout_ms) override {
    const DWORD rc = WaitForSingleObject(mutex_, timeout_ms);
    return rc == WAIT_OBJECT_0 || rc == WAIT_ABANDONED;
  }

  void Unlock() override { ReleaseMutex(mutex_); }

 private:
  const HANDLE mutex_;
};

}  // namespace

std::unique_ptr<NamedLock> CreateNamedLock(const std::string& name, int* error) {
  // Open to every account, as the channel's objects are: the agent's service
  // and a collector run by a user share the log.
  win32::OpenSecurity security;
  HANDLE mutex = CreateMutexA(security.Attributes(), FALSE, win32::GlobalObjectName(name).c_str());
  if (mutex == nullptr) {
    *error = win32::LastError();
    return nullptr;
  }
  *error = kOk;
  return std::make_unique<MutexLock>(mutex);
}

}  // namespace platform
