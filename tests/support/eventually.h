// Waiting on a condition with a deadline, never a fixed sleep.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace kzq_test {

// Polls `done` until it holds (true) or `patience_ms` has passed (false).
template <typename F>
bool Eventually(F done, uint64_t patience_ms = 60000, uint32_t poll_ms = 20) {
  const uint64_t deadline = platform::MonotonicMillis() + patience_ms;
  while (!done()) {
    if (platform::MonotonicMillis() > deadline) return false;
    platform::SleepMillis(poll_ms);
  }
  return true;
}

}  // namespace kzq_test
