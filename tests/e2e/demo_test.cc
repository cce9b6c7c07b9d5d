// `make demo` as a newcomer runs it: scripts/demo on a build tree starts a
// real kzqcoll replaying demo/replay, the errorlog writer and a real
// kzqagent -console. What it prints must hold - rows in the tables, both
// services up, both programs logging - and so must every kzqctl example
// README.md gives and every command the demo tells a newcomer to try, run
// as printed by a shell: each ends with 0 and prints what it promises,
// times readable. Then a clean stop. POSIX only: the demo is a shell script.
#include <httplib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/environment.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/free_port.h"
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;

std::string BuildTree() {
  const std::string program = kzq_test::BuiltProgram("kzq", "kzqagent");
  return program.substr(0, program.rfind("/kzq/"));
}

// The README's kzqctl examples: the lines of the sh block that follows
// "**kzqctl**" (comments cut) and every `kzqctl ...` in the text that names
// no placeholder. Actions are left out: the agent takes them only with a
// token, which the demo does not set.
std::vector<std::string> ReadmeExamples(const std::string& readme) {
  std::vector<std::string> examples;
  const size_t intro = readme.find("**kzqctl**");
  const size_t block = readme.find("```sh\n", intro);
  const size_t block_end = readme.find("```", block + 6);
  const std::regex comment(" +#.*$");
  std::istringstream lines(readme.substr(block + 6, block_end - block - 6));
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("kzqctl ", 0) == 0) examples.push_back(std::regex_replace(line, comment, ""));
  const std::regex inline_example("`(kzqctl [^`<\\[]*)`");
  for (std::sregex_iterator it(readme.begin(), readme.end(), inline_example), end; it != end; ++it)
    if ((*it)[1].str().find(" action ") == std::string::npos &&
        std::find(examples.begin(), examples.end(), (*it)[1].str()) == examples.end())
      examples.push_back((*it)[1]);
  return examples;
}

// The commands the demo prints under "Try:".
std::vector<std::string> DemoHints(const std::string& said) {
  std::vector<std::string> hints;
  std::istringstream lines(said.substr(said.find("Try:\n") + 5));
  for (std::string line; std::getline(lines, line) && line.rfind("  ", 0) == 0;) hints.push_back(line.substr(2));
  return hints;
}

// What a command's output must hold.
std::string Promised(const std::string& command) {
  if (command.find("--help") != std::string::npos) return "Usage:";
  if (command.find("/metrics") != std::string::npos) return "kzq_";
  if (command.find("events") != std::string::npos) return command.find("kzqctl") != std::string::npos ? "  sev " : "data: ";
  if (command.find(" tables") != std::string::npos) return "KZQDBD";
  return "SalesDB";  // a database of demo/replay
}

class Demo : public testing::Test {
 protected:
  // A command that follows events runs until stopped: it must still run
  // once it has shown one.
  void Follow(const std::string& command, const std::string& promised) {
    const std::string output = dir_.File("run" + std::to_string(++runs_));
    auto shell = kzq_test::Start({"/bin/sh", "-c", "exec " + command}, output);
    ASSERT_NE(shell, nullptr);
    EXPECT_TRUE(kzq_test::Eventually([&] { return kzq_test::ReadFile(output).find(promised) != std::string::npos; }))
        << command << "\n" << kzq_test::ReadFile(output);
    ASSERT_TRUE(shell->RequestStop());
    shell->Wait();
  }

  void Check(const std::string& command) {
    const std::string promised = Promised(command);
    if (command.find("events") != std::string::npos) return Follow(command, promised);
    std::string said;
    EXPECT_EQ(kzq_test::RunToEnd({"/bin/sh", "-c", command}, dir_.File("run" + std::to_string(++runs_)), &said), 0)
        << command << "\n" << said;
    EXPECT_THAT(said, HasSubstr(promised)) << command;
    // Time stamps of the replay (2026-11-23...) appear only as readable times.
    const bool readable = command.find("kzqctl") != std::string::npos && command.find("--json") == std::string::npos;
    if (readable) {
      EXPECT_THAT(said, testing::Not(testing::ContainsRegex("12611[0-9]{11}"))) << command << "\n" << said;
    }
  }

  kzq_test::TempDir dir_;
  int runs_ = 0;
};

TEST_F(Demo, ServesWhatItPromisesRunsEveryReadmeExampleAndDemoHintAndStopsCleanly) {
  const int port = kzq_test::FreePort();
  platform::SetEnv("KZQ_HTTP_LISTEN", "127.0.0.1:" + std::to_string(port));
  platform::SetEnv("TMPDIR", dir_.Path());
  // A newcomer's shell names no server: the demo's own defaults apply.
  for (const char* name : {"COLL_SERVERID", "COLL_SERVICENUMBER", "KZQ_HTTP_TOKEN"}) platform::SetEnv(name, "");
  auto demo = kzq_test::Start({"/bin/bash", KZQ_SOURCE_DIR "/scripts/demo", BuildTree()}, dir_.File("demo.out"));
  ASSERT_NE(demo, nullptr);
  // A failed check still stops the demo and its three programs.
  struct StopOnExit {
    platform::ChildProcess* demo;
    bool stopped = false;
    ~StopOnExit() {
      if (!stopped && demo->RequestStop()) demo->Wait();
    }
  } stop_on_exit{demo.get()};
  const auto said = [&] { return kzq_test::ReadFile(dir_.File("demo.out")); };
  ASSERT_TRUE(kzq_test::Eventually([&] { return said().find("Ctrl-C stops the demo") != std::string::npos; }))
      << said();
  EXPECT_THAT(said(), HasSubstr("Agent started with 33 tables"));
  httplib::Client client("127.0.0.1", port);
  std::string metrics;
  ASSERT_TRUE(kzq_test::Eventually([&] {
    const auto answer = client.Get("/metrics");
    if (answer && answer->status == 200) metrics = answer->body;
    return metrics.find("service=\"KZQCOLL0\"} 1") != std::string::npos &&
           metrics.find("service=\"MSSQLSERVER\"} 1") != std::string::npos;
  })) << metrics << said();
  // Both programs write their diagnostic log into the demo's log directory.
  const std::string text = said();
  const size_t files = text.find("Files: ");
  ASSERT_NE(files, std::string::npos) << text;
  const std::string scratch = text.substr(files + 7, text.find(". Ctrl-C", files) - files - 7);
  const std::string log = kzq_test::ReadFile(scratch + "/logs/col.log");
  EXPECT_THAT(log, HasSubstr("kzqagent (pid"));
  EXPECT_THAT(log, HasSubstr("kzqcoll (pid"));

  const std::vector<std::string> hints = DemoHints(text);
  EXPECT_GE(hints.size(), 5u) << text;
  for (const std::string& hint : hints) Check(hint);
  // The README names kzqctl bare, as installed: it is found on PATH and
  // finds the agent through KZQ_HTTP_LISTEN.
  const std::string path = platform::GetEnv("PATH").value_or("/usr/bin:/bin");
  platform::SetEnv("PATH", BuildTree() + "/kzq:" + path);
  const std::vector<std::string> examples = ReadmeExamples(kzq_test::ReadFile(KZQ_SOURCE_DIR "/README.md"));
  EXPECT_GE(examples.size(), 8u);
  for (const std::string& example : examples) Check(example);
  platform::SetEnv("PATH", path);

  ASSERT_TRUE(demo->RequestStop());
  stop_on_exit.stopped = true;
  EXPECT_EQ(demo->Wait(), 0) << said();
  EXPECT_THAT(said(), HasSubstr("kzq demo: stopped"));
  EXPECT_EQ(kzq_test::ReadFile(scratch + "/logs/col.log"), "");  // the scratch directory is gone
  platform::SetEnv("KZQ_HTTP_LISTEN", "");
}

}  // namespace
