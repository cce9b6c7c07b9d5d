#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <string>

#include "kvc/debug_switches.h"
#include "kzq/option_words.h"

namespace {

using testing::ElementsAre;

// Files by name, as a -filein chain would find them.
kzq::OptionFileReader Files(std::map<std::string, std::string> files) {
  return [files](const std::string& path) -> std::optional<std::string> {
    const auto it = files.find(path);
    if (it == files.end()) return std::nullopt;
    return it->second;
  };
}

kvc::AgentConfig& Record() {
  static auto* records = new std::deque<kvc::AgentConfig>;  // kept for the process, like the agent's
  return records->emplace_back();
}

TEST(OptionWords, KeywordsInAnyCaseAndShortenedStoreTheirValuesTheDebugWordParsed) {
  kvc::AgentConfig& config = Record();
  const auto result = kzq::ApplyOptionWords(
      {"-SERVERID", "SQL1", "-log", "sa", "-logs", "/var/log/kzq", "-errlog", "/var/opt/mssql/log/errorlog",
       "-maxread", "4096", "-ver", "kzq2", "-hkey", "SOFTWARE\\x", "-rdbms", "mssql", "-console", "-debug", "-dde"},
      config, Files({}));
  EXPECT_TRUE(result.console);
  EXPECT_TRUE(result.problems.empty());
  EXPECT_STREQ(config.serverId, "SQL1");
  EXPECT_STREQ(config.logon, "sa");
  EXPECT_STREQ(config.outDir, "/var/log/kzq");
  EXPECT_STREQ(config.errorLog, "/var/opt/mssql/log/errorlog");
  EXPECT_EQ(config.maxReadErrorLog, 4096);
  EXPECT_STREQ(config.version, "kzq2");
  // The debug word goes through the debug parser.
  EXPECT_EQ(config.debugFlag, 1);
  EXPECT_EQ(config.DebugLevels[0], 1);
  EXPECT_EQ(config.DebugLevels[1], 2);
  kvc::Debug() = kvc::DebugSwitches();
}

TEST(OptionWords, UnknownWordsAndMissingValuesAreReportedNotFatal) {
  kvc::AgentConfig& config = Record();
  const auto result = kzq::ApplyOptionWords({"-xx", "-nosuchword", "v", "-password"}, config, Files({}));
  EXPECT_THAT(result.problems, ElementsAre("Unknown option word: -xx", "Unknown option word: -nosuchword",
                                           "Option word -password needs a value"));
  EXPECT_EQ(config.password, nullptr);
}

TEST(OptionWords, IncludeFilesNestUpToTenDeep) {
  std::map<std::string, std::string> files;
  for (int i = 1; i <= 11; ++i)
    files["f" + std::to_string(i)] = "-dbhome h" + std::to_string(i) + "\n-filein f" + std::to_string(i + 1);
  kvc::AgentConfig& config = Record();
  const auto result = kzq::ApplyOptionWords({"-filein", "f1"}, config, Files(files));
  EXPECT_STREQ(config.dbHome, "h10");  // the tenth file is read, the eleventh is not
  EXPECT_THAT(result.problems, ElementsAre("Nested file f11 exceded max of 10 files"));
  const auto missing = kzq::ApplyOptionWords({"-filein", "nope"}, config, Files({}));
  EXPECT_THAT(missing.problems, ElementsAre("Cannot read option file nope"));
}

}  // namespace
