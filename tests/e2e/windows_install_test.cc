// The Windows installation as an operator makes it: the programs copied
// into an install directory whose path has a space and a non-ASCII letter,
// packaging\windows\install-services.cmd run through cmd, the services
// started by the service manager and read over HTTP, stopped, started with
// their port taken, and removed; and the same through the installer, whose
// uninstaller leaves nothing behind.
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
  // "\xe9" is the e with an acute accent in the ANSI code page of the
  // process's narrow names.
  void SetUp() override { install_ = root_.File("kzq \xe9 install"); }
  void TearDown() override {
    std::string ignored;
    for (const std::string& instance : {instance_, second_}) Cmd({Script(), instance, "/remove", "/purge"}, &ignored);
  }

  // A cross-built tree under Wine has POSIX paths: Wine shows them on drive Z.
  static std::string WindowsPath(std::string path) {
    if (path[0] == '/') path = "Z:" + path;
    std::replace(path.begin(), path.end(), '/', '\\');
    return path;
  }
  static std::string Script() {
    return WindowsPath(std::string(KZQ_SOURCE_DIR) + "/packaging/windows/install-services.cmd");
  }
  // The operator's own commands make the directory and copy the programs.
  void CopyPrograms() {
    std::string output;
    ASSERT_EQ(Cmd({"mkdir", install_}, &output), 0) << output;
    for (const auto& [folder, name] : {std::pair{"kzq", "kzqagent"}, std::pair{"collector", "kzqcoll"}})
      ASSERT_EQ(Cmd({"copy", kzq_test::BuiltProgram(folder, name), install_}, &output), 0) << output;
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
  // Runs a command line exactly as written: the installer's /D= and the
  // uninstaller's _?= take the rest of the line unquoted.
  static int Run(std::string line) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info))
      return -1;
    DWORD code = 0;
    WaitForSingleObject(info.hProcess, INFINITE);
    GetExitCodeProcess(info.hProcess, &code);
    CloseHandle(info.hProcess);
    CloseHandle(info.hThread);
    return static_cast<int>(code);
  }
  std::string Query(const std::string& service) {
    std::string output;
    Cmd({"sc", "query", service}, &output);
    return output;
  }
  bool WaitForState(const std::string& service, const char* state) {
    return Eventually([&] { return Query(service).find(state) != std::string::npos; });
  }
  void SetSetting(const std::string& name, const std::string& value, const std::string& instance = "") {
    std::string output;
    ASSERT_EQ(Cmd({"reg", "add", Key(instance) + "\\Environment", "/v", name, "/d", value, "/f"}, &output), 0)
        << output;
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
  std::string Key(const std::string& instance = "") const {
    return "HKLM\\SOFTWARE\\Orvane\\kzq\\" + (instance.empty() ? instance_ : instance);
  }
  std::string ColLog() const { return kzq_test::ReadFile(data_ + "\\logs\\col.log"); }
  // The process id the agent's last start wrote to col.log.
  DWORD AgentPid() const {
    const std::string log = ColLog();
    const size_t at = log.rfind("kzqagent (pid ");
    return at == std::string::npos ? 0 : static_cast<DWORD>(std::stoul(log.substr(at + 14)));
  }

  // Both services run and the agent serves the collector's rows over HTTP.
  void ExpectServing(const std::string& collector, const std::string& address) {
    EXPECT_TRUE(WaitForState(collector, "4  RUNNING")) << Query(collector);
    ASSERT_TRUE(WaitForState(agent_, "4  RUNNING")) << Query(agent_);
    httplib::Client http("http://" + address);
    std::string rows;
    EXPECT_TRUE(Eventually([&] {
      auto res = http.Get("/tables/KZQDBD");
      rows = res ? res->body : "";
      return rows.find("\"DBNAME\":\"master\"") != std::string::npos;
    })) << rows;
  }

  const std::string instance_ = "KZQW" + std::to_string(platform::CurrentProcessId());
  const std::string agent_ = "kzqagent_" + instance_;
  const std::string second_ = instance_ + "B";  // an instance beside the first
  const std::string data_root_ = platform::GetEnv("ProgramData").value_or("C:\\ProgramData") + "\\kzq";
  const std::string data_ = data_root_ + "\\" + instance_;
  kzq_test::TempDir root_;
  std::string install_;
};

TEST_F(WindowsInstall, InstalledAsTheReadmeSaysItServesStopsFailsVisiblyAndIsRemoved) {
  CopyPrograms();
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
  ExpectServing(collector, port.Address());
  httplib::Client http("http://" + port.Address());
  std::string metrics;
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

TEST_F(WindowsInstall, TheInstallerSetsUpServingInstancesAndTheLastOneUninstalledLeavesNothing) {
  // A setting made before installing is kept, as with the script.
  HeldPort port;
  port.Release();
  SetSetting("KZQ_HTTP_LISTEN", port.Address());
  const std::string setup = WindowsPath(KZQ_WINDOWS_SETUP);
  ASSERT_EQ(Run("\"" + setup + "\" /S /INSTANCE=" + instance_ + " /D=" + install_), 0)
      << kzq_test::ReadFile(data_ + "\\logs\\install.log");
  const std::string collector = CollectorService();
  ExpectServing(collector, port.Address());
  // The script's refusal is the installer's exit code.
  EXPECT_EQ(Run("\"" + setup + "\" /S /INSTANCE=" + instance_ + " /D=" + install_), 6);
  EXPECT_THAT(kzq_test::ReadFile(data_ + "\\logs\\install.log"), HasSubstr("installed already"));
  const std::string example = kzq_test::ReadFile(install_ + "\\example.conf");
  EXPECT_THAT(example, HasSubstr("KZQ_HTTP_LISTEN"));
  EXPECT_EQ(kzq_test::ReadFile(data_root_ + "\\" + instance_ + ".conf"), example);
  const std::string entry = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\kzq_" + instance_;
  std::string output;
  ASSERT_EQ(Cmd({"reg", "query", entry, "/v", "QuietUninstallString"}, &output), 0) << output;
  // reg prints the path's accented letter in another code page.
  EXPECT_THAT(output, HasSubstr("\\uninstall.exe\" /S /INSTANCE=" + instance_));

  // A second instance in the same directory, which keeps the programs when
  // the first one goes.
  HeldPort second_port;
  second_port.Release();
  SetSetting("KZQ_HTTP_LISTEN", second_port.Address(), second_);
  ASSERT_EQ(Run("\"" + setup + "\" /S /INSTANCE=" + second_ + " /D=" + install_), 0)
      << kzq_test::ReadFile(data_root_ + "\\" + second_ + "\\logs\\install.log");

  // Run from a copy with the install directory named, as a script does to
  // wait for the whole uninstall and get its exit code.
  const std::string uninstaller = root_.File("uninstall.exe");
  std::filesystem::copy_file(install_ + "\\uninstall.exe", uninstaller);
  const auto uninstall = [&](const std::string& instance) {
    return Run("\"" + uninstaller + "\" /S /INSTANCE=" + instance + " _?=" + install_);
  };
  ASSERT_EQ(uninstall(instance_), 0);
  EXPECT_THAT(Query(agent_), Not(HasSubstr("SERVICE_NAME")));
  EXPECT_THAT(Query(collector), Not(HasSubstr("SERVICE_NAME")));
  EXPECT_NE(Cmd({"reg", "query", Key()}, &output), 0) << output;
  EXPECT_NE(Cmd({"reg", "query", entry}, &output), 0) << output;
  EXPECT_FALSE(std::filesystem::exists(data_));
  EXPECT_FALSE(std::filesystem::exists(data_root_ + "\\" + instance_ + ".conf"));
  EXPECT_TRUE(std::filesystem::exists(install_ + "\\kzqagent.exe"));
  EXPECT_TRUE(WaitForState("kzqagent_" + second_, "4  RUNNING")) << Query("kzqagent_" + second_);

  ASSERT_EQ(uninstall(second_), 0);
  EXPECT_THAT(Query("kzqagent_" + second_), Not(HasSubstr("SERVICE_NAME")));
  EXPECT_NE(Cmd({"reg", "query", Key(second_)}, &output), 0) << output;
  EXPECT_FALSE(std::filesystem::exists(data_root_ + "\\" + second_));
  EXPECT_FALSE(std::filesystem::exists(data_root_ + "\\" + second_ + ".conf"));
  EXPECT_FALSE(std::filesystem::exists(install_));
}

}  // namespace
