#include <atomic>

#include "platform/common/sliced_wait.h"
#include "platform/semaphore.h"

namespace platform {
namespace {

std::atomic<bool> g_abandoned{false};

}  // namespace

void AbandonSemaphoreWaits() { g_abandoned = true; }

bool SemaphoreWaitsAbandoned() { return g_abandoned.load(); }

}  // namespace platform
