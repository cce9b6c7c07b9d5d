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
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/agent_stage.h"
#include "platform/environment.h"

namespace {

using kzq_bench::Agent;
using kzq_bench::Child;
using kzq_bench::Eventually;
using kzq_bench::Fail;
using kzq_bench::Stage;

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

void Memory(const Agent& agent, const char* when) {
  printf("agent memory %s: VmRSS %.1f MiB, VmHWM %.1f MiB\n", when, kzq_bench::StatusField(agent, "VmRSS") / 1024.0,
         kzq_bench::StatusField(agent, "VmHWM") / 1024.0);
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
  const std::string stat = kzq_bench::ReadText(agent.Proc("stat"));
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
  Stage stage("http-bench");
  Child collector(kzq_bench::ReplayCollectorCommand(), stage.File("collector.out"));
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
