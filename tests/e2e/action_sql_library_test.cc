// The agent's own "kzqsql" command served by the in-process SQL library,
// each case in a process of its own: the library is loaded once per
// process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "tests/e2e/action_sandbox.h"
#include "tests/support/binaries.h"
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;
using testing::Not;

#ifdef _WIN32
constexpr const char* kLibraryPath = "PATH";
#else
constexpr const char* kLibraryPath = "LD_LIBRARY_PATH";
#endif

// The runner as the test starts it. Windows loads the library from the
// program's own directory only, so there the runner is copied into a
// directory of its own with the library of `library_dir` (if it has one)
// beside it; POSIX finds the library through LD_LIBRARY_PATH.
std::string PlacedRunner(const std::string& library_dir, const kzq_test::TempDir& place) {
  const std::string runner = kzq_test::BuiltProgram("tests", "kvc_sql_runner");
#ifdef _WIN32
  const std::string copy = place.File("kvc_sql_runner.exe");
  std::filesystem::copy_file(runner, copy);
  const std::filesystem::path library = std::filesystem::path(library_dir) / "kzqsqld.dll";
  if (std::filesystem::exists(library)) std::filesystem::copy_file(library, place.File("kzqsqld.dll"));
  return copy;
#else
  (void)place;
  (void)library_dir;
  return runner;
#endif
}

// Runs the request in kvc_sql_runner with its library taken from
// `library_dir` and `path_dir` searched first for libraries; returns what
// the runner printed.
std::string RunRequest(const std::string& library_dir, const std::string& request,
                       const std::string& path_dir) {
  kzq_test::TheActionSandbox();
  kzq_test::TempDir out, place;
  const std::string runner = PlacedRunner(library_dir, place);
  const std::optional<std::string> saved = platform::GetEnv(kLibraryPath);
  platform::SetEnv(kLibraryPath, path_dir + platform::PathListSeparator() + saved.value_or(""));
  std::string said;
  EXPECT_EQ(kzq_test::RunToEnd({runner, request}, out.File("runner.txt"), &said), 0);
  platform::SetEnv(kLibraryPath, saved.value_or(""));
  return said;
}

std::string RunRequest(const std::string& library_dir, const std::string& request) {
  return RunRequest(library_dir, request, library_dir);
}

// How the runner prints a node of the chain.
std::string Node(const std::string& text) { return "LINE " + std::to_string(text.size()) + " " + text; }

std::string LibraryDir(const char* variant) {
  const char sep = platform::PathSeparator();
  return kzq_test::TheActionSandbox().build_dir + sep + "sqllib" + sep + variant;
}

TEST(SqlLibrary, AnswersWithTheLinesTheLibraryWroteEvenWhenTheRequestFailed) {
  const std::string out = RunRequest(LibraryDir("whole"), "select name from sys.databases");
  EXPECT_THAT(out, HasSubstr(Node("request: select name from sys.databases")));
  EXPECT_THAT(out, HasSubstr(Node("server: dbhost\\" + platform::GetEnv("COLL_SERVERID").value_or(""))));
  EXPECT_THAT(out, HasSubstr(Node("debug: 1")));  // handed the debug settings before the request
  EXPECT_THAT(out, Not(HasSubstr("NO CHAIN")));
  // A failed request is traced and its lines still read.
  const std::string failed = RunRequest(LibraryDir("whole"), "fail 3");
  EXPECT_THAT(failed, HasSubstr("DLL returned 3"));
  EXPECT_THAT(failed, HasSubstr(Node("request: fail 3")));
}

TEST(SqlLibrary, MissingLibraryOrEntryIsLoggedAndGivesNoChain) {
  kzq_test::TempDir empty;
  const std::string absent = RunRequest(empty.Path(), "select 1");
  EXPECT_THAT(absent, HasSubstr("UEX3047BW"));
  EXPECT_THAT(absent, HasSubstr("LoadLibray(kzqdbdll.dll) failed"));
  EXPECT_THAT(absent, HasSubstr("NO CHAIN"));
  const std::string partial = RunRequest(LibraryDir("partial"), "select 1");
  EXPECT_THAT(partial, HasSubstr("UEX3047AW"));
  EXPECT_THAT(partial, HasSubstr("DLL routines not found"));
  EXPECT_THAT(partial, HasSubstr("NO CHAIN"));
}

#ifdef _WIN32
// A library of that name in a directory of PATH is not the agent's: loading
// it would run whatever was planted there in the service's account.
TEST(SqlLibrary, OnWindowsOnlyTheLibraryBesideTheProgramIsLoaded) {
  kzq_test::TempDir empty;
  const std::string planted = RunRequest(empty.Path(), "select 1", LibraryDir("whole"));
  EXPECT_THAT(planted, HasSubstr("UEX3047BW"));
  EXPECT_THAT(planted, HasSubstr("NO CHAIN"));
}
#endif

}  // namespace
