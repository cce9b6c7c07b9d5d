#include "platform/worker_thread.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>

#include "platform/clock.h"
#include "platform/posix/errors.h"

namespace platform {
namespace {

// POSIX cannot suspend another thread, so the thread suspends itself: the
// suspend signal's handler parks it in sigsuspend until the resume signal.
int SuspendSignal() { return SIGRTMIN + 4; }
int ResumeSignal() { return SIGRTMIN + 5; }

struct SharedState {
  int (*body)() = nullptr;
  sigset_t parked_mask;  // the thread's mask while parked: only the resume signal gets through
  volatile sig_atomic_t suspended = 0;
  volatile sig_atomic_t parked = 0;
  std::atomic<bool> finished{false};
};

thread_local SharedState* t_state = nullptr;

void OnSuspend(int) {
  SharedState* state = t_state;
  if (state == nullptr) return;
  const int saved_errno = errno;
  state->parked = 1;
  while (state->suspended) sigsuspend(&state->parked_mask);
  state->parked = 0;
  errno = saved_errno;
}

void OnResume(int) {}

void InstallHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    action.sa_handler = OnSuspend;
    sigaction(SuspendSignal(), &action, nullptr);
    action.sa_handler = OnResume;
    sigaction(ResumeSignal(), &action, nullptr);
  });
}

void* ThreadMain(void* argument) {
  std::shared_ptr<SharedState> state(*static_cast<std::shared_ptr<SharedState>*>(argument));
  delete static_cast<std::shared_ptr<SharedState>*>(argument);
  // Started with both signals blocked; the resume signal stays blocked
  // outside sigsuspend so a resume that comes early is never lost.
  pthread_sigmask(SIG_SETMASK, nullptr, &state->parked_mask);
  sigaddset(&state->parked_mask, SuspendSignal());
  sigdelset(&state->parked_mask, ResumeSignal());
  t_state = state.get();
  sigset_t suspend;
  sigemptyset(&suspend);
  sigaddset(&suspend, SuspendSignal());
  pthread_sigmask(SIG_UNBLOCK, &suspend, nullptr);
  state->body();
  state->finished = true;
  return nullptr;
}

class PosixWorker final : public WorkerThread {
 public:
  PosixWorker(pthread_t thread, std::shared_ptr<SharedState> state) : thread_(thread), state_(std::move(state)) {}
  // Joinable until here, so the thread's id stays valid for the signals.
  ~PosixWorker() override { pthread_detach(thread_); }

  bool Suspend() override {
    if (state_->finished) return false;
    state_->suspended = 1;
    if (pthread_kill(thread_, SuspendSignal()) != 0) return false;
    while (!state_->parked && !state_->finished) SleepMillis(1);
    return state_->parked != 0;
  }

  bool Resume() override {
    state_->suspended = 0;
    return state_->finished || pthread_kill(thread_, ResumeSignal()) == 0;
  }

 private:
  const pthread_t thread_;
  const std::shared_ptr<SharedState> state_;
};

}  // namespace

std::unique_ptr<WorkerThread> StartWorkerThread(int (*body)(), int* error) {
  InstallHandlers();
  auto state = std::make_shared<SharedState>();
  state->body = body;
  sigset_t both, saved;
  sigemptyset(&both);
  sigaddset(&both, SuspendSignal());
  sigaddset(&both, ResumeSignal());
  pthread_sigmask(SIG_BLOCK, &both, &saved);
  auto* argument = new std::shared_ptr<SharedState>(state);
  pthread_t thread;
  const int rc = pthread_create(&thread, nullptr, ThreadMain, argument);
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  if (rc != 0) {
    delete argument;
    *error = posix::FromErrno(rc);
    return nullptr;
  }
  return std::make_unique<PosixWorker>(thread, std::move(state));
}

}  // namespace platform
