#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "kvc/agent_config.h"
#include "kvc/debug_switches.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "tests/support/log_capture.h"

namespace {

using testing::HasSubstr;

// A new record, kept for the life of the process like the agent's own:
// its texts are never freed.
kvc::AgentConfig& FreshConfig() {
  static auto* records = new std::deque<kvc::AgentConfig>;  // never destroyed
  return records->emplace_back();
}

// The once-per-process places (temporary directory, debug word) are
// fixed by the first read, so this suite sets them before anything reads.
// GetEnvDefault's copies are the caller's for good, as the agent's record
// keeps them; the tests keep them the same way.
char* Kept(char* value) {
  static auto* kept = new std::vector<char*>;  // never destroyed
  kept->push_back(value);
  return value;
}

class AgentEnvironment : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    temp_ = new kzq_test::TempDir;
    platform::SetEnv("TEMP", temp_->Path());
    platform::SetEnv("USERNAME", "u");
    platform::SetEnv("COLL_DEBUG", "ddddd");
    kvc::AgentConfig& first = FreshConfig();
    kvc::ReadAgentEnvironment(first);
    debug_flag_ = first.debugFlag;
    for (int i = 0; i < 10; ++i) levels_[i] = first.DebugLevels[i];
    kvc::Debug() = kvc::DebugSwitches();  // keep the traces of other tests quiet
  }
  void SetUp() override {
    for (const char* name : {"COLL_PREFIX", "COLL_PREFIX_LOCAL", "COLL_OUT", "KVCLOGDIR", "COLL_HOSTNAME",
                             "COLL_VERSION", "COLL_VERSION_HOME", "COLL_SERVERID", "MAXREADSZ_ERRORLOG"})
      platform::SetEnv(name, "");
  }
  static kzq_test::TempDir* temp_;
  static int debug_flag_;
  static int levels_[10];
};

kzq_test::TempDir* AgentEnvironment::temp_ = nullptr;
int AgentEnvironment::debug_flag_ = 0;
int AgentEnvironment::levels_[10] = {};

TEST_F(AgentEnvironment, DebugWordSelectsTheFlagThenOneLevelPerCharacter) {
  EXPECT_EQ(debug_flag_, 1);
  EXPECT_EQ(levels_[0], 1);
  EXPECT_EQ(levels_[3], 1);
  EXPECT_EQ(levels_[4], 0);
}

TEST_F(AgentEnvironment, PrefixComesFromTheTempDirectoryAndTheUser) {
  platform::SetEnv("COLL_HOME", "home-dir");
  kvc::AgentConfig& config = FreshConfig();
  EXPECT_EQ(kvc::ReadAgentEnvironment(config), 1);
  platform::SetEnv("COLL_HOME", "");
  const std::string expected = temp_->Path() + platform::PathSeparator() + "u";
  EXPECT_STREQ(config.prefix, expected.c_str());
  EXPECT_STREQ(config.prefixLocal, expected.c_str());
  EXPECT_STREQ(config.outDir, "home-dir");  // local prefix equals the prefix
  EXPECT_STREQ(config.userName, "u");
  EXPECT_STREQ(config.version, "kvc");
  EXPECT_EQ(config.maxReadErrorLog, 20480000);
  EXPECT_STREQ(config.cfgDir, config.ctlHome);

  kvc::AgentConfig& local = FreshConfig();
  platform::SetEnv("KVCLOGDIR", "logs");
  platform::SetEnv("COLL_PREFIX_LOCAL", "elsewhere");
  kvc::ReadAgentEnvironment(local);
  EXPECT_STREQ(local.prefix, (std::string("logs") + platform::PathSeparator() + "u").c_str());
  EXPECT_STREQ(local.outDir, "elsewhere");
}

TEST_F(AgentEnvironment, EmptyHostNameFallsBackToTheComputerName) {
  platform::SetEnv("COMPUTERNAME", "box7");
  kvc::PutEnvPair("COLL_HOSTNAME", "");  // set but empty counts as unset
  kvc::AgentConfig& config = FreshConfig();
  kvc::ReadAgentEnvironment(config);
  EXPECT_STREQ(config.hostName, "box7");
}

TEST_F(AgentEnvironment, UnsetFieldsAreTriedAgainSetOnesAreKept) {
  kvc::AgentConfig& config = FreshConfig();
  platform::SetEnv("COLL_VERSION_HOME", "vh");
  kvc::ReadAgentEnvironment(config);
  EXPECT_EQ(config.serverId, nullptr);
  EXPECT_STREQ(config.version, "vh");
  platform::SetEnv("COLL_SERVERID", "SQL1");
  platform::SetEnv("COLL_VERSION", "v2");
  kvc::ReadAgentEnvironment(config);
  EXPECT_STREQ(config.serverId, "SQL1");
  EXPECT_STREQ(config.version, "vh");
}

TEST_F(AgentEnvironment, DefaultsAreReportedExportedOrCopiedByModeAndPairsExported) {
  kzq_test::LogCapture log;
  platform::SetEnv("KZQ_ENV_A", "");
  char* value = Kept(kvc::GetEnvDefault("KZQ_ENV_A", kvc::kEnvReport, "dflt"));
  EXPECT_STREQ(value, "dflt");
  EXPECT_THAT(log.Text(), HasSubstr("UEN0015I"));
  EXPECT_THAT(log.Text(), HasSubstr("UEN0020I"));
  EXPECT_FALSE(platform::GetEnv("KZQ_ENV_A").has_value());

  EXPECT_STREQ(kvc::GetEnvDefault("KZQ_ENV_A", kvc::kEnvExport, "exported"), "exported");
  EXPECT_EQ(platform::GetEnv("KZQ_ENV_A").value_or(""), "exported");
  EXPECT_STREQ(Kept(kvc::GetEnvDefault("KZQ_ENV_A", kvc::kEnvPlain, "other")), "exported");

  platform::SetEnv("KZQ_ENV_B", "");
  EXPECT_EQ(kvc::GetEnvDefault("KZQ_ENV_B", kvc::kEnvReport, ""), nullptr);
  EXPECT_THAT(log.Text(), HasSubstr("UEN0015W"));
  // PutEnvPair returns the value inside the exported text.
  kvc::Debug().levels[0] = 1;
  char* pair_value = kvc::PutEnvPair("KZQ_ENV_C", "42");
  kvc::Debug() = kvc::DebugSwitches();
  EXPECT_STREQ(pair_value, "42");
  EXPECT_STREQ(pair_value - strlen("KZQ_ENV_C="), "KZQ_ENV_C=42");
  EXPECT_EQ(platform::GetEnv("KZQ_ENV_C").value_or(""), "42");
  EXPECT_THAT(log.Text(), HasSubstr("Set environment variable \"KZQ_ENV_C\"."));
}

TEST_F(AgentEnvironment, MissingReadSizeIsReportedAtLevelSix) {
  kzq_test::LogCapture log;
  kvc::Debug().levels[6] = 1;
  kvc::AgentConfig& config = FreshConfig();
  kvc::ReadAgentEnvironment(config);
  kvc::Debug() = kvc::DebugSwitches();
  EXPECT_EQ(config.maxReadErrorLog, 20480000);
  EXPECT_THAT(log.Text(), HasSubstr("'MAXREADSZ_ERRORLOG' not set, using default of 20480000"));
}

}  // namespace
