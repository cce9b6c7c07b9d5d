// The collector reading SQL Server: the SQL Server test double answers each
// table's batch with the demo's rows (demo/replay, typed by value), and a
// real kzqcoll --sql serves full samples of all 32 collector tables, asked
// for through the real channel. Beside it, in the same run, a real
// kzqcoll --replay answering the same rows from files: the collector's own
// floor. Prints the collector's CPU time per full sample (utime + stime
// from /proc), the ratio to the floor, the wall time, and its memory.
//   sql_source_bench [samples]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>
#include <unistd.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "kvc/channel_dispatch.h"
#include "kvc/channel_entry.h"
#include "kvc/shared_memory_exchange.h"
#include "kzq/catalogue.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "platform/service_probe.h"
#include "platform/shared_memory.h"
#include "platform/semaphore.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/free_port.h"
#include "tests/support/temp_dir.h"

namespace {

using Json = nlohmann::json;

[[noreturn]] void Fail(const std::string& why) {
  fprintf(stderr, "sql_source_bench: %s\n", why.c_str());
  exit(1);
}

// The double's script: for every replay file, one result whose columns are
// the attributes its rows name, typed by their values.
std::string ScriptFromReplayRows(const std::string& directory) {
  Json results = Json::array();
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::ifstream in(entry.path());
    std::vector<Json> rows;
    std::map<std::string, std::string> types;
    std::vector<std::string> columns;
    for (std::string line; std::getline(in, line);) {
      if (line.empty() || line[0] == '#') continue;
      rows.push_back(Json::parse(line));
      for (const auto& [name, value] : rows.back().items()) {
        if (types.count(name) == 0) columns.push_back(name);
        types[name] = value.is_number_integer() ? "int" : "nvarchar(max)";
      }
    }
    Json result = {{"match", "-- " + entry.path().stem().string() + ":"}, {"columns", Json::array()},
                   {"rows", Json::array()}};
    for (const std::string& c : columns) result["columns"].push_back({{"name", c}, {"type", types[c]}});
    for (const Json& row : rows) {
      Json values = Json::array();
      for (const std::string& c : columns) values.push_back(row.contains(c) ? row[c] : Json(nullptr));
      result["rows"].push_back(values);
    }
    results.push_back(result);
  }
  return Json{{"login", {{"user", "kzqmon"}, {"password", "secret"}}}, {"results", results}}.dump();
}

struct ProcessFigures {
  double cpu_ms = 0;  // utime + stime
  long rss_kb = 0, hwm_kb = 0;
  long pss_kb = 0, anonymous_kb = 0;  // its share of what it maps; what is its own alone
};

ProcessFigures Read(uint32_t pid) {
  ProcessFigures f;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  f.cpu_ms = static_cast<double>(utime + stime) * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) f.rss_kb = atol(line.c_str() + 6);
    if (line.rfind("VmHWM:", 0) == 0) f.hwm_kb = atol(line.c_str() + 6);
    if (line.rfind("RssAnon:", 0) == 0) f.anonymous_kb = atol(line.c_str() + 8);
  }
  std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);)
    if (line.rfind("Pss:", 0) == 0) f.pss_kb = atol(line.c_str() + 4);
  return f;
}

// One collector on a channel of its own, asked for full samples.
class Collector {
 public:
  Collector(const std::string& name, std::vector<std::string> source, const kzq_test::TempDir& stage) {
    platform::SetEnv("COLL_VERSION", name);
    KVCCOMM("initsm");
    source.insert(source.begin(), kzq_test::BuiltProgram("collector", "kzqcoll"));
    int error = 0;
    process_ = platform::StartProcess(source, &error, {stage.File(name + ".out")});
    if (!process_) Fail("cannot start kzqcoll: error " + std::to_string(error));
    anchor_ = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
    name_ = name;
  }
  ~Collector() {
    KVCCOMM("term", anchor_);
    process_->Kill();
    process_->Wait();
    KVCCOMM("shut", nullptr);
    for (const std::string& object : kvc::ChannelObjectNames(name_ + "_BENCH")) {
      platform::RemoveSharedArea(object);
      platform::RemoveSemaphore(object);
    }
  }
  // One sample of every collector table; the rows it got.
  long FullSample() {
    platform::SetEnv("COLL_VERSION", name_);
    long rows = 0;
    for (const kzq::TableSpec* table : kzq::kCatalogue) {
      if (table->form == kzq::SampleForm::kPushed) continue;
      auto* pipes = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor_, table->key));
      if (pipes == nullptr) Fail(std::string("no answer for ") + table->key + ": " + anchor_->error_text);
      rows += pipes->numrow;
    }
    return rows;
  }
  uint32_t Pid() const { return process_->Id(); }

 private:
  std::unique_ptr<platform::ChildProcess> process_;
  kvc::IpcAnchor* anchor_ = nullptr;
  std::string name_;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// One source measured in this process: its channel is the process's one.
int MeasureOne(const std::string& source, int samples, int port, const kzq_test::TempDir& stage) {
  for (const auto& [name, value] : std::vector<std::pair<const char*, std::string>>{
           {"COLL_SERVERID", "BENCH"}, {"KVCLOGDIR", stage.Path()}, {"KZQ_RUNTIME_DIR", stage.Path()},
           {"COLL_SQL_SERVER", "127.0.0.1"}, {"COLL_SQL_PORT", std::to_string(port)}, {"COLL_LOGON", "kzqmon"},
           {"COLL_PASSWORD", "secret"}, {"WAIT_TIMEOUT", "20"}})
    platform::SetEnv(name, value);
  const bool sql = source == "sql";
  Collector collector(sql ? "kzqsqlb" : "kzqrplb",
                      sql ? std::vector<std::string>{"--sql"}
                          : std::vector<std::string>{"--replay", KZQ_SOURCE_DIR "/demo/replay"},
                      stage);
  const long rows = collector.FullSample();  // connects, warms up
  // The kernel counts CPU time in clock ticks (10 ms), more than a sample
  // takes: the time of all samples is divided among them.
  std::vector<double> wall;
  const ProcessFigures start = Read(collector.Pid());
  for (int i = 0; i < samples; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    collector.FullSample();
    wall.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
  }
  const ProcessFigures end = Read(collector.Pid());
  printf("%s rows=%ld cpu_ms=%.3f wall_ms=%.2f rss_kb=%ld hwm_kb=%ld pss_kb=%ld anonymous_kb=%ld\n", source.c_str(),
         rows, (end.cpu_ms - start.cpu_ms) / samples, Median(wall), end.rss_kb, end.hwm_kb, end.pss_kb,
         end.anonymous_kb);
  return 0;
}

// What a run of this program as one source printed.
std::map<std::string, double> Figures(const std::string& text) {
  std::map<std::string, double> figures;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const size_t equals = word.find('=');
    if (equals != std::string::npos) figures[word.substr(0, equals)] = atof(word.c_str() + equals + 1);
  }
  return figures;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "--source") {
    kzq_test::TempDir stage;
    return MeasureOne(argv[2], atoi(argv[3]), atoi(argv[4]), stage);
  }
  const int samples = argc > 1 ? atoi(argv[1]) : 50;
  kzq_test::TempDir stage;
  std::ofstream(stage.File("script.json")) << ScriptFromReplayRows(KZQ_SOURCE_DIR "/demo/replay");
  const int port = kzq_test::FreePort();
  int error = 0;
  auto server = platform::StartProcess({"/usr/bin/python3", KZQ_SOURCE_DIR "/tests/support/tds_test_server.py",
                                        "--script", stage.File("script.json"), "--port", std::to_string(port),
                                        "--port-file", stage.File("port")},
                                       &error, {stage.File("server.out")});
  if (!server || !kzq_test::Eventually([&] {
        std::error_code ec;
        return std::filesystem::file_size(stage.File("port"), ec) > 0 && !ec;
      }))
    Fail("the test double did not start");
  // Each source in a run of its own: the process has one channel.
  std::map<std::string, std::map<std::string, double>> runs;
  for (const char* source : {"sql", "replay"}) {
    auto run = platform::StartProcess({platform::ExecutablePath(), "--source", source, std::to_string(samples),
                                       std::to_string(port)},
                                      &error, {stage.File(std::string(source) + ".txt")});
    if (!run || run->Wait() != 0) Fail(std::string("the ") + source + " run failed: " +
                                       kzq_test::ReadFile(stage.File(std::string(source) + ".txt")));
    runs[source] = Figures(kzq_test::ReadFile(stage.File(std::string(source) + ".txt")));
  }
  server->Kill();
  server->Wait();
  auto& sql = runs["sql"];
  auto& files = runs["replay"];
  if (sql["rows"] != files["rows"]) Fail("the two collectors answered different row counts");
  printf("full sample: 32 tables, %.0f rows, %d samples each\n", sql["rows"], samples);
  printf("collector CPU per sample (all samples' CPU time / samples): SQL Server source %.3f ms, replay (floor) %.3f ms, ratio %.1f\n",
         sql["cpu_ms"], files["cpu_ms"], files["cpu_ms"] > 0 ? sql["cpu_ms"] / files["cpu_ms"] : 0.0);
  printf("wall time per sample: SQL Server source %.1f ms, replay %.1f ms\n", sql["wall_ms"], files["wall_ms"]);
  for (auto& [name, run] : {std::pair<const char*, std::map<std::string, double>&>{"SQL Server source", sql},
                            {"replay", files}})
    printf("%s memory after the samples: VmRSS %.1f MiB (VmHWM %.1f), Pss %.1f MiB, anonymous %.1f MiB\n", name,
           run["rss_kb"] / 1024, run["hwm_kb"] / 1024, run["pss_kb"] / 1024, run["anonymous_kb"] / 1024);
  return 0;
}
