// Every kzqctl example README.md gives and every command the demo tells a
// newcomer to try, run as printed by a shell against the demo's agent (a
// real kzqcoll replaying demo/replay, a real kzqagent -console): each ends
// with 0 and prints what it promises, times readable. POSIX only: the demo
// is a shell script.
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

class CtlExamples : public testing::Test {
 protected:
  // Runs `command` with /bin/sh; its exit code, its output in *said.
  int Run(const std::string& command, std::string* said) {
    const std::string output = dir_.File("run" + std::to_string(++runs_));
    int error = 0;
    auto shell = platform::StartProcess({"/bin/sh", "-c", command}, &error, {output});
    if (shell == nullptr) return -1;
    const int code = shell->Wait();
    *said = kzq_test::ReadFile(output);
    return code;
  }

  // A command that follows events runs until stopped: it must still run
  // once it has shown one.
  void Follow(const std::string& command, const std::string& promised) {
    const std::string output = dir_.File("run" + std::to_string(++runs_));
    int error = 0;
    auto shell = platform::StartProcess({"/bin/sh", "-c", "exec " + command}, &error, {output});
    ASSERT_NE(shell, nullptr) << error;
    EXPECT_TRUE(kzq_test::Eventually([&] { return kzq_test::ReadFile(output).find(promised) != std::string::npos; }))
        << command << "\n" << kzq_test::ReadFile(output);
    ASSERT_TRUE(shell->RequestStop());
    shell->Wait();
  }

  void Check(const std::string& command) {
    const std::string promised = Promised(command);
    if (command.find("events") != std::string::npos) return Follow(command, promised);
    std::string said;
    EXPECT_EQ(Run(command, &said), 0) << command << "\n" << said;
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

TEST_F(CtlExamples, EveryReadmeExampleAndDemoHintWorksAsPrinted) {
  const int port = kzq_test::FreePort();
  platform::SetEnv("KZQ_HTTP_LISTEN", "127.0.0.1:" + std::to_string(port));
  platform::SetEnv("TMPDIR", dir_.Path());
  for (const char* name : {"COLL_SERVERID", "COLL_SERVICENUMBER", "KZQ_HTTP_TOKEN"}) platform::SetEnv(name, "");
  int error = 0;
  auto demo = platform::StartProcess({"/bin/bash", KZQ_SOURCE_DIR "/scripts/demo", BuildTree()}, &error,
                                     {dir_.File("demo.out")});
  ASSERT_NE(demo, nullptr) << error;
  struct StopOnExit {
    platform::ChildProcess* demo;
    ~StopOnExit() {
      if (demo->RequestStop()) demo->Wait();
    }
  } stop_on_exit{demo.get()};
  const auto said = [&] { return kzq_test::ReadFile(dir_.File("demo.out")); };
  ASSERT_TRUE(kzq_test::Eventually([&] { return said().find("Ctrl-C stops the demo") != std::string::npos; }))
      << said();

  const std::vector<std::string> hints = DemoHints(said());
  EXPECT_GE(hints.size(), 5u) << said();
  for (const std::string& hint : hints) Check(hint);

  // The README names kzqctl bare, as installed: it is found on PATH and
  // finds the agent through KZQ_HTTP_LISTEN.
  platform::SetEnv("PATH", BuildTree() + "/kzq:" + platform::GetEnv("PATH").value_or("/usr/bin:/bin"));
  const std::vector<std::string> examples = ReadmeExamples(kzq_test::ReadFile(KZQ_SOURCE_DIR "/README.md"));
  EXPECT_GE(examples.size(), 8u);
  for (const std::string& example : examples) Check(example);
  platform::SetEnv("KZQ_HTTP_LISTEN", "");
}

}  // namespace
