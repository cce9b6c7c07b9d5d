#include <string>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "tests/e2e/service_manager.h"
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {
namespace {

// The state number sc prints: "STATE              : 4  RUNNING".
const char* StateNumberOf(ServiceManager::State state) {
  switch (state) {
    case ServiceManager::kRunning: return ": 4 ";
    case ServiceManager::kPaused: return ": 7 ";
    case ServiceManager::kStopping: return ": 3 ";
    case ServiceManager::kStopped: return ": 1 ";
  }
  return "";
}

// A service deleted while its process still ends stays marked for deletion
// for a while, so every manager installs under a name of its own.
std::string UniqueName() {
  static int managers = 0;
  return "kzqtest" + std::to_string(platform::CurrentProcessId()) + "_" + std::to_string(++managers);
}

class ScManager final : public ServiceManager {
 public:
  explicit ScManager(const std::string& work_dir)
      : output_(work_dir + "\\sc-output.txt"), name_(UniqueName()) {}
  ~ScManager() override {
    if (installed_) {
      Sc({"stop", name_});
      Sc({"delete", name_});
    }
  }

  bool Start(const std::string& program, const std::vector<std::string>& args) override {
    std::string command = program;
    for (const std::string& arg : args) command += " " + arg;
    installed_ = Sc({"create", name_, "binPath=", command});
    return installed_ && Sc({"start", name_});
  }
  // The service does not accept pause and continue, so the manager never
  // sends them.
  bool CanPause() const override { return false; }
  bool Pause() override { return false; }
  bool Continue() override { return false; }
  bool Reload() override { return Sc({"control", name_, "paramchange"}); }
  // The stop's own answer shows the state it left: a service that ends at
  // once may be stopped before any later query could see it stopping.
  bool Stop() override {
    const bool sent = Sc({"stop", name_});
    stop_pending_seen_ = sent && last_.find(std::string("STATE              ") + StateNumberOf(kStopping)) !=
                                      std::string::npos;
    return sent;
  }

  bool WaitFor(State state, int timeout_ms) override {
    if (state == kStopping && stop_pending_seen_) return true;
    const uint64_t deadline = platform::MonotonicMillis() + static_cast<uint64_t>(timeout_ms);
    for (;;) {
      if (Sc({"query", name_}) && last_.find(std::string("STATE              ") + StateNumberOf(state)) != std::string::npos)
        return true;
      if (platform::MonotonicMillis() > deadline) return false;
      platform::SleepMillis(100);
    }
  }
  int ExitCode() override {
    Sc({"query", name_});
    const size_t at = last_.find("WIN32_EXIT_CODE");
    if (at == std::string::npos) return -1;
    const size_t colon = last_.find(':', at);
    return std::stoi(last_.substr(colon + 1));
  }
  std::string Log() const override { return log_; }

 private:
  bool Sc(std::vector<std::string> args) {
    args.insert(args.begin(), "C:\\windows\\system32\\sc.exe");
    const int rc = RunToEnd(args, output_, &last_);
    log_ += "sc " + args[1] + " -> " + std::to_string(rc) + "\n" + last_;
    return rc == 0;
  }

  const std::string output_;
  const std::string name_;
  bool installed_ = false;
  bool stop_pending_seen_ = false;
  std::string last_, log_;
};

}  // namespace

std::unique_ptr<ServiceManager> ServiceManager::Create(const std::string& work_dir) {
  return std::make_unique<ScManager>(work_dir);
}

}  // namespace kzq_test
