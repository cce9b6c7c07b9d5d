// The systemd units of packaging/systemd as an administrator installs them:
// the build installed with `cmake --install`, the units read from the
// installed tree at test time, each program started with the command line,
// environment, working directory and directories its unit gives it, and
// the test playing systemd's part for Type=notify.
//
// The one liberty taken: the absolute paths the units name (/opt/kzq,
// /etc/kzq, /run/kzq, /var/lib/kzq, /var/log/kzq) are moved into a scratch
// root. User= and Group= cannot be switched here: both programs run as
// whoever runs the test.
#include <httplib.h>

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/clock.h"
#include "platform/process.h"
#include "platform/shared_memory.h"
#include "tests/e2e/service_manager.h"
#include "tests/support/eventually.h"
#include "tests/support/free_port.h"
#include "tests/support/held_port.h"
#include "tests/support/systemd_unit.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using kzq_test::ServiceManager;
using testing::ContainsRegex;
using testing::HasSubstr;

constexpr uint64_t kPatience = 60000;  // ms
// The search path systemd gives a service.
constexpr const char* kServicePath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
// Where systemd makes each kind of directory a unit asks for.
const std::vector<std::pair<std::string, std::string>> kUnitDirectories = {
    {"RuntimeDirectory", "/run"},
    {"StateDirectory", "/var/lib"},
    {"LogsDirectory", "/var/log"},
    {"ConfigurationDirectory", "/etc"}};

// Waits until `done` holds or the deadline (monotonic ms) has passed.
template <typename F>
bool Before(uint64_t deadline, F done) {
  const uint64_t now = platform::MonotonicMillis();
  return kzq_test::Eventually(done, deadline > now ? deadline - now : 0, 50);
}

// The environment and working directory systemd gives the started process
// in place of the test's own, for the start alone. The sanitizers' settings
// of the test run go along.
class ServiceExecution {
 public:
  ServiceExecution(const std::vector<std::pair<std::string, std::string>>& environment, const std::string& directory)
      : directory_(fs::current_path()) {
    for (char** entry = environ; *entry != nullptr; ++entry) saved_.emplace_back(*entry);
    clearenv();
    setenv("PATH", kServicePath, 1);
    for (const std::string& entry : saved_)
      if (entry.find("SAN_OPTIONS=") != std::string::npos) Put(entry);
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    fs::current_path(directory);
  }
  ~ServiceExecution() {
    clearenv();
    for (const std::string& entry : saved_) Put(entry);
    fs::current_path(directory_);
  }

 private:
  static void Put(const std::string& entry) {
    const size_t equals = entry.find('=');
    setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
  }
  std::vector<std::string> saved_;
  fs::path directory_;
};

class InstalledUnits : public testing::Test {
 protected:
  void SetUp() override {
    const std::string install = std::string(KZQ_CMAKE_COMMAND) + " --install " + KZQ_BUILD_DIR + " --prefix " +
                                Host("/opt/kzq") + " >" + root_.File("install.txt") + " 2>&1";
    ASSERT_EQ(system(install.c_str()), 0) << kzq_test::ReadFile(root_.File("install.txt"));
    // Where the README tells the administrator to put the rows.
    const fs::path replay = Host("/etc/kzq/" + instance_ + "/replay");
    fs::create_directories(replay);
    for (const auto& entry : fs::directory_iterator(fs::path(KZQ_SOURCE_DIR) / "demo" / "replay"))
      fs::copy_file(entry.path(), replay / entry.path().filename());
  }
  void TearDown() override {
    // Shared areas and semaphores outlive their processes.
    for (const auto& entry : fs::directory_iterator("/dev/shm"))
      if (entry.path().filename().string().find("_" + instance_ + "KVC") != std::string::npos) fs::remove(entry);
  }

  // Where the scratch root holds a path the units name.
  std::string Host(const std::string& path) const {
    for (const char* moved : {"/opt/kzq", "/etc/kzq", "/run/kzq", "/var/lib/kzq", "/var/log/kzq"})
      if (path.rfind(moved, 0) == 0) return root_.Path() + path;
    return path;
  }
  // The instance's settings as the README places them.
  void WriteRegistrySetting(const std::string& name, const std::string& value) const {
    const fs::path key =
        Host("/etc/kzq/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Orvane/kzq/" + instance_ + "/Environment");
    fs::create_directories(key);
    std::ofstream(key / ".values", std::ios::app) << name << " = sz:" << value << "\n";
  }
  void WriteEnvironmentFileSetting(const std::string& name, const std::string& value) const {
    std::ofstream(Host("/etc/kzq/" + instance_ + ".env"), std::ios::app) << name << "=" << value << "\n";
  }
  void WriteSettingsFile(const std::string& text) const { std::ofstream(Host("/etc/kzq/" + instance_ + ".conf")) << text; }

  kzq_test::SystemdUnit LoadUnit(const std::string& program) const {
    std::string error;
    const auto unit = kzq_test::SystemdUnit::Load(
        Host("/opt/kzq/share/kzq/systemd/" + program + "@.service"), instance_, &error);
    EXPECT_TRUE(unit.has_value()) << error;
    return unit.value_or(kzq_test::SystemdUnit());
  }

  // Makes the directories the unit asks for, each with its mode.
  void MakeDirectories(const kzq_test::SystemdUnit& unit) const {
    for (const auto& [setting, base] : kUnitDirectories) {
      const std::string mode = unit.Value(setting + "Mode");
      for (const std::string& name : unit.Words(setting)) {
        const fs::path dir = Host(base + "/" + name);
        fs::create_directories(dir);
        fs::permissions(dir, static_cast<fs::perms>(std::stoi(mode.empty() ? "0755" : mode, nullptr, 8)));
      }
    }
  }

  // Environment= first, then each environment file over it.
  std::vector<std::pair<std::string, std::string>> UnitEnvironment(const kzq_test::SystemdUnit& unit) const {
    std::vector<std::pair<std::string, std::string>> environment;
    for (const auto& [name, value] : unit.Environment()) environment.emplace_back(name, Host(value));
    for (const auto& file : unit.EnvironmentFiles()) {
      if (!fs::exists(Host(file.path))) {
        EXPECT_TRUE(file.optional) << file.path << " is missing";
        continue;
      }
      std::string error;
      const auto assignments = kzq_test::ParseEnvironmentFile(kzq_test::ReadFile(Host(file.path)), &error);
      EXPECT_TRUE(assignments.has_value()) << file.path << ": " << error;
      if (assignments) environment.insert(environment.end(), assignments->begin(), assignments->end());
    }
    return environment;
  }

  // Starts `program` (kzqagent, kzqcoll) as its unit says; nullptr when
  // the unit cannot be read.
  std::unique_ptr<ServiceManager> StartUnit(const std::string& program) {
    const kzq_test::SystemdUnit unit = LoadUnit(program);
    if (unit.Command().empty()) return nullptr;
    MakeDirectories(unit);
    std::vector<std::string> args;
    for (const std::string& word : unit.Command()) args.push_back(Host(word));
    const std::string executable = args.front();
    args.erase(args.begin());
    const fs::path work = root_.File("manager-" + program);
    fs::create_directories(work);
    auto manager = ServiceManager::Create(work.string());
    const std::string directory = unit.Value("WorkingDirectory");
    ServiceExecution execution(UnitEnvironment(unit), Host(directory.empty() ? "/" : directory));
    EXPECT_TRUE(manager->Start(executable, args)) << manager->Log();
    managers_[program] = manager.get();
    return manager;
  }

  // `kzqagent --check-config` as the unit would start the agent; its exit
  // code, and what it printed in *output.
  int CheckConfig(std::string* output) {
    const kzq_test::SystemdUnit unit = LoadUnit("kzqagent");
    std::string command;
    for (const std::string& word : unit.Command()) command += "'" + Host(word) + "' ";
    const std::string printed = root_.File("check-config.txt");
    int status = -1;
    {
      ServiceExecution execution(UnitEnvironment(unit), root_.Path());
      status = system((command + "--check-config >" + printed + " 2>&1").c_str());
    }
    *output = kzq_test::ReadFile(printed);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // What the manager saw of the program and what the program printed.
  std::string Output(const std::string& program) const {
    return managers_.at(program)->Log() + "output:\n" +
           kzq_test::ReadFile(root_.File("manager-" + program + "/service-output.txt"));
  }
  std::string LogFile() const { return Host("/var/log/kzq/" + instance_ + "/col.log"); }

  kzq_test::TempDir root_;
  std::map<std::string, ServiceManager*> managers_;  // each owned by its test
  const std::string instance_ = "U" + std::to_string(platform::CurrentProcessId());
};

// A fresh sample may wait the channel's whole time-out; a short read keeps
// the test's own deadline, so that a failure is reported with the log.
Json GetJson(int port, const std::string& path) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(10);
  const auto result = client.Get(path);
  if (!result || result->status != 200) return Json();
  return Json::parse(result->body, nullptr, false);
}

// The DBNAME of every row of a replay file.
std::vector<std::string> DatabaseNames(const std::string& replay_file) {
  std::vector<std::string> names;
  std::istringstream in(kzq_test::ReadFile(replay_file));
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] == '{') names.push_back(Json::parse(line)["DBNAME"]);
  return names;
}

std::vector<std::string> DatabaseNames(const Json& sample) {
  std::vector<std::string> names;
  if (sample.is_object())
    for (const Json& row : sample["rows"]) names.push_back(row["DBNAME"]);
  return names;
}

// The collector is probed as KZQCOLL0, the service number's default, and
// found by the pid file it leaves in the shared runtime directory; both read
// the server id from the instance's key, so they meet on one channel.
TEST_F(InstalledUnits, AgentServesTheCollectorsRowsAndStopsOnSigterm) {
  const int port = kzq_test::FreePort();
  WriteRegistrySetting("KZQ_HTTP_LISTEN", "127.0.0.1:" + std::to_string(port));
  auto collector = StartUnit("kzqcoll");
  ASSERT_NE(collector, nullptr);
  ASSERT_TRUE(collector->WaitFor(ServiceManager::kRunning, kPatience)) << Output("kzqcoll");
  auto agent = StartUnit("kzqagent");
  ASSERT_NE(agent, nullptr);
  const uint64_t deadline = platform::MonotonicMillis() + kPatience;
  ASSERT_TRUE(agent->WaitFor(ServiceManager::kRunning, kPatience)) << Output("kzqagent");
  const std::vector<std::string> expected = DatabaseNames(Host("/etc/kzq/" + instance_ + "/replay/kzqdbd.jsonl"));
  ASSERT_FALSE(expected.empty());
  EXPECT_TRUE(Before(deadline, [&] { return DatabaseNames(GetJson(port, "/tables/KZQDBD")) == expected; }))
      << GetJson(port, "/tables/KZQDBD").dump() << "\ncol.log:\n" << kzq_test::ReadFile(LogFile());
  std::string metrics;
  EXPECT_TRUE(Before(deadline, [&] {
    httplib::Client client("127.0.0.1", port);
    const auto scrape = client.Get("/metrics");
    metrics = scrape ? scrape->body : "";
    return metrics.find("service=\"KZQCOLL0\"} 1\n") != std::string::npos;
  })) << metrics;
  EXPECT_THAT(metrics, HasSubstr("kzq_collector_up{server_id=\"" + instance_ + "\""));
  // kzqctl finds the instance's agent where the instance's settings put it.
  const std::string ctl_output = root_.File("kzqctl.txt");
  const std::string ctl = "KZQ_REGISTRY_ROOT='" + Host("/etc/kzq/registry") + "' '" + Host("/opt/kzq/bin/kzqctl") +
                          "' --instance " + instance_ + " databases >" + ctl_output + " 2>&1";
  EXPECT_EQ(system(ctl.c_str()), 0) << kzq_test::ReadFile(ctl_output);
  EXPECT_THAT(kzq_test::ReadFile(ctl_output), HasSubstr(expected.back()));
  // Both programs write to the one col.log of the instance.
  const std::string log = kzq_test::ReadFile(LogFile());
  for (const char* program : {"kzqcoll", "kzqagent"})
    EXPECT_THAT(log, ContainsRegex(std::string(program) + R"( \(pid [0-9]+\) starting for server ')" + instance_ +
                                   "', collector service KZQCOLL0"));

  ASSERT_TRUE(agent->Stop());
  EXPECT_TRUE(agent->WaitFor(ServiceManager::kStopping, kPatience)) << Output("kzqagent");
  EXPECT_EQ(agent->ExitCode(), 0) << Output("kzqagent");
  ASSERT_TRUE(collector->Stop());
  EXPECT_EQ(collector->ExitCode(), 0) << Output("kzqcoll");
}

// An agent whose endpoint cannot listen ends with a non-zero exit code, so
// that systemd counts the start as failed (and Restart=on-failure retries).
TEST_F(InstalledUnits, AgentStartFailsWhenItsPortIsTaken) {
  kzq_test::HeldPort taken;
  WriteEnvironmentFileSetting("KZQ_HTTP_LISTEN", taken.Address());

  auto agent = StartUnit("kzqagent");
  ASSERT_NE(agent, nullptr);
  const bool stopped = agent->WaitFor(ServiceManager::kStopped, kPatience);
  if (!stopped) agent->Stop();
  EXPECT_TRUE(stopped) << "the agent kept running without its endpoint\n" << Output("kzqagent");
  EXPECT_NE(agent->ExitCode(), 0) << Output("kzqagent");
  EXPECT_THAT(kzq_test::ReadFile(LogFile()), HasSubstr("cannot listen on " + taken.Address()));
  EXPECT_THAT(kzq_test::ReadFile(LogFile()), HasSubstr("CTC5010E"));
}

// Each place a setting can come from, as the README names them, and the
// refusal of a value or a name the agent cannot use.
TEST_F(InstalledUnits, CheckConfigTellsWhereEachSettingCameFromAndRefusesBadOnes) {
  WriteRegistrySetting("COLL_DBVERSION", "16.0.1");
  WriteEnvironmentFileSetting("COLL_ACTION_TIMEOUT", "60");
  WriteSettingsFile("# sampled hourly\n KZQ_SAMPLE_INTERVAL = 3600 \nCOLL_DBVERSION=loses\nCOLL_PASSWORD=\"pa ss\"\n");
  std::string out;
  EXPECT_EQ(CheckConfig(&out), 0) << out;
  EXPECT_THAT(out, ContainsRegex("COLL_DBVERSION +16.0.1 +registry .*" + instance_ + ".Environment\n"));
  EXPECT_THAT(out, ContainsRegex("COLL_SERVERID +" + instance_ + " +command line\n"));
  EXPECT_THAT(out, ContainsRegex("COLL_ACTION_TIMEOUT +60 +environment\n"));
  EXPECT_THAT(out, ContainsRegex("KZQ_SAMPLE_INTERVAL +3600 +file .*" + instance_ + "\\.conf:2\n"));
  EXPECT_THAT(out, ContainsRegex("COLL_PASSWORD +\\*\\*\\* +file"));
  EXPECT_THAT(out, ContainsRegex("COLL_WAIT_TIMEOUT +\\(5\\) +default\n"));
  EXPECT_THAT(out, testing::Not(HasSubstr("pa ss")));

  WriteSettingsFile("KZQ_SAMPLE_INTERVAL=soon\nKZQ_SAMPEL_INTERVAL=5\nCOLL_WRAPLINES=12abc\n");
  EXPECT_EQ(CheckConfig(&out), 1) << out;
  EXPECT_THAT(out, HasSubstr(".conf:2: unknown setting 'KZQ_SAMPEL_INTERVAL'"));
  EXPECT_THAT(out, ContainsRegex("error: KZQ_SAMPLE_INTERVAL='soon' \\(file .*:1\\) is not a whole number from 1 to 86400"));
  EXPECT_THAT(out, HasSubstr("error: COLL_WRAPLINES='12abc'"));
}

// systemctl reload: the new interval and token are in force at once, no restart, and
// a setting that needs one says so in col.log.
TEST_F(InstalledUnits, AReloadAppliesTheNewIntervalAndTokenWithoutARestart) {
  const int port = kzq_test::FreePort();
  WriteSettingsFile("KZQ_HTTP_LISTEN=127.0.0.1:" + std::to_string(port) + "\nKZQ_SAMPLE_INTERVAL=3600\n");
  auto collector = StartUnit("kzqcoll");
  ASSERT_NE(collector, nullptr);
  ASSERT_TRUE(collector->WaitFor(ServiceManager::kRunning, kPatience)) << Output("kzqcoll");
  auto agent = StartUnit("kzqagent");
  ASSERT_NE(agent, nullptr);
  ASSERT_TRUE(agent->WaitFor(ServiceManager::kRunning, kPatience)) << Output("kzqagent");
  const uint64_t deadline = platform::MonotonicMillis() + kPatience;
  Json first;
  ASSERT_TRUE(Before(deadline, [&] { return (first = GetJson(port, "/tables/KZQDBD?cached"))["rows"].size() > 0; }))
      << first.dump();

  WriteSettingsFile("KZQ_HTTP_LISTEN=127.0.0.1:" + std::to_string(port) + "\nKZQ_SAMPLE_INTERVAL=1\nCOLL_WAIT_TIMEOUT=9\n");
  ASSERT_TRUE(agent->Reload());
  EXPECT_TRUE(Before(deadline, [&] { return GetJson(port, "/tables/KZQDBD?cached")["taken_at"] != first["taken_at"]; }))
      << kzq_test::ReadFile(LogFile());
  const std::string log = kzq_test::ReadFile(LogFile());
  EXPECT_THAT(log, HasSubstr("KZQ_SAMPLE_INTERVAL is now '1'"));
  EXPECT_THAT(log, HasSubstr("COLL_WAIT_TIMEOUT changed to '9'"));
  EXPECT_THAT(log, HasSubstr("it takes effect at the next start"));

  WriteSettingsFile("KZQ_HTTP_LISTEN=127.0.0.1:" + std::to_string(port) + "\nKZQ_HTTP_TOKEN=t0ken\n");
  ASSERT_TRUE(agent->Reload());
  httplib::Client client("127.0.0.1", port);
  EXPECT_TRUE(Before(deadline, [&] {
    const auto refused = client.Get("/metrics");
    return refused && refused->status == 401;
  })) << kzq_test::ReadFile(LogFile());
  const auto admitted = client.Get("/metrics", {{"Authorization", "Bearer t0ken"}});
  ASSERT_TRUE(admitted);
  EXPECT_EQ(admitted->status, 200);
  ASSERT_TRUE(agent->Stop());
  EXPECT_EQ(agent->ExitCode(), 0) << Output("kzqagent");
  ASSERT_TRUE(collector->Stop());
}

// A local account that makes the channel's objects before the instance
// does could read every request and answer in the collector's place; both
// programs refuse such an object and say which, whoever starts first.
TEST_F(InstalledUnits, BothProgramsRefuseAChannelAnotherAccountMadeFirst) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as a second account";
  const std::string planted = "kvc_" + instance_ + "KVCReqShm";
  const pid_t child = fork();
  if (child == 0) {
    platform::ObjectAccess open;
    open.open = true;
    int error = 0;
    _exit(setgid(65534) == 0 && setuid(65534) == 0 && platform::OpenSharedArea(planted, 32768, open, &error) ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  for (const char* program : {"kzqcoll", "kzqagent"}) {
    auto service = StartUnit(program);
    ASSERT_NE(service, nullptr);
    const bool stopped = service->WaitFor(ServiceManager::kStopped, kPatience);
    if (!stopped) service->Stop();
    EXPECT_TRUE(stopped) << program << " ran on another account's channel\n" << Output(program);
    EXPECT_NE(service->ExitCode(), 0) << Output(program);
  }
  const std::string log = kzq_test::ReadFile(LogFile());
  const std::string refusal = "The channel object " + planted + " belongs to another account";
  const size_t first = log.find(refusal);
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_NE(log.find(refusal, first + 1), std::string::npos) << "one program went on without saying why\n" << log;
}

}  // namespace
