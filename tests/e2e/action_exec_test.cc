// u_exec against real commands run by the system's command interpreter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "kvc/command_temp_files.h"
#include "kvc/command_execution.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "tests/e2e/action_sandbox.h"
#include "tests/support/binaries.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// The chain's texts; frees it. Each node's length must be its text's.
std::vector<std::string> Texts(kvc::r_exec_chain* chain) {
  std::vector<std::string> texts;
  for (const kvc::r_exec_chain* node = chain; node != nullptr; node = node->next) {
    EXPECT_EQ(static_cast<size_t>(node->length), strlen(node->text));
    texts.emplace_back(node->text);
  }
  kvc::free_exec_chain(chain);
  return texts;
}

std::vector<std::string> Exec(const std::string& command, const std::string& parms) {
  kzq_test::TheActionSandbox();
  return Texts(kvc::u_exec(command.c_str(), parms.c_str()));
}

// Inline parameters that still fit on the interpreter's line.
size_t InlineRoom() { return 225 - (kzq_test::TheActionSandbox().bin.size() + 1); }

// Output comes back line by line, trailing blanks removed; nothing printed
// is no chain; a command that cannot start reports what the system said.
TEST(Exec, OutputComesBackLineByLineAndAFailedStartSaysWhy) {
  EXPECT_THAT(Exec("printlines", " "), ElementsAre("first line", "", "", "last line"));
  EXPECT_TRUE(Exec("silent", " ").empty());
  const std::vector<std::string> lines = Exec("nosuchcommand", " ");
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.front(), HasSubstr("nosuchcommand"));
}

TEST(ExecCommandName, PlainNamesComeFromTheBinDirectoryAtSignAndPathsAsGiven) {
  const auto& sandbox = kzq_test::TheActionSandbox();
  EXPECT_THAT(Exec("whereami", " "), ElementsAre("bin"));
  EXPECT_THAT(Exec("@whereami", " "), ElementsAre("path"));
  EXPECT_THAT(Exec(sandbox.path_dir + platform::PathSeparator() + "whereami", " "), ElementsAre("path"));
}

// A bin directory with blanks (as under "Program Files") still finds its
// commands, and a name that would make the interpreter run something else
// (a pipe, a variable) is refused with a line that says why.
TEST(ExecCommandName, ABinDirectoryWithBlanksWorksAndAnInterpretedNameIsRefused) {
  const auto& sandbox = kzq_test::TheActionSandbox();
  kzq_test::TempDir dir;
  const std::string bin = dir.File("b i n");
  std::filesystem::copy(sandbox.bin, bin);
  kvc::ExecPlaces places = kvc::CurrentExecPlaces();
  places.bin_path = bin;
  EXPECT_THAT(Texts(kvc::u_exec_in(places, "whereami", " ")), ElementsAre("bin"));
  for (const char* name : {"@whereami|showargs", "@whereami&showargs", "who ami"})
    EXPECT_THAT(Exec(name, " "), ElementsAre(HasSubstr("refused"))) << name;
}

// A variable named in the arguments reaches the command as written: the
// interpreter never expands it (it could be the database password).
TEST(ExecParameters, AreNeverExpandedByTheInterpreter) {
  platform::SetEnv("KZQ_TEST_SECRET", "s3cret");
  for (const char* parms : {"select %KZQ_TEST_SECRET%", "select $KZQ_TEST_SECRET", "select !KZQ_TEST_SECRET!"}) {
    const std::vector<std::string> lines = Exec("showargs", parms);
    ASSERT_FALSE(lines.empty()) << parms;
    EXPECT_THAT(lines.back(), HasSubstr("KZQ_TEST_SECRET")) << parms;
    for (const std::string& line : lines) EXPECT_THAT(line, testing::Not(HasSubstr("s3cret"))) << parms;
  }
  platform::SetEnv("KZQ_TEST_SECRET", "");
}

#ifndef _WIN32
// The agent starts the command itself, never through "sh -c" (a script
// without an interpreter line is still the shell's, as execvp has it).
TEST(Exec, TheCommandIsTheAgentsChildNotAShells) {
  const std::string self = kzq_test::ReadFile("/proc/self/comm");
  EXPECT_THAT(Exec("showparent", " "), ElementsAre(self.substr(0, self.find('\n'))));
}
#endif

// A command that never ends is stopped at COLL_ACTION_TIMEOUT, with what
// it printed and a line that says so: one action must not hold every later
// one. (The program here waits until it is killed.)
TEST(Exec, ACommandThatRunsTooLongIsStopped) {
  kzq_test::TheActionSandbox();
  kvc::ExecPlaces places = kvc::CurrentExecPlaces();
  places.timeout_seconds = 1;
  kzq_test::TempDir dir;
  int exit_code = 0;
  const std::vector<std::string> lines = Texts(kvc::u_exec_in(
      places, kzq_test::BuiltProgram("tests", "kvc_log_writer").c_str(), ("hold " + dir.File("ready")).c_str(),
      &exit_code));
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.back(), HasSubstr("did not end within 1 seconds"));
  EXPECT_EQ(exit_code, -1);
}

// How the parameters reach the command: on its line while they fit and
// the interpreter would not act on them, otherwise in a file, quoted there
// when 226 to 568 characters long.
TEST(ExecParameters, GoOnTheLineOrByFile) {
  const std::string fits(InlineRoom(), 'x');
  const std::string below = "a " + std::string(223, 'q');      // 225
  const std::string first = "a " + std::string(224, 'q');      // 226
  const std::string last = "it's " + std::string(563, 'q');    // 568
  const std::string beyond = "it's " + std::string(564, 'q');  // 569
  const std::pair<std::string, std::string> by_file[] = {
      {fits + "x", fits + "x"}, {"count(*) x", "count(*) x"}, {"a > b", "a > b"}, {"a | b & c", "a | b & c"},
      {below, below}, {first, "'" + first + "'"}, {last, "'it''s " + std::string(563, 'q') + "'"},
      {beyond, beyond}};
  EXPECT_THAT(Exec("showargs", fits), ElementsAre("args=" + fits));
  for (const auto& [parms, in_file] : by_file)
    EXPECT_THAT(Exec("showargs", parms), ElementsAre(StartsWith("args=-filein "), in_file)) << parms.size();
}

std::vector<std::string> Entries(const std::string& directory) {
  std::vector<std::string> names = platform::ListDirectory(directory);
  std::sort(names.begin(), names.end());
  return names;
}

// The files are named by the prefix and the time, month first, and are
// gone when the action ends: arguments and answers are not left behind.
TEST(ExecTempFiles, FilesAreNamedMonthDayYearFirstAndRemovedWhenTheActionEnds) {
  const auto& sandbox = kzq_test::TheActionSandbox();
  const std::vector<std::string> before = Entries(sandbox.TempDirectory());
  const std::vector<std::string> lines = Exec("showargs", "kept(1)");
#ifndef _WIN32
  // Arguments and answers are the service account's alone.
  EXPECT_EQ(std::filesystem::status(sandbox.TempDirectory()).permissions(), std::filesystem::perms::owner_all);
#endif
  EXPECT_EQ(Entries(sandbox.TempDirectory()), before);
  ASSERT_FALSE(lines.empty());
  std::smatch in;
  ASSERT_TRUE(std::regex_search(lines.front(), in, std::regex(R"(kzq_(\d{16,17})\.in)"))) << lines.front();
  platform::LocalTime utc;
  ASSERT_TRUE(platform::ToUtc(platform::NowUnixSeconds(), &utc));
  EXPECT_EQ(std::stoi(in[1].str().substr(0, 2)), utc.month);
  EXPECT_EQ(std::stoi(in[1].str().substr(4, 4)), utc.year);
}

// Unset, COLL_PREFIX is the log directory and the user: a path, of which
// only the last element names the temporary directory and files (a whole
// path there made every action answer nothing). The exit code comes back.
TEST(ExecTempFiles, ThePrefixAsAPathStillWorksAndTheExitCodeComesBack) {
  kzq_test::TheActionSandbox();
  kvc::ExecPlaces places = kvc::CurrentExecPlaces();
  kzq_test::TempDir logs;
  places.prefix = logs.File("someone");
  int exit_code = -1;
  EXPECT_THAT(Texts(kvc::u_exec_in(places, "showargs", "x", &exit_code)), ElementsAre("args=x"));
  EXPECT_EQ(exit_code, 0);
  Texts(kvc::u_exec_in(places, "@kzqnosuchcommand", " ", &exit_code));
  EXPECT_NE(exit_code, 0);
}

TEST(ExecTempFiles, FilesOfThePrefixOlderThanTheIntervalAreDeleted) {
  kzq_test::TempDir dir;
  kzq_test::WriteFile(dir.File("kzq_old.out"), "x");
  kzq_test::WriteFile(dir.File("other.out"), "x");
  // The files were made just now: the clock moves on instead of the files
  // being made old, since a file's creation time cannot be set everywhere.
  const int64_t now = platform::NowUnixMillis();
  kvc::CleanExecTempFiles(dir.Path(), "kzq", now + 90 * 1000, 2);
  EXPECT_THAT(Entries(dir.Path()), ElementsAre("kzq_old.out", "other.out"));
  kvc::CleanExecTempFiles(dir.Path(), "kzq", now + 150 * 1000, 2);
  EXPECT_THAT(Entries(dir.Path()), ElementsAre("other.out"));
}

TEST(ExecTempFiles, DeleteIntervalIsTwoMinutesUnlessAllDigits) {
  const auto interval_for = [](const char* value) {
    platform::SetEnv("COLL_TMPFILE_DEL_INTERVAL", value);
    const int minutes = kvc::TempFileDeleteInterval();
    platform::SetEnv("COLL_TMPFILE_DEL_INTERVAL", "");
    return minutes;
  };
  EXPECT_EQ(interval_for(""), 2);
  EXPECT_EQ(interval_for("15"), 15);
  EXPECT_EQ(interval_for("5m"), 2);
  EXPECT_EQ(interval_for("-1"), 2);
}

}  // namespace
