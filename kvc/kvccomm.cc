#include "kvc/kvccomm.h"

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <string>

#include "kvc/kvccomm2.h"
#include "kvc/kvccomob.h"
#include "kvc/kvcenv.h"
#include "kvc/kvcutil.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace kvc {
namespace {

constexpr int kBusyTries = 30;
constexpr uint32_t kBusySleepMs = 1000;
constexpr uint32_t kPatientPollMs = 20;
constexpr int kExitNoChannel = 8;

// The code that is running, 0 when idle: the channel's lock, taken and
// given back whole by one atomic step each.
std::atomic<int> g_busy{0};
thread_local int t_patience_ms = 0;  // 0: the full bounded wait
thread_local bool t_found_busy = false;

// IPC mode: shared memory unless COLL_USESHM says otherwise.
bool SharedMemoryMode() {
  AgentConfig& config = TheAgentConfig();
  ReadAgentEnvironment(config);
  return config.useShm == nullptr || config.useShm[0] == '1';
}

// Takes the busy word for `code`, waiting a bounded time for a running call.
// The word is taken in one step, and a caller that waited in vain makes no
// call at all: the channel holds one exchange at a time, and two threads in
// it at once take each other's answers and lose its semaphore counts, which
// stalls every later exchange.
bool TakeBusyWordWithin(int code, int millis) {
  const uint64_t deadline = platform::MonotonicMillis() + static_cast<uint64_t>(millis);
  int running = 0;
  while (platform::MonotonicMillis() < deadline) {
    platform::SleepMillis(kPatientPollMs);
    running = 0;
    if (g_busy.compare_exchange_strong(running, code)) return true;
  }
  Log('w', "com0015", "kvccomm busy with call %d for more than %d ms; call %d not made\n", running, millis, code);
  return false;
}

bool TakeBusyWord(int code) {
  int running = 0;
  if (g_busy.compare_exchange_strong(running, code)) return true;
  if (t_patience_ms > 0) return TakeBusyWordWithin(code, t_patience_ms);
  Log('i', "com0010", "kvccomm locked... entering wait (%d,%d)\n", running, code);
  for (int tries = 1; tries <= kBusyTries; ++tries) {
    platform::SleepMillis(kBusySleepMs);
    running = 0;
    if (g_busy.compare_exchange_strong(running, code)) return true;
    Log('i', "com0012", "kvccomm locked... still waiting (%d)\n", tries);
  }
  Log('e', "com0014", "kvccomm still locked by call %d after %d seconds; call %d not made\n", running, kBusyTries,
      code);
  return false;
}

void* Dispatch(int code, const char* word, va_list args) {
  switch (code) {
    case kCodeInit:
      return NewAnchor('P');
    case kCodeInitCollector:
      return NewAnchor('C');
    case kCodeGet: {
      auto* anchor = va_arg(args, IpcAnchor*);
      const char* text = va_arg(args, const char*);
      if (anchor == nullptr) {
        Log('e', "com2100", "Missing IPC anchor for get request.\n");
        return nullptr;
      }
      return GetRequestOn(anchor, text == nullptr ? "" : text);
    }
    case kCodePut: {
      auto* anchor = va_arg(args, IpcAnchor*);
      if (anchor == nullptr) {
        Log('e', "com2100", "Missing IPC anchor for put request.\n");
        return nullptr;
      }
      return PutRequestOn(anchor);
    }
    case kCodeTerm:
      FreeAnchor(va_arg(args, IpcAnchor*));
      return nullptr;
    case kCodeShut:
      if (SharedMemoryMode()) DestroyShareMemory();
      return nullptr;
    case kCodeInitShareMemory: {
      if (!SharedMemoryMode()) return nullptr;
      std::string first, second;
      ChannelPrefixNames(&first, &second);
      if (InitShareMemory(first.c_str(), second.c_str()) != 0) {
        Log('e', "com31400", "could not establish shared memory, quitting\n");
        exit(kExitNoChannel);
      }
      return nullptr;
    }
    default:
      Log('e', "com2100", "Invalid function code to KVCCOMM2: %s\n", word);
      return nullptr;
  }
}

}  // namespace

ChannelPatience::ChannelPatience(int millis) : previous_(t_patience_ms) { t_patience_ms = millis; }
ChannelPatience::~ChannelPatience() { t_patience_ms = previous_; }

bool LastCallFoundChannelBusy() { return t_found_busy; }

}  // namespace kvc

void* KVCCOMM(const char* code_word, ...) {
  using namespace kvc;
  const int code = code_word == nullptr ? 0 : FunctionCodeOf(code_word);
  if (code == 0) {
    Log('e', "com0100", "Invalid function code to KVCCOMM: %s\n", code_word ? code_word : "");
    return nullptr;
  }
  va_list args;
  va_start(args, code_word);
  void* result = nullptr;
  t_found_busy = false;
  if (code == kCodeShut) {
    // Shutting down never waits for a running call.
    result = Dispatch(code, code_word, args);
    g_busy.store(0);
  } else {
    t_found_busy = !TakeBusyWord(code);
    if (t_found_busy) {
      va_end(args);
      return nullptr;
    }
    // With another IPC mode the call does nothing, and the busy word stays
    // set on purpose: later calls go through the full bounded wait.
    if (SharedMemoryMode()) {
      result = Dispatch(code, code_word, args);
      g_busy.store(0);
    }
  }
  va_end(args);
  return result;
}
