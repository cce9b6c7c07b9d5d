// Take-action commands arriving on the agent's tables, as the framework
// hands them over, and what reaches the action log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "framework/action_log.h"
#include "framework/table_manager.h"
#include "kvc/take_action.h"
#include "kvc/collector_channel.h"
#include "kzq/agent_data_paths.h"
#include "kzq/agent_loader.h"
#include "tests/e2e/action_sandbox.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct Entry {
  std::string id, line, title;
  bool operator==(const Entry&) const = default;
};

void PrintTo(const Entry& e, std::ostream* os) { *os << e.id << "|" << e.line << "|" << e.title; }

class ActionHandler : public testing::Test {
 protected:
  void SetUp() override {
    kzq_test::TheActionSandbox();
    static std::once_flag registered;
    // Registered tables live as long as the process, and so do their sources.
    static auto* paths = new kzq::AgentDataPaths(kvc::SharedChannel());
    std::call_once(registered, [] { kzq::RegisterAllTables(*paths); });
  }

  // Runs a command on a table object the way the endpoint does, and
  // returns the entries it added.
  std::vector<Entry> Execute(const char* table, const std::string& command) {
    framework::TableManager* manager = framework::TableManager::Find(table);
    EXPECT_NE(manager, nullptr);
    if (manager == nullptr) return {};
    framework::RequestDetail detail;
    detail.table = table;
    framework::tavra* object = manager->OpenRequest(&detail, nullptr);
    framework::TavraAutomationCapsule capsule;
    capsule.command = command;
    capsule.result = -1;
    const uint64_t before = framework::ActionLogLast();
    EXPECT_EQ(object->ExecuteCommand(&capsule), 0);
    manager->CloseRequest(object);
    EXPECT_TRUE(capsule.finished);
    EXPECT_EQ(capsule.table, object);
    last_result_ = capsule.result;
    std::vector<Entry> entries;
    for (const framework::ActionLogEntry& e : framework::ActionLogSince(before))
      entries.push_back({e.id, e.line, e.title});
    return entries;
  }

  int last_result_ = -1;  // the exit code of the last command Execute ran
};

TEST_F(ActionHandler, EveryLineIsAnEntryInOrderTheLastOneTitledAndNoneIsNoResponse) {
  EXPECT_THAT(Execute("KZQSRVR", "printlines"),
              ElementsAre(Entry{"KVCACT002", "first line", " "}, Entry{"KVCACT002", "", " "},
                          Entry{"KVCACT002", "", " "}, Entry{"KVCACT002", "last line", "Database Action"}));
  EXPECT_EQ(last_result_, 0);
  EXPECT_THAT(Execute("KZQDBD", "silent"), ElementsAre(Entry{"KVCACT002", "no response", "Database Action"}));
}

TEST_F(ActionHandler, ArgumentsFollowTheFirstBlankAndDefaultToOneBlank) {
  EXPECT_THAT(Execute("KZQSRVR", "showargs a b"), ElementsAre(Entry{"KVCACT002", "args=a b", "Database Action"}));
  EXPECT_THAT(Execute("KZQSRVR", "showargs"), ElementsAre(Entry{"KVCACT002", "args=", "Database Action"}));
  const kvc::ActionCommand bare = kvc::SplitActionCommand("showargs");
  EXPECT_EQ(bare.arguments, " ");
}

TEST_F(ActionHandler, KyresqlInAnyCaseRunsTheDatabaseActionScript) {
  for (const char* command : {"KyReSQL select 1", "kyresql.cmd select 1"}) {
    const std::vector<Entry> entries = Execute("KZQSRVR", command);
    ASSERT_EQ(entries.size(), 1u) << command;
    EXPECT_THAT(entries[0].line, HasSubstr("sqlcmd is not installed"));
    EXPECT_EQ(entries[0].title, "Database Action");
    EXPECT_NE(last_result_, 0) << command;  // the script's failure is the action's result
  }
  EXPECT_EQ(kvc::SplitActionCommand("KYRESQL.CMD x").name, "KYRESQL.CMD");
}

}  // namespace
