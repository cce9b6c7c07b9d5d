// `make demo` as a newcomer runs it: scripts/demo on a build tree starts the
// collector, the errorlog writer and the agent, and what it prints must
// hold - rows in the tables, both services up, errors as events, a clean
// stop. POSIX only: the demo is a shell script.
#include <httplib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/free_port.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;

std::string BuildTree() {
  const std::string program = kzq_test::BuiltProgram("kzq", "kzqagent");
  return program.substr(0, program.rfind("/kzq/"));
}

TEST(Demo, ServesTheReplayedServerUntilItIsStopped) {
  kzq_test::TempDir dir;
  const int port = kzq_test::FreePort();
  platform::SetEnv("KZQ_HTTP_LISTEN", "127.0.0.1:" + std::to_string(port));
  platform::SetEnv("TMPDIR", dir.Path());
  // A newcomer's shell names no server: the demo's own defaults apply.
  for (const char* name : {"COLL_SERVERID", "COLL_SERVICENUMBER"}) platform::SetEnv(name, "");
  int error = 0;
  platform::ProcessOptions options;
  options.output_file = dir.File("demo.out");
  auto demo = platform::StartProcess({"/bin/bash", KZQ_SOURCE_DIR "/scripts/demo", BuildTree()}, &error, options);
  ASSERT_NE(demo, nullptr) << error;
  // A failed check still stops the demo and its three programs.
  struct StopOnExit {
    platform::ChildProcess* demo;
    bool stopped = false;
    ~StopOnExit() {
      if (!stopped && demo->RequestStop()) demo->Wait();
    }
  } stop_on_exit{demo.get()};
  const auto output = [&] { return kzq_test::ReadFile(dir.File("demo.out")); };

  // The demo says its agent started once the endpoint listens.
  ASSERT_TRUE(kzq_test::Eventually([&] { return output().find("Agent started with 33 tables") != std::string::npos; }))
      << output();
  httplib::Client client("127.0.0.1", port);
  std::string metrics;
  ASSERT_TRUE(kzq_test::Eventually([&] {
    const auto answer = client.Get("/metrics");
    if (answer && answer->status == 200) metrics = answer->body;
    return metrics.find("service=\"KZQCOLL0\"} 1") != std::string::npos &&
           metrics.find("service=\"MSSQLSERVER\"} 1") != std::string::npos;
  })) << metrics << output();
  const auto databases = client.Get("/tables/KZQDBD");
  ASSERT_TRUE(databases);
  EXPECT_THAT(databases->body, HasSubstr("\"DBNAME\":\"master\""));

  // Both programs write their diagnostic log into the demo's log directory.
  const std::string said = output();
  const size_t files = said.find("Files: ");
  ASSERT_NE(files, std::string::npos) << said;
  const std::string scratch = said.substr(files + 7, said.find(". Ctrl-C", files) - files - 7);
  const std::string log = kzq_test::ReadFile(scratch + "/logs/col.log");
  EXPECT_THAT(log, HasSubstr("kzqagent (pid"));
  EXPECT_THAT(log, HasSubstr("kzqcoll (pid"));

  ASSERT_TRUE(demo->RequestStop());
  stop_on_exit.stopped = true;
  EXPECT_EQ(demo->Wait(), 0) << output();
  EXPECT_THAT(output(), HasSubstr("kzq demo: stopped"));
  EXPECT_EQ(kzq_test::ReadFile(scratch + "/logs/col.log"), "");  // the scratch directory is gone
  platform::SetEnv("KZQ_HTTP_LISTEN", "");
}

}  // namespace
