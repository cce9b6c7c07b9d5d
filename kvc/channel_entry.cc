#include "kvc/channel_entry.h"

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <string>

#include "kvc/collector_channel.h"
#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"
#include "kvc/agent_config.h"
#include "kvc/diagnostic_log.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace kvc {
namespace {

constexpr int kBusyTries = 30;
constexpr std::chrono::milliseconds kBusyTry{1000};
constexpr int kExitNoChannel = 8;

// Holds the code that is running. A caller waiting for it is woken the
// moment it is given back.
TimedLock& BusyLock() {
  static auto* lock = new TimedLock;
  return *lock;
}

// IPC mode: shared memory unless COLL_USESHM says otherwise.
bool SharedMemoryMode() {
  AgentConfig& config = TheAgentConfig();
  ReadAgentEnvironment(config);
  return config.useShm == nullptr || config.useShm[0] == '1';
}

// Takes the busy lock for `code`, waiting a bounded time for a running
// call. A caller that waited in vain makes no call at all: the channel
// holds one exchange at a time, and two threads in it at once take each
// other's answers and lose its semaphore counts, which stalls every later
// exchange.
bool TakeBusyWord(int code) {
  TimedLock& busy = BusyLock();
  if (busy.TakeWithin(code, std::chrono::milliseconds(0))) return true;
  const int patience = ChannelPatience::Current();
  if (patience > 0) {
    if (busy.TakeWithin(code, std::chrono::milliseconds(patience))) return true;
    Log('w', "com0015", "kvccomm busy with call %d for more than %d ms; call %d not made\n", busy.Holder(), patience,
        code);
    return false;
  }
  Log('i', "com0010", "kvccomm locked... entering wait (%d,%d)\n", busy.Holder(), code);
  for (int tries = 1; tries <= kBusyTries; ++tries) {
    if (busy.TakeWithin(code, kBusyTry)) return true;
    Log('i', "com0012", "kvccomm locked... still waiting (%d)\n", tries);
  }
  Log('e', "com0014", "kvccomm still locked by call %d after %d seconds; call %d not made\n", busy.Holder(),
      kBusyTries, code);
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
  if (code == kCodeShut) {
    // Shutting down never waits for a running call.
    result = Dispatch(code, code_word, args);
    if (BusyLock().Holder() != 0) BusyLock().Give();
  } else {
    if (!TakeBusyWord(code)) {
      va_end(args);
      return nullptr;
    }
    // With another IPC mode the call does nothing, and the busy word stays
    // set on purpose: later calls go through the full bounded wait.
    if (SharedMemoryMode()) {
      result = Dispatch(code, code_word, args);
      BusyLock().Give();
    }
  }
  va_end(args);
  return result;
}
