// The agent process as an operator runs it: as a console program with a
// collector, and as a service under the platform's service manager.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "platform/service_probe.h"
#include "tests/e2e/service_manager.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;

std::string Agent() { return kzq_test::BuiltProgram("kzq", "kzqagent"); }

// Every trace file of the directory, joined.
std::string TraceText(const std::string& directory) {
  std::string text;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    if (entry.path().extension() == ".log") text += kzq_test::ReadFile(entry.path().string());
  return text;
}

class AgentProcess : public testing::Test {
 protected:
  void SetUp() override {
    platform::SetEnv("NOTIFY_SOCKET", "");
    platform::SetEnv("KVCLOGDIR", logs_.Path());
    platform::SetEnv("TAVRA_LOG_PATH", logs_.Path());
    platform::SetEnv("KZQ_RUNTIME_DIR", logs_.Path());
    platform::SetEnv("COLL_VERSION", "kzqa" + std::to_string(platform::CurrentProcessId()));
    platform::SetEnv("COLL_SERVERID", "1");
  }
  void TearDown() override {
    for (const char* name : {"NOTIFY_SOCKET", "KVCLOGDIR", "TAVRA_LOG_PATH", "KZQ_RUNTIME_DIR"})
      platform::SetEnv(name, "");
  }
  std::unique_ptr<platform::ChildProcess> Start(std::vector<std::string> args) {
    args.insert(args.begin(), Agent());
    return kzq_test::Start(args, logs_.File("stdout.txt"));
  }
  std::string Output() {
    std::string text = kzq_test::ReadFile(logs_.File("stdout.txt"));
    std::erase(text, '\r');
    return text;
  }

  kzq_test::TempDir logs_;
};

TEST_F(AgentProcess, OutsideAServiceManagerWithoutConsoleItFailsLikeTheDispatcher) {
  // "-hkey" before "-console": only the first word counts, so this is a service start.
  auto agent = Start({"-hkey", "SOFTWARE\\kzq\\none", "-console"});
  ASSERT_NE(agent, nullptr);
  // POSIX keeps only the low 8 bits of an exit code.
  EXPECT_EQ(agent->Wait() % 256, 1063 % 256);
  EXPECT_EQ(Output(), "In StartServiceCtrlDispatcher\nError number: 1063\n");
}

TEST_F(AgentProcess, HelpAndVersionAnswerAndStartNothing) {
  for (const char* word : {"--help", "-h"}) {
    auto agent = Start({word});
    ASSERT_NE(agent, nullptr);
    EXPECT_EQ(agent->Wait(), 0) << word;
    EXPECT_THAT(Output(), testing::StartsWith("usage: kzqagent -console")) << word;
    EXPECT_THAT(Output(), testing::HasSubstr("-filein <file>")) << word;
  }
  auto agent = Start({"-console", "--version"});
  ASSERT_NE(agent, nullptr);
  EXPECT_EQ(agent->Wait(), 0);
  EXPECT_EQ(Output(), std::string("kzqagent ") + KZQ_VERSION + "\n");
}

// A console program is stopped by Ctrl-C or Ctrl-Break from its console;
// under Wine the console-less test process cannot send either, so there the
// stop is covered by the service tests.
#ifdef _WIN32
#define SKIP_WITHOUT_CONSOLE_SIGNALS() GTEST_SKIP() << "no console to send Ctrl-Break from"
#else
#define SKIP_WITHOUT_CONSOLE_SIGNALS()
#endif

TEST_F(AgentProcess, ConsoleAgentRegistersEveryTableAndStopsThroughItsExitRoutine) {
  SKIP_WITHOUT_CONSOLE_SIGNALS();
  kzq_test::TempDir replay;
  kzq_test::WriteFile(replay.File("kzqdbd.jsonl"), "{\"SERVERID\": \"SQL1\", \"DBNAME\": \"master\"}\n");
  auto collector = kzq_test::StartReplayCollector(replay.Path());
  ASSERT_NE(collector, nullptr);
  auto agent = Start({"-console", "-serverid", "SQLX"});
  ASSERT_NE(agent, nullptr);
  kzq_test::Eventually([&] { return TraceText(logs_.Path()).find("Agent started") != std::string::npos; });
  ASSERT_TRUE(agent->RequestStop());
  EXPECT_EQ(agent->Wait(), 0);
  EXPECT_THAT(kzq_test::ReadFile(logs_.File("agt.out")), HasSubstr("kzqagent started: server 'SQLX'"));
  const std::string log = kzq_test::ReadFile(logs_.File("col.log"));
  EXPECT_THAT(log, HasSubstr("CTC5001I"));
  EXPECT_THAT(log, HasSubstr("CTC5005I"));
  EXPECT_THAT(log, HasSubstr("atexit routine envoked Quitting."));
  EXPECT_THAT(TraceText(logs_.Path()), HasSubstr("Agent started with 33 tables"));
  kzq_test::Stop(collector);
}

// Runs the agent as a service, pauses and continues it, and stops it.
TEST_F(AgentProcess, ServiceReportsEachStateAndStopsOnTheStopControl) {
  auto manager = kzq_test::ServiceManager::Create(logs_.Path());
  ASSERT_NE(manager, nullptr);
  ASSERT_TRUE(manager->Start(Agent(), {"-serverid", "SQLS"})) << manager->Log();
  EXPECT_TRUE(manager->WaitFor(kzq_test::ServiceManager::kRunning)) << manager->Log();
  if (manager->CanPause()) {
    // The service counts as running only just after it reported so; a
    // pause that comes first is refused, so it is sent until it takes.
    bool paused = false;
    for (int i = 0; i < 20 && !paused; ++i)
      paused = manager->Pause() && manager->WaitFor(kzq_test::ServiceManager::kPaused, 500);
    EXPECT_TRUE(paused) << manager->Log();
    ASSERT_TRUE(manager->Continue()) << manager->Log();
    EXPECT_TRUE(manager->WaitFor(kzq_test::ServiceManager::kRunning)) << manager->Log();
  }
  ASSERT_TRUE(manager->Stop()) << manager->Log();
  EXPECT_TRUE(manager->WaitFor(kzq_test::ServiceManager::kStopping)) << manager->Log();
  EXPECT_TRUE(manager->WaitFor(kzq_test::ServiceManager::kStopped)) << manager->Log();
  EXPECT_EQ(manager->ExitCode(), 0) << manager->Log();
}

TEST_F(AgentProcess, ConsoleCollectorStopsOnRequestAndRemovesItsPidFile) {
  kzq_test::TempDir replay;
  platform::SetEnv("COLL_SERVICENUMBER", "77");
  auto collector = kzq_test::StartReplayCollector(replay.Path());
  platform::SetEnv("COLL_SERVICENUMBER", "");
  ASSERT_NE(collector, nullptr);
  const std::string pid_file = platform::PidFilePath("KZQCOLL77");
  ASSERT_TRUE(kzq_test::Eventually([&] { return std::filesystem::exists(pid_file); }));
  SKIP_WITHOUT_CONSOLE_SIGNALS();
  ASSERT_TRUE(collector->RequestStop());
  EXPECT_EQ(collector->Wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(pid_file));
}

}  // namespace
