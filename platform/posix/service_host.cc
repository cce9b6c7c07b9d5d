#include "platform/service_host.h"

#include <signal.h>
#include <systemd/sd-daemon.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "platform/error.h"
#include "platform/posix/errors.h"

namespace platform {
namespace {

std::atomic<ServiceControlHandler> g_handler{nullptr};
int g_handle_token = 0;  // the handle given out: the service manager is the process's one systemd

bool UnderServiceManager() {
  const char* socket = getenv("NOTIFY_SOCKET");
  return socket != nullptr && socket[0] != '\0';
}

uint32_t ControlFor(int signal) {
  switch (signal) {
    case SIGTERM: return kControlStop;
    case SIGUSR1: return kControlPause;
    case SIGUSR2: return kControlContinue;
    case SIGHUP: return kControlParamChange;
    default: return 0;
  }
}

// The controls arrive as signals, taken on the dispatcher's thread as the
// Windows dispatcher takes them, until the service's entry has returned.
void DeliverControls(const sigset_t& controls, const std::atomic<bool>& entry_done) {
  const timespec poll = {0, 100 * 1000 * 1000};
  while (!entry_done) {
    const int signal = sigtimedwait(&controls, nullptr, &poll);
    if (signal <= 0) continue;
    if (ServiceControlHandler handler = g_handler.load()) handler(ControlFor(signal));
  }
}

std::string StateText(const ServiceStatus& status) {
  char extend[64] = "";
  if (status.wait_hint != 0)
    snprintf(extend, sizeof extend, "\nEXTEND_TIMEOUT_USEC=%llu",
             static_cast<unsigned long long>(status.wait_hint) * 1000ULL);
  switch (status.state) {
    case kServiceStartPending: return "STATUS=Starting (step " + std::to_string(status.check_point) + ")" + extend;
    case kServiceRunning: return "READY=1\nSTATUS=Running";
    case kServiceStopPending: return std::string("STOPPING=1\nSTATUS=Stopping") + extend;
    case kServicePausePending: return std::string("STATUS=Pausing") + extend;
    case kServicePaused: return "STATUS=Paused";
    case kServiceContinuePending: return std::string("STATUS=Resuming") + extend;
    case kServiceStopped:
      if (status.win32_exit_code == 0) return "STATUS=Stopped";
      return "STATUS=Stopped with error " + std::to_string(status.win32_exit_code) +
             (status.specific_exit_code != 0 ? " (" + std::to_string(status.specific_exit_code) + ")" : "");
    default: return {};
  }
}

}  // namespace

bool RunServiceDispatcher(const char* name, ServiceEntry entry, int* error) {
  if (!UnderServiceManager()) {
    *error = kErrNotStartedAsService;
    return false;
  }
  sigset_t controls;
  sigemptyset(&controls);
  for (int signal : {SIGTERM, SIGUSR1, SIGUSR2, SIGHUP}) sigaddset(&controls, signal);
  pthread_sigmask(SIG_BLOCK, &controls, nullptr);  // before the entry's thread, which inherits it
  std::atomic<bool> entry_done{false};
  std::thread service([name, entry, &entry_done] {
    entry(name);
    entry_done = true;
  });
  DeliverControls(controls, entry_done);
  service.join();
  return true;
}

ServiceStatusHandle RegisterServiceControlHandler(const char*, ServiceControlHandler handler, int* error) {
  if (!UnderServiceManager()) {
    *error = kErrNotStartedAsService;
    return nullptr;
  }
  g_handler = handler;
  return &g_handle_token;
}

bool SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status, int* error) {
  if (handle != &g_handle_token) {
    *error = kErrInvalidHandle;
    return false;
  }
  const std::string text = StateText(status);
  if (text.empty()) {
    *error = kErrInvalidData;
    return false;
  }
  const int rc = sd_notify(0, text.c_str());
  if (rc > 0) return true;
  *error = rc == 0 ? kErrNotStartedAsService : posix::FromErrno(-rc);
  return false;
}

void ReportServiceFailure(const char*, const std::string&) {}

}  // namespace platform
