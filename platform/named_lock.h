// A machine-wide lock shared by the threads and processes that use the same
// name. The kernel releases it when its holder dies, so a writer killed
// while holding it never blocks the others.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace platform {

class NamedLock {
 public:
  virtual ~NamedLock() = default;
  // Returns true when obtained within `timeout_ms` (a lock left by a dead
  // holder counts as obtained).
  virtual bool TryLockFor(uint32_t timeout_ms) = 0;
  // Releases a lock obtained by this thread through this object.
  virtual void Unlock() = 0;
};

// Creates or opens the lock. nullptr with *error set when impossible.
std::unique_ptr<NamedLock> CreateNamedLock(const std::string& name, int* error);

}  // namespace platform
