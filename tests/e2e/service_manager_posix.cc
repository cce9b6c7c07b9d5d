#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "tests/e2e/service_manager.h"

namespace kzq_test {
namespace {

// What each state's notification carries.
const char* MarkerOf(ServiceManager::State state) {
  switch (state) {
    case ServiceManager::kRunning: return "READY=1";
    case ServiceManager::kPaused: return "STATUS=Paused";
    case ServiceManager::kStopping: return "STOPPING=1";
    case ServiceManager::kStopped: return "STATUS=Stopped";
  }
  return "";
}

class NotifySocketManager final : public ServiceManager {
 public:
  explicit NotifySocketManager(const std::string& work_dir) : dir_(work_dir) {
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_ = dir_ + "/notify.sock";
    strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const timeval wait = {0, 100 * 1000};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  }
  ~NotifySocketManager() override { close(socket_); }

  bool Start(const std::string& program, const std::vector<std::string>& args) override {
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), args.begin(), args.end());
    platform::SetEnv("NOTIFY_SOCKET", path_);
    int error = 0;
    platform::ProcessOptions options;
    options.output_file = dir_ + "/service-output.txt";
    child_ = platform::StartProcess(argv, &error, options);
    platform::SetEnv("NOTIFY_SOCKET", "");
    return child_ != nullptr;
  }
  bool CanPause() const override { return true; }
  bool Pause() override { return Signal(SIGUSR1); }
  bool Reload() override { return Signal(SIGHUP); }
  bool Continue() override { return Signal(SIGUSR2); }
  bool Stop() override { return Signal(SIGTERM); }

  // Each state is looked for after the last one found, so a second
  // "running" needs a second READY.
  bool WaitFor(State state, int timeout_ms) override {
    const uint64_t deadline = platform::MonotonicMillis() + static_cast<uint64_t>(timeout_ms);
    for (;;) {
      const size_t found = log_.find(MarkerOf(state), seen_);
      if (found != std::string::npos) {
        seen_ = found + 1;
        return true;
      }
      if (platform::MonotonicMillis() > deadline) return false;
      char message[4096];
      const ssize_t n = recv(socket_, message, sizeof message, 0);
      if (n > 0) log_.append(message, static_cast<size_t>(n)).append("\n---\n");
    }
  }
  // A program that does not end within a minute of its stop is a failure
  // to report, not a test run that hangs until the runner kills it: it is
  // killed, and the log says so.
  int ExitCode() override {
    if (!child_) return -1;
    auto ended = std::async(std::launch::async, [this] { return child_->Wait(); });
    if (ended.wait_for(std::chrono::seconds(60)) == std::future_status::ready) return ended.get();
    log_ += "the program did not end within 60 s of its stop: killed\n";
    kill(static_cast<pid_t>(child_->Id()), SIGKILL);
    ended.get();
    return -1;
  }
  std::string Log() const override { return log_; }

 private:
  bool Signal(int signal) { return child_ != nullptr && kill(static_cast<pid_t>(child_->Id()), signal) == 0; }

  std::string dir_, path_;
  int socket_ = -1;
  std::unique_ptr<platform::ChildProcess> child_;
  std::string log_;
  size_t seen_ = 0;
};

}  // namespace

std::unique_ptr<ServiceManager> ServiceManager::Create(const std::string& work_dir) {
  return std::make_unique<NotifySocketManager>(work_dir);
}

}  // namespace kzq_test
