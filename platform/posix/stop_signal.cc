#include "platform/stop_signal.h"

#include <pthread.h>
#include <signal.h>

#include <thread>

namespace platform {

// The signals are blocked in every thread and taken by one waiting thread,
// so the handler can do real work.
void InstallStopHandler(void (*stop)()) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread([set, stop] {
    for (;;) {
      int signal = 0;
      if (sigwait(&set, &signal) == 0) stop();
    }
  }).detach();
}

}  // namespace platform
