#include "kzq/service_control.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/service_host.h"
#include "platform/worker_thread.h"

namespace kzq {
namespace {

// Signalled once by a stop control; waited on by the service entry.
class StopEvent {
 public:
  void Signal() {
    std::lock_guard<std::mutex> guard(lock_);
    signalled_ = true;
    changed_.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return signalled_; });
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool signalled_ = false;
};

int g_argc = 0;
char** g_argv = nullptr;
ServiceWork g_work = nullptr;
void (*g_stop_hook)() = nullptr;

std::atomic<platform::ServiceStatusHandle> g_status_handle{nullptr};
StopEvent g_stop_event;
std::atomic<bool> g_stop_event_created{false};
std::mutex g_worker_lock;  // the control handler and the cleanup both reach for the worker
std::unique_ptr<platform::WorkerThread> g_worker;
// The error of this thread's last failed call, as the OS keeps it per thread.
thread_local int t_last_error = 0;
// Written by one thread and polled by another.
std::atomic<int> g_running{0};
std::atomic<int> g_paused{0};

constexpr uint32_t kGraceMillis = 3000;

int WorkerThreadBody() {
  g_work(g_argc, g_argv);
  g_running = 0;
  return 0;
}

bool SuspendWorker(bool suspend) {
  std::lock_guard<std::mutex> guard(g_worker_lock);
  if (!g_worker) return false;
  return suspend ? g_worker->Suspend() : g_worker->Resume();
}

void StopCleanup(int error) {
  g_stop_event_created = false;
  if (g_status_handle != nullptr) ReportServiceStatus(platform::kServiceStopped, static_cast<uint32_t>(error), 0, 0, 0);
  std::lock_guard<std::mutex> guard(g_worker_lock);
  g_worker.reset();
}

// The refusal of a pause or continue that does not apply reports state 0,
// which the service manager rejects; it has always done so.
void ReportRefusal() { ReportServiceStatus(0, 0, 0, 0, 0); }

void OnControl(uint32_t control) {
  switch (control) {
    case platform::kControlStop:
      ReportServiceStatus(platform::kServiceStopPending, 0, 0, 1, 15000);
      g_running = 0;
      if (g_stop_hook != nullptr) g_stop_hook();
      if (g_stop_event_created) g_stop_event.Signal();
      break;
    case platform::kControlPause:
      if (g_running == 0 || g_paused != 0) return ReportRefusal();
      ReportServiceStatus(platform::kServicePausePending, 0, 0, 1, 1000);
      g_paused = 1;
      SuspendWorker(true);
      ReportServiceStatus(platform::kServicePaused, 0, 0, 0, 0);
      break;
    case platform::kControlContinue:
      if (g_running == 0 || g_paused == 0) return ReportRefusal();
      ReportServiceStatus(platform::kServiceContinuePending, 0, 0, 1, 1000);
      g_paused = 0;
      SuspendWorker(false);
      ReportServiceStatus(platform::kServiceRunning, 0, 0, 0, 0);
      break;
    default:
      // Shutdown is accepted but needs nothing: the process ends with the system.
      break;
  }
}

bool StartService() {
  if (!ReportServiceStatus(platform::kServiceStartPending, 0, 0, 1, 5000)) return false;
  g_stop_event_created = true;
  if (!ReportServiceStatus(platform::kServiceStartPending, 0, 0, 2, 1000)) return false;
  {
    std::lock_guard<std::mutex> guard(g_worker_lock);
    g_worker = platform::StartWorkerThread(WorkerThreadBody, &t_last_error);
    if (!g_worker) return false;
  }
  if (!ReportServiceStatus(platform::kServiceRunning, 0, 0, 0, 0)) return false;
  g_running = 1;
  return true;
}

void ServiceEntry() {
  g_status_handle = platform::RegisterServiceControlHandler(kServiceName, OnControl, &t_last_error);
  if (g_status_handle == nullptr) return StopCleanup(t_last_error);
  if (!StartService()) return StopCleanup(t_last_error);
  g_stop_event.Wait();
  // The worker gets a grace period to finish; the process ends it otherwise.
  do {
    platform::SleepMillis(kGraceMillis);
  } while (g_running != 0);
  StopCleanup(0);
}

}  // namespace

bool ReportServiceStatus(uint32_t state, uint32_t win32_exit_code, uint32_t specific_exit_code,
                         uint32_t check_point, uint32_t wait_hint) {
  platform::ServiceStatus status;
  status.state = state;
  status.controls_accepted = state == platform::kServiceStartPending ? 0 : platform::kAcceptStopAndShutdown;
  status.win32_exit_code = specific_exit_code != 0 ? platform::kErrServiceSpecific : win32_exit_code;
  status.specific_exit_code = specific_exit_code;
  status.check_point = check_point;
  status.wait_hint = wait_hint;
  return platform::SetServiceStatus(g_status_handle, status, &t_last_error);
}

int RunAsService(int argc, char** argv, ServiceWork work, void (*stop_hook)()) {
  g_argc = argc;
  g_argv = argv;
  g_work = work;
  g_stop_hook = stop_hook;
  int error = 0;
  if (platform::RunServiceDispatcher(kServiceName, ServiceEntry, &error)) return 0;
  printf("In StartServiceCtrlDispatcher\nError number: %d\n", error);
  fflush(stdout);
  exit(error);
}

}  // namespace kzq
