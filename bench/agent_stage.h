// A real kzqcoll and kzqagent -console for the HTTP benchmarks: a scratch
// directory with the demo's environment, the programs started in it and
// killed at the end, and the agent's endpoint found once it has sampled
// every table. Used from the benchmark's main thread only. POSIX only.
#pragma once

#include <httplib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "kvc/shared_memory_exchange.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"
#include "tests/support/binaries.h"
#include "tests/support/errorlog_writer.h"

namespace kzq_bench {

constexpr uint64_t kPatience = 60000;  // ms for a start or the first samples

[[noreturn]] inline void Fail(const std::string& what) { throw std::runtime_error(what); }

inline std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

template <typename F>
bool Eventually(F done) {
  const uint64_t deadline = platform::MonotonicMillis() + kPatience;
  while (!done()) {
    if (platform::MonotonicMillis() > deadline) return false;
    platform::SleepMillis(50);
  }
  return true;
}

// A scratch directory and the environment the collector and the agent
// share, set up as the demo does. The channel's objects get names no other
// run uses; they outlive killed processes, so they go with the directory.
class Stage {
 public:
  // `name` tells the scratch directories of the benchmarks apart.
  explicit Stage(const std::string& name)
      : dir_(std::filesystem::temp_directory_path() / ("kzq-" + name + "-" + Pid())), version_("kzqbench" + Pid()) {
    std::filesystem::remove_all(dir_);
    for (const char* sub : {"run", "registry", "logs", "home", "errorlog"})
      std::filesystem::create_directories(dir_ / sub);
    SetEnvironment();
    // The bench stands in for SQL Server: the service probe finds it
    // through the pid file, as it finds the collector through its own.
    std::ofstream(File("run/MSSQLSERVER.pid")) << Pid() << "\n";
    kzq_test::ErrorlogWriter::Create(File("errorlog/ERRORLOG"), kzq_test::LogClock{2026, 11, 23, 9, 0, 0, 0});
    // The agent leaves some files in its working directory.
    std::filesystem::current_path(dir_);
  }
  ~Stage() {
    for (const std::string& name : kvc::ChannelObjectNames(version_ + "_" + kServerId)) {
      platform::RemoveSharedArea(name);
      platform::RemoveSemaphore(name);
    }
    std::error_code ignored;
    std::filesystem::current_path(dir_.parent_path(), ignored);
    std::filesystem::remove_all(dir_, ignored);
  }
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;
  std::string File(const std::string& name) const { return (dir_ / name).string(); }

 private:
  static constexpr const char* kServerId = "BENCH";
  static std::string Pid() { return std::to_string(platform::CurrentProcessId()); }

  void SetEnvironment() const {
    const std::pair<const char*, std::string> settings[] = {
        {"KZQ_RUNTIME_DIR", File("run")},      {"KZQ_REGISTRY_ROOT", File("registry")},
        {"KVCLOGDIR", File("logs")},           {"TAVRA_LOG_PATH", File("logs")},
        {"COLL_HOME", File("home")},           {"COLL_PREFIX", File("logs/kzq")},
        {"COLL_VERSION", version_},            {"COLL_SERVERID", kServerId},
        {"COLL_SERVICENUMBER", "0"},           {"COLL_HOSTNAME", "bench-db01"},
        {"COLL_DBVERSION", "16.0.4135.4"},     {"COLL_ERRORLOG", File("errorlog/ERRORLOG")},
        {"COLL_ALERT_SEV", "14"},              {"COLL_ERRORLOG_MAX_EVENT_ROW", "50"},
        {"KZQ_HTTP_LISTEN", "127.0.0.1:0"},    {"KZQ_HTTP_TOKEN", ""},
        {"KZQ_SAMPLE_INTERVAL", ""},           {"NOTIFY_SOCKET", ""}};
    for (const auto& [name, value] : settings) platform::SetEnv(name, value);
  }

  std::filesystem::path dir_;
  std::string version_;
};

// A program this bench started: killed when it goes out of scope, so a
// failure half-way leaves nothing running.
class Child {
 public:
  Child(const std::vector<std::string>& argv, const std::string& output) : output_(output) {
    int error = 0;
    process_ = platform::StartProcess(argv, &error, {output});
    if (process_ == nullptr) Fail("cannot start " + argv[0] + " (error " + std::to_string(error) + ")");
  }
  ~Child() {
    process_->Kill();
    process_->Wait();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  uint32_t Id() const { return process_->Id(); }
  std::string Output() const { return ReadText(output_); }

 private:
  std::string output_;
  std::unique_ptr<platform::ChildProcess> process_;
};

// kzqcoll replaying the demo's rows for all 32 tables.
inline std::vector<std::string> ReplayCollectorCommand() {
  return {kzq_test::BuiltProgram("collector", "kzqcoll"), "--replay", KZQ_SOURCE_DIR "/demo/replay"};
}

// The agent's scheduler has sampled every table once.
inline bool AllSampled(const std::string& url) {
  using Json = nlohmann::json;
  httplib::Client client(url);
  auto status = client.Get("/status");
  if (!status || status->status != 200) return false;
  const Json body = Json::parse(status->body, nullptr, false);
  const Json tables = body.is_object() ? body.value("tables", Json::array()) : Json::array();
  if (tables.size() != 33) return false;
  return std::none_of(tables.begin(), tables.end(), [](const Json& t) { return t["taken_at"].is_null(); });
}

// kzqagent -console, once its endpoint has taken a port and its scheduler
// has sampled all 33 tables.
class Agent {
 public:
  Agent(const Stage& stage, const std::string& name)
      : child_({kzq_test::BuiltProgram("kzq", "kzqagent"), "-console"}, stage.File(name + ".out")) {
    const uint64_t start = platform::MonotonicMillis();
    const std::string marker = "HTTP endpoint on http://127.0.0.1:";
    if (!Eventually([&] {
          const std::string text = child_.Output();
          const size_t at = text.find(marker);
          if (at != std::string::npos) port_ = atoi(text.c_str() + at + marker.size());
          return port_ > 0;
        }))
      Fail("the agent named no HTTP endpoint:\n" + child_.Output());
    if (!Eventually([&] { return AllSampled(Url()); })) Fail("the agent did not sample all 33 tables in time");
    printf("agent pid %u on %s: all 33 tables sampled %.1f s after its start\n", child_.Id(), Url().c_str(),
           (platform::MonotonicMillis() - start) / 1e3);
  }
  int Port() const { return port_; }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string Proc(const char* file) const { return "/proc/" + std::to_string(child_.Id()) + "/" + file; }

 private:
  Child child_;
  int port_ = 0;
};

// A number field of /proc/<pid>/status ("VmRSS" in kB, "Threads").
inline long StatusField(const Agent& agent, const std::string& key) {
  std::ifstream in(agent.Proc("status"));
  for (std::string line; std::getline(in, line);)
    if (line.rfind(key + ":", 0) == 0) return atol(line.c_str() + key.size() + 1);
  Fail("no " + key + " in " + agent.Proc("status"));
}

}  // namespace kzq_bench
