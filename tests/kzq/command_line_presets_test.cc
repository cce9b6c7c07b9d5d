#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "kzq/command_line_presets.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "tests/support/temp_dir.h"

namespace {

class CommandLinePresets : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"COLL_SERVERID", "TAVRA_LOG_PATH", "COLL_HOSTNAME"}) platform::SetEnv(name, "");
    remove(kzq::PresetErrorFilePath().c_str());
  }
  void TearDown() override { remove(kzq::PresetErrorFilePath().c_str()); }
  static std::string Env(const char* name) { return platform::GetEnv(name).value_or("<unset>"); }
  static std::string Bin() { return std::string("opt") + platform::PathSeparator() + "bin" + platform::PathSeparator(); }
};

TEST_F(CommandLinePresets, ServerIdLogPathAndHostComeFromTheLine) {
  const std::string line = Bin() + "kzqagent -Hkey \"SOFTWARE\\Orvane\\kzq\\SQL1\"";
  EXPECT_EQ(kzq::ApplyCommandLinePresets(line.c_str()), "");
  EXPECT_EQ(Env("COLL_SERVERID"), "SQL1");
  EXPECT_EQ(Env("TAVRA_LOG_PATH"), Bin() + "LOGS");
  int error = 0;
  EXPECT_EQ(Env("COLL_HOSTNAME"), platform::ComputerName(&error));
  EXPECT_FALSE(std::filesystem::exists(kzq::PresetErrorFilePath()));
  EXPECT_NE(platform::RawCommandLine().find("kzq_tests"), std::string::npos) << "the raw line names the program";
}

// An install directory with blanks is quoted by the service definition, and
// a key may hold blanks too; a trace directory the service definition
// already names is kept.
TEST_F(CommandLinePresets, QuotedPathsWithBlanksAndAnInheritedTraceDirectory) {
  const std::string line = "\"" + Bin() + "k z q" + platform::PathSeparator() +
                           "kzqagent.exe\" -Hkey \"SOFTWARE\\Orvane\\kzq\\SQL 2\"";
  platform::SetEnv("TAVRA_LOG_PATH", "/var/log/kzq/SQL2/trace");
  EXPECT_EQ(kzq::ApplyCommandLinePresets(line.c_str()), "");
  EXPECT_EQ(Env("COLL_SERVERID"), "SQL 2");
  EXPECT_EQ(Env("TAVRA_LOG_PATH"), "/var/log/kzq/SQL2/trace");
}

TEST_F(CommandLinePresets, FailureStopsTheRestAndIsWrittenToTheErrorFile) {
  // "-Hkey" is matched as written: in lower case the key is not found.
  const std::string lower = Bin() + "kzqagent -hkey \"SOFTWARE\\Orvane\\kzq\\SQL1\"";
  const std::string text = kzq::ApplyCommandLinePresets(lower.c_str());
  EXPECT_EQ(text, "\n Error in finding Server ID from s_hkeypart :");
  // Written in text mode: Windows ends the line with CR LF.
  std::string written = kzq_test::ReadFile(kzq::PresetErrorFilePath());
  std::erase(written, '\r');
  EXPECT_EQ(written, text);
  EXPECT_EQ(Env("TAVRA_LOG_PATH"), "<unset>");

  // An executable named without a directory: the server id is set, then it stops.
  EXPECT_EQ(kzq::ApplyCommandLinePresets("kzqagent -Hkey \"A\\B\""),
            "\n Error in finding TAVRA_LOG_PATH from s_exepath :kzqagent");
  EXPECT_EQ(Env("COLL_SERVERID"), "B");
  EXPECT_EQ(Env("COLL_HOSTNAME"), "<unset>");

  EXPECT_EQ(kzq::ApplyCommandLinePresets(nullptr), "\n Error in GetCommandLine :0");
}

}  // namespace
