// Named semaphores with a maximum count of 1. (Not "OpenSemaphore": windows.h
// turns that name into a macro.)
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/security.h"

namespace platform {

inline constexpr uint32_t kWaitForever = 0xFFFFFFFF;

class Semaphore {
 public:
  virtual ~Semaphore() = default;
  // Takes the count. Returns 0, 258 after `timeout_ms`, or another error.
  virtual int Wait(uint32_t timeout_ms) = 0;
  // Gives the count back. Returns 0, or 298 when it is already at 1.
  virtual int Release() = 0;
};

// Creates the named semaphore with `initial` (0 or 1), or opens it when it
// exists and `access` admits it (its count is left alone). *error is 0, 183
// for an existing one, or the failure with nullptr (kErrInvalidOwner: an
// existing semaphore `access` refuses).
std::unique_ptr<Semaphore> OpenNamedSemaphore(const std::string& name, int initial,
                                              const ObjectAccess& access, int* error);

// Removes a named semaphore (POSIX only; a no-op on Windows).
void RemoveSemaphore(const std::string& name);

// Ends every wait on a semaphore of this process, now and later, as if it
// had timed out (within a fifth of a second). For a process that is
// stopping: a wait on a peer that never answers must not hold up its end.
void AbandonSemaphoreWaits();

}  // namespace platform
