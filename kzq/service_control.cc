#include "kzq/service_control.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "kvc/diagnostic_log.h"
#include "platform/error.h"
#include "platform/service_host.h"
#include "platform/worker_thread.h"

namespace kzq {
namespace {

// Signalled once, by the worker or the control handler's thread; waited on
// by the service entry's thread.
class Event {
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
  bool WaitFor(uint32_t millis) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::milliseconds(millis), [this] { return signalled_; });
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
void (*g_reload_hook)() = nullptr;
// Written by the service entry before the worker starts, read at exit.
std::string g_service_name;

std::atomic<platform::ServiceStatusHandle> g_status_handle{nullptr};
// Signalled by a stop or shutdown control, or by the work returning. Never
// destroyed: work that ends the process from its own thread runs the exit
// routines while the entry's thread still waits on g_end_requested, and
// destroying a condition variable that has a waiter blocks for good.
Event& g_end_requested = *new Event;
Event& g_work_returned = *new Event;
std::mutex g_worker_lock;  // the control handler and the cleanup both reach for the worker
std::unique_ptr<platform::WorkerThread> g_worker;
// The error of this thread's last failed call, as the OS keeps it per thread.
thread_local int t_last_error = 0;
// Written by one thread and polled by another.
std::atomic<int> g_running{0};
std::atomic<int> g_paused{0};
std::atomic<bool> g_stop_requested{false};
std::atomic<int> g_work_result{0};
// Set when the service entry ends the process with g_exit_code; a process
// exit without it was started from inside the work.
std::atomic<bool> g_ending{false};
std::atomic<int> g_exit_code{0};
std::atomic<bool> g_stopped_reported{false};

// How long a stop waits for the work to return, in steps that each tell
// the service manager the stop is still progressing.
constexpr uint32_t kStopStepMillis = 2000;
constexpr uint32_t kStopSteps = 10;

int WorkerThreadBody() {
  g_work_result = g_work(g_argc, g_argv);
  g_running = 0;
  g_work_returned.Signal();
  g_end_requested.Signal();
  return 0;
}

bool SuspendWorker(bool suspend) {
  std::lock_guard<std::mutex> guard(g_worker_lock);
  if (!g_worker) return false;
  return suspend ? g_worker->Suspend() : g_worker->Resume();
}

void ReportStopped(uint32_t win32_exit_code, uint32_t specific_exit_code) {
  if (g_status_handle == nullptr || g_stopped_reported.exchange(true)) return;
  ReportServiceStatus(platform::kServiceStopped, win32_exit_code, specific_exit_code, 0, 0);
}

void StopCleanup(int error) {
  ReportStopped(static_cast<uint32_t>(error), 0);
  std::lock_guard<std::mutex> guard(g_worker_lock);
  g_worker.reset();
}

// The service manager must hear of a failed start, and so must whoever
// reads the diagnostic log.
void ReportFailure(const std::string& text) {
  kvc::Log('e', "ctc5010", "%s\n", text.c_str());
  platform::ReportServiceFailure(g_service_name.c_str(), text);
}

// The last exit routine to run (it was registered before all others): the
// stopped report is the service's last act before the process ends.
void ReportStoppedAtExit() {
  if (g_status_handle == nullptr || g_stopped_reported) return;
  if (!g_ending) {
    ReportFailure("Service " + g_service_name + " ended its process before it was stopped");
    return ReportStopped(platform::kErrProcessAborted, 0);
  }
  ReportStopped(0, static_cast<uint32_t>(g_exit_code.load()));
}

// The refusal of a pause or continue that does not apply reports state 0,
// which the service manager rejects; it has always done so.
void ReportRefusal() { ReportServiceStatus(0, 0, 0, 0, 0); }

void RequestStop() {
  ReportServiceStatus(platform::kServiceStopPending, 0, 0, 1, 15000);
  g_running = 0;
  if (g_stop_requested.exchange(true)) return;
  if (g_stop_hook != nullptr) g_stop_hook();
  g_end_requested.Signal();
}

void OnControl(uint32_t control) {
  switch (control) {
    case platform::kControlStop:
    case platform::kControlShutdown:
      return RequestStop();
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
    case platform::kControlParamChange:
      if (g_reload_hook != nullptr && g_running != 0) g_reload_hook();
      break;
    default:
      break;
  }
}

bool StartService() {
  if (!ReportServiceStatus(platform::kServiceStartPending, 0, 0, 1, 5000)) return false;
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

// A stop lets the work finish (a paused worker is resumed for it), telling
// the service manager the stop goes on; work that does not return in time
// is ended with the process.
bool FinishWork() {
  if (g_paused.exchange(0) != 0) SuspendWorker(false);
  for (uint32_t step = 1; step <= kStopSteps; ++step) {
    if (g_work_returned.WaitFor(kStopStepMillis)) return true;
    ReportServiceStatus(platform::kServiceStopPending, 0, 0, step + 1, 2 * kStopStepMillis);
  }
  return false;
}

// Ends the process with the work's result: the exit routines run first and
// the stopped report last (ReportStoppedAtExit).
[[noreturn]] void EndService() {
  int code = g_work_result;
  if (!g_stop_requested) {
    if (code != 0)
      ReportFailure("Service " + g_service_name + " stopped: its work ended by itself with " + std::to_string(code));
    else
      kvc::Log('w', "ctc5011", "Service %s stopped: its work ended by itself\n", g_service_name.c_str());
  } else if (!FinishWork()) {
    kvc::Log('w', "ctc5012", "Service %s stopped before its work finished\n", g_service_name.c_str());
    code = 0;
  }
  g_exit_code = code;
  g_ending = true;
  exit(code);
}

void ServiceEntry(const char* name) {
  g_service_name = name;
  g_status_handle = platform::RegisterServiceControlHandler(kServiceName, OnControl, &t_last_error);
  if (g_status_handle == nullptr) return StopCleanup(t_last_error);
  if (!StartService()) return StopCleanup(t_last_error);
  g_end_requested.Wait();
  EndService();
}

}  // namespace

bool ReportServiceStatus(uint32_t state, uint32_t win32_exit_code, uint32_t specific_exit_code,
                         uint32_t check_point, uint32_t wait_hint) {
  platform::ServiceStatus status;
  status.state = state;
  status.controls_accepted = state == platform::kServiceStartPending ? 0 : platform::kAcceptStopAndShutdown;
  if (g_reload_hook != nullptr && status.controls_accepted != 0) status.controls_accepted |= platform::kAcceptParamChange;
  status.win32_exit_code = specific_exit_code != 0 ? platform::kErrServiceSpecific : win32_exit_code;
  status.specific_exit_code = specific_exit_code;
  status.check_point = check_point;
  status.wait_hint = wait_hint;
  return platform::SetServiceStatus(g_status_handle, status, &t_last_error);
}

int RunAsService(int argc, char** argv, ServiceWork work, void (*stop_hook)(), void (*reload_hook)()) {
  g_argc = argc;
  g_argv = argv;
  g_work = work;
  g_stop_hook = stop_hook;
  g_reload_hook = reload_hook;
  atexit(ReportStoppedAtExit);
  int error = 0;
  if (platform::RunServiceDispatcher(kServiceName, ServiceEntry, &error)) return 0;
  printf("In StartServiceCtrlDispatcher\nError number: %d\n", error);
  fflush(stdout);
  exit(error);
}

}  // namespace kzq
