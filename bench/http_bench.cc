// HTTP endpoint benchmark: a real kzqcoll replaying the demo's rows and a
// real kzqagent -console, read over HTTP. Measures the latency of
// /metrics (served from the scheduler's cache) and of a fresh sample of
// KZQDBD through the collector, alone and four at once, then the agent's
// memory and its idle CPU time with the default sample interval and with a
// 1-second one.
//   http_bench [metrics-requests] [table-requests] [idle-seconds] [simultaneous-rounds]
#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
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

namespace {

using Json = nlohmann::json;

constexpr uint64_t kPatience = 60000;  // ms for a start or the first samples

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what); }

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A scratch directory and the environment the collector and the agent
// share, set up as the demo does. The channel's objects get names no other
// run uses; they outlive killed processes, so they go with the directory.
class Stage {
 public:
  Stage() : dir_(std::filesystem::temp_directory_path() / ("kzq-http-bench-" + Pid())), version_("kzqbench" + Pid()) {
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
  uint32_t Id() const { return process_->Id(); }
  std::string Output() const { return ReadText(output_); }

 private:
  std::string output_;
  std::unique_ptr<platform::ChildProcess> process_;
};

template <typename F>
bool Eventually(F done) {
  const uint64_t deadline = platform::MonotonicMillis() + kPatience;
  while (!done()) {
    if (platform::MonotonicMillis() > deadline) return false;
    platform::SleepMillis(50);
  }
  return true;
}

// The agent's scheduler has sampled every table once.
bool AllSampled(const std::string& url) {
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
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string Proc(const char* file) const { return "/proc/" + std::to_string(child_.Id()) + "/" + file; }

 private:
  Child child_;
  int port_ = 0;
};

// Milliseconds of `count` GETs of `path` on one keep-alive connection,
// sorted; *body_bytes is the last answer's size.
std::vector<double> TimeGets(httplib::Client& client, const std::string& path, int count, size_t* body_bytes) {
  std::vector<double> millis;
  for (int i = -5; i < count; ++i) {  // five to warm up
    const auto start = std::chrono::steady_clock::now();
    auto result = client.Get(path);
    const auto end = std::chrono::steady_clock::now();
    if (!result || result->status != 200) Fail("GET " + path + " failed");
    *body_bytes = result->body.size();
    if (i >= 0) millis.push_back(std::chrono::duration<double, std::milli>(end - start).count());
  }
  std::sort(millis.begin(), millis.end());
  return millis;
}

void Latency(const Agent& agent, const std::string& path, int count, const char* what) {
  httplib::Client client(agent.Url());
  client.set_keep_alive(true);
  size_t bytes = 0;
  const std::vector<double> millis = TimeGets(client, path, count, &bytes);
  printf("GET %s (%s, %zu-byte body): median %.2f ms, p99 %.2f ms over %d requests\n", path.c_str(), what, bytes,
         millis[millis.size() / 2], millis[millis.size() * 99 / 100], count);
}

double MedianOf(std::vector<double> millis) {
  std::sort(millis.begin(), millis.end());
  return millis[millis.size() / 2];
}

// Fresh samples asked for by four consumers at once against one asked for
// alone: in each round one lone GET, then one GET from each of four
// threads, released together. Every thread keeps its own keep-alive
// connection, as separate consumers do.
void SimultaneousSamples(const Agent& agent, const std::string& path, int rounds) {
  constexpr int kAtOnce = 4;
  std::vector<std::unique_ptr<httplib::Client>> clients;
  for (int i = 0; i <= kAtOnce; ++i) {
    clients.push_back(std::make_unique<httplib::Client>(agent.Url()));
    clients.back()->set_keep_alive(true);
    size_t bytes = 0;
    TimeGets(*clients.back(), path, 0, &bytes);  // connects and warms up
  }
  std::vector<std::vector<double>> millis(kAtOnce + 1);
  std::barrier<> together(kAtOnce + 1);
  std::atomic<bool> failed{false};
  auto time_one = [&](int who) {
    const auto start = std::chrono::steady_clock::now();
    auto result = clients[who]->Get(path);
    const auto end = std::chrono::steady_clock::now();
    if (!result || result->status != 200) failed = true;
    millis[who].push_back(std::chrono::duration<double, std::milli>(end - start).count());
  };
  std::vector<std::thread> threads;
  for (int who = 1; who <= kAtOnce; ++who)
    threads.emplace_back([&, who] {
      for (int round = 0; round < rounds; ++round) {
        together.arrive_and_wait();  // the lone request is done
        time_one(who);
        together.arrive_and_wait();
      }
    });
  for (int round = 0; round < rounds; ++round) {
    time_one(0);
    together.arrive_and_wait();
    together.arrive_and_wait();  // all four answered
  }
  for (std::thread& thread : threads) thread.join();
  if (failed) Fail("GET " + path + " failed with four at once");
  const double lone = MedianOf(millis[0]);
  printf("GET %s alone: median %.2f ms over %d requests\n", path.c_str(), lone, rounds);
  for (int who = 1; who <= kAtOnce; ++who)
    printf("GET %s, %d at once, consumer %d: median %.2f ms, %.2f x alone\n", path.c_str(), kAtOnce, who,
           MedianOf(millis[who]), MedianOf(millis[who]) / lone);
}

long StatusKilobytes(const Agent& agent, const std::string& key) {
  std::ifstream in(agent.Proc("status"));
  for (std::string line; std::getline(in, line);)
    if (line.rfind(key + ":", 0) == 0) return atol(line.c_str() + key.size() + 1);
  Fail("no " + key + " in " + agent.Proc("status"));
}

void Memory(const Agent& agent, const char* when) {
  printf("agent memory %s: VmRSS %.1f MiB, VmHWM %.1f MiB\n", when, StatusKilobytes(agent, "VmRSS") / 1024.0,
         StatusKilobytes(agent, "VmHWM") / 1024.0);
}

// Follows /events/KZQERROR on a thread of its own until it leaves.
class EventConsumer {
 public:
  explicit EventConsumer(const std::string& url) : client_(url) {
    client_.set_read_timeout(5);
    thread_ = std::thread([this] {
      client_.Get("/events/KZQERROR", [this](const char*, size_t) {
        subscribed_ = true;
        return !leaving_;
      });
    });
    if (Eventually([this] { return subscribed_.load(); })) return;
    Leave();
    Fail("the event consumer was not subscribed");
  }
  ~EventConsumer() { Leave(); }

 private:
  // The endpoint writes a keep-alive every second, so the thread sees
  // `leaving_` within about a second.
  void Leave() {
    leaving_ = true;
    if (thread_.joinable()) thread_.join();
  }

  httplib::Client client_;
  std::thread thread_;
  std::atomic<bool> subscribed_{false}, leaving_{false};
};

// utime + stime of the agent, in seconds.
double CpuSeconds(const Agent& agent) {
  const std::string stat = ReadText(agent.Proc("stat"));
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::vector<std::string> words;
  for (std::string word; fields >> word;) words.push_back(word);
  if (words.size() < 13) Fail("cannot read " + agent.Proc("stat"));
  // Fields 14 and 15 of the line; the words start at field 3.
  return (atoll(words[11].c_str()) + atoll(words[12].c_str())) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void IdleCpu(const Agent& agent, int seconds, const char* interval) {
  const double before = CpuSeconds(agent);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double used = CpuSeconds(agent) - before;
  printf("agent CPU over %d s idle, %s: %.0f ms (%.2f%% of one core)\n", seconds, interval, used * 1e3,
         used * 100 / seconds);
}

void Run(int metrics_requests, int table_requests, int simultaneous_rounds, int idle_seconds) {
  Stage stage;
  Child collector({kzq_test::BuiltProgram("collector", "kzqcoll"), "--replay", KZQ_SOURCE_DIR "/demo/replay"},
                  stage.File("collector.out"));
  {
    Agent agent(stage, "agent");
    Latency(agent, "/metrics", metrics_requests, "33 cached tables");
    Latency(agent, "/tables/KZQDBD", table_requests, "fresh sample through the collector");
    SimultaneousSamples(agent, "/tables/KZQDBD", simultaneous_rounds);
    Memory(agent, "idle after the requests");
    {
      EventConsumer consumer(agent.Url());
      Memory(agent, "with an event consumer on /events/KZQERROR");
    }
    IdleCpu(agent, idle_seconds, "default sample interval");
  }
  platform::SetEnv("KZQ_SAMPLE_INTERVAL", "1");
  Agent agent(stage, "agent-1s");
  IdleCpu(agent, idle_seconds, "KZQ_SAMPLE_INTERVAL=1");
}

}  // namespace

int main(int argc, char** argv) {
  const int metrics_requests = argc > 1 ? atoi(argv[1]) : 1000;
  const int table_requests = argc > 2 ? atoi(argv[2]) : 200;
  const int idle_seconds = argc > 3 ? atoi(argv[3]) : 30;
  const int simultaneous_rounds = std::max(1, argc > 4 ? atoi(argv[4]) : 50);
  try {
    Run(metrics_requests, table_requests, simultaneous_rounds, idle_seconds);
  } catch (const std::exception& e) {
    fprintf(stderr, "http_bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
