#include "platform/stop_signal.h"

#include <pthread.h>
#include <signal.h>

#include <initializer_list>
#include <thread>

namespace platform {

namespace {

// The signals are blocked in every thread and taken by one waiting thread,
// so the handler can do real work.
void HandleSignals(std::initializer_list<int> signals, void (*handler)()) {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : signals) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread([set, handler] {
    for (;;) {
      int signal = 0;
      if (sigwait(&set, &signal) == 0) handler();
    }
  }).detach();
}

}  // namespace

void InstallStopHandler(void (*stop)()) { HandleSignals({SIGINT, SIGTERM}, stop); }

void InstallReloadHandler(void (*reload)()) { HandleSignals({SIGHUP}, reload); }

}  // namespace platform
