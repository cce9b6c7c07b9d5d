// Semaphore waits in short slices, so that a stopping process can abandon
// them: a backend supplies one bounded wait, and this runs it until the
// count is taken, the time is up or waits are abandoned.
#pragma once

#include <cstdint>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/semaphore.h"

namespace platform {

bool SemaphoreWaitsAbandoned();

// `wait_slice(ms)` returns kOk, kErrTimeout or another error.
template <typename WaitSlice>
int SlicedWait(uint32_t timeout_ms, WaitSlice wait_slice) {
  constexpr uint32_t kSliceMillis = 200;
  const bool forever = timeout_ms == kWaitForever;
  const uint64_t deadline = MonotonicMillis() + (forever ? 0 : timeout_ms);
  for (;;) {
    if (SemaphoreWaitsAbandoned()) return kErrTimeout;
    const uint64_t now = MonotonicMillis();
    const uint64_t left = forever ? kSliceMillis : (deadline > now ? deadline - now : 0);
    const int rc = wait_slice(static_cast<uint32_t>(left < kSliceMillis ? left : kSliceMillis));
    if (rc != kErrTimeout || (!forever && MonotonicMillis() >= deadline)) return rc;
  }
}

}  // namespace platform
