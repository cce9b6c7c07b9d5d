// The Windows installation as an operator makes it: the programs copied
// into an install directory whose path has a space and a non-ASCII letter,
// packaging\windows\install-services.cmd run through cmd, the services
// started by the service manager and read over HTTP, stopped, started with
// their port taken, and removed.
#include <httplib.h>
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/held_port.h"
#include "tests/support/temp_dir.h"

namespace {

using kzq_test::HeldPort;
using testing::HasSubstr;
using testing::Not;

// A minute of patience: service starts under Wine are slow.
template <typename F>
bool Eventually(F done) {
  return kzq_test::Eventually(done, 60000, 200);
}

class WindowsInstall : public testing::Test {
 protected:
  void SetUp() override {
    // "\xe9" is the e with an acute accent in the ANSI code page of the
    // process's narrow names; the operator's own commands make the
    // directory and copy the programs.
    install_ = root_.File("kzq \xe9 install");
    std::string output;
    ASSERT_EQ(Cmd({"mkdir", install_}, &output), 0) << output;
    for (const auto& [folder, name] : {std::pair{"kzq", "kzqagent"}, std::pair{"collector", "kzqcoll"}})
      ASSERT_EQ(Cmd({"copy", kzq_test::BuiltProgram(folder, name), install_}, &output), 0) << output;
    data_ = platform::GetEnv("ProgramData").value_or("C:\\ProgramData") + "\\kzq\\" + instance_;
  }
  void TearDown() override {
    std::string ignored;
    Cmd({Script(), instance_, "/remove", "/purge"}, &ignored);
  }

  static std::string Script() {
    // A cross-built tree under Wine has a POSIX source path: Wine shows it on drive Z.
    std::string script = std::string(KZQ_SOURCE_DIR) + "/packaging/windows/install-services.cmd";
    if (script[0] == '/') script = "Z:" + script;
    std::replace(script.begin(), script.end(), '/', '\\');
    return script;
  }

  // Runs a command line through cmd as an operator types it.
  int Cmd(const std::vector<std::string>& words, std::string* output) {
    std::vector<std::string> argv{"C:\\windows\\system32\\cmd.exe", "/c"};
    argv.insert(argv.end(), words.begin(), words.end());
    int error = 0;
    platform::ProcessOptions options;
    options.output_file = root_.File("cmd.txt");
    auto child = platform::StartProcess(argv, &error, options);
    if (child == nullptr) return -1;
    const int rc = child->Wait();
    *output = kzq_test::ReadFile(options.output_file);
    return rc;
  }
  std::string Query(const std::string& service) {
    std::string output;
    Cmd({"sc", "query", service}, &output);
    return output;
  }
  bool WaitForState(const std::string& service, const char* state) {
    return Eventually([&] { return Query(service).find(state) != std::string::npos; });
  }
  void SetSetting(const std::string& name, const std::string& value) {
    std::string output;
    ASSERT_EQ(Cmd({"reg", "add", Key() + "\\Environment", "/v", name, "/d", value, "/f"}, &output), 0) << output;
  }
  // KZQCOLL<n>, n as the installation stored it in the instance's key.
  std::string CollectorService() {
    std::string output;
    Cmd({"reg", "query", Key() + "\\Environment", "/v", "COLL_SERVICENUMBER"}, &output);
    const size_t at = output.find("REG_SZ");
    if (at == std::string::npos) return "KZQCOLL?";
    const size_t digits = output.find_first_of("0123456789", at);
    return "KZQCOLL" + output.substr(digits, output.find_first_not_of("0123456789", digits) - digits);
  }
  std::string Key() const { return "HKLM\\SOFTWARE\\Orvane\\kzq\\" + instance_; }
  std::string ColLog() const { return kzq_test::ReadFile(data_ + "\\logs\\col.log"); }
  // The process id the agent's last start wrote to col.log.
  DWORD AgentPid() const {
    const std::string log = ColLog();
    const size_t at = log.rfind("kzqagent (pid ");
    return at == std::string::npos ? 0 : static_cast<DWORD>(std::stoul(log.substr(at + 14)));
  }

  const std::string instance_ = "KZQW" + std::to_string(platform::CurrentProcessId());
  const std::string agent_ = "kzqagent_" + instance_;
  kzq_test::TempDir root_;
  std::string install_;
  std::string data_;
};

TEST_F(WindowsInstall, InstalledAsTheReadmeSaysItServesStopsFailsVisiblyAndIsRemoved) {
  HeldPort port;
  port.Release();
  SetSetting("KZQ_HTTP_LISTEN", port.Address());
  // The collector answers from the instance's replay directory, which the
  // installation keeps: the rows go where the configuration says.
  std::filesystem::create_directories(data_ + "\\replay");
  for (const auto& entry : std::filesystem::directory_iterator(std::string(KZQ_SOURCE_DIR) + "/demo/replay"))
    std::filesystem::copy_file(entry.path(), std::filesystem::path(data_) / "replay" / entry.path().filename());
  std::string output;
  ASSERT_EQ(Cmd({Script(), instance_, install_}, &output), 0) << output;

  // The collector's service is the one the agent's probe asks for.
  const std::string collector = CollectorService();
  EXPECT_TRUE(WaitForState(collector, "4  RUNNING")) << Query(collector);
  ASSERT_TRUE(WaitForState(agent_, "4  RUNNING")) << Query(agent_);
  httplib::Client http("http://" + port.Address());
  std::string rows, metrics;
  EXPECT_TRUE(Eventually([&] {
    auto res = http.Get("/tables/KZQDBD");
    rows = res ? res->body : "";
    return rows.find("\"DBNAME\":\"master\"") != std::string::npos;
  })) << rows;
  EXPECT_TRUE(Eventually([&] {
    auto res = http.Get("/metrics");
    metrics = res ? res->body : "";
    return metrics.find("service=\"" + collector + "\"} 1") != std::string::npos;
  })) << metrics;
  EXPECT_THAT(ColLog(), Not(HasSubstr("presets failed")));
  // The service's files are the instance's, not its working directory's.
  EXPECT_TRUE(std::filesystem::exists(data_ + "\\logs\\agt.out"));

  // A stop ends the process by the time the manager shows it stopped.
  HANDLE agent = OpenProcess(SYNCHRONIZE, FALSE, AgentPid());
  ASSERT_NE(agent, nullptr) << ColLog();
  ASSERT_EQ(Cmd({"sc", "stop", agent_}, &output), 0) << output;
  EXPECT_TRUE(WaitForState(agent_, "1  STOPPED"));
  EXPECT_EQ(WaitForSingleObject(agent, 10000), WAIT_OBJECT_0);
  CloseHandle(agent);
  EXPECT_THAT(Query(agent_), HasSubstr("WIN32_EXIT_CODE    : 0 "));

  // A start that cannot serve stops the service with the reason in col.log.
  HeldPort taken;
  SetSetting("KZQ_HTTP_LISTEN", taken.Address());
  ASSERT_EQ(Cmd({"sc", "start", agent_}, &output), 0) << output;
  EXPECT_TRUE(WaitForState(agent_, "1  STOPPED"));
  EXPECT_THAT(Query(agent_), HasSubstr("WIN32_EXIT_CODE    : 1066 "));
  EXPECT_THAT(Query(agent_), HasSubstr("SERVICE_EXIT_CODE  : 2 "));
  EXPECT_THAT(ColLog(), HasSubstr("cannot listen on " + taken.Address()));
  EXPECT_THAT(ColLog(), HasSubstr("CTC5010E"));

  ASSERT_EQ(Cmd({Script(), instance_, "/remove"}, &output), 0) << output;
  EXPECT_THAT(Query(agent_), Not(HasSubstr("SERVICE_NAME")));
  EXPECT_THAT(Query(collector), Not(HasSubstr("SERVICE_NAME")));
  EXPECT_NE(Cmd({"reg", "query", Key()}, &output), 0) << output;
  EXPECT_TRUE(std::filesystem::exists(data_ + "\\logs\\col.log"));  // the data stay without /purge
}

}  // namespace
