#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "framework/trace.h"
#include "kzq/trace_log_setup.h"
#include "platform/environment.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::Contains;

const std::string kLog = "$(systask)_$(sysutcstart)-.log";
const std::string kInventory = "$(systask).inv";

kzq::TraceLogInputs Inputs(const std::string& trace, const std::string& log) {
  kzq::TraceLogInputs in;
  in.trace_spec = trace;
  in.log_spec = log;
  in.variable_prefix = "$";
  in.environment = [](const std::string& name) -> std::optional<std::string> {
    if (name == "LOGDIR") return "/var/log/kzq";
    return std::nullopt;
  };
  return in;
}

TEST(TraceLogPlan, NoSettingsAtAllNameTheFilesOnly) {
  const auto plan = kzq::PlanTraceLog(Inputs("ERROR", ""));
  EXPECT_EQ(plan.log_spec, kLog + " INVENTORY=" + kInventory);
  EXPECT_THAT(plan.traces, Contains("Found no output file set\n"));
}

TEST(TraceLogPlan, TavraLogPathGetsTheDefaultLimitsAndSlash) {
  auto in = Inputs("ERROR", "");
  in.tavra_log_path = "C:\\a\\LOGS";
  EXPECT_EQ(kzq::PlanTraceLog(in).log_spec, "C:\\a\\LOGS/" + kLog + " INVENTORY=C:\\a\\LOGS/" + kInventory +
                                                " COUNT=03 PRESERVE=0 LIMIT=1 MAXFILES=10");
}

TEST(TraceLogPlan, ExistingLogSpecGivesPathBaseAndLimits) {
  const auto plan = kzq::PlanTraceLog(
      Inputs("ERROR", "C:\\logs\\HOST_kzq_agent_$(sysutcstart)-.log count=5 MAXFILES=3"));
  // LIMIT is absent, so the new spec carries an empty LIMIT=.
  EXPECT_EQ(plan.log_spec, "C:\\logs\\HOST_kzq_" + kLog + " INVENTORY=C:\\logs\\HOST_kzq_" + kInventory +
                               " COUNT=5 PRESERVE=0 LIMIT= MAXFILES=3");
  EXPECT_THAT(plan.traces, Contains("After underscore processing, last token is agent  ;  base name is HOST_kzq\n"));
}

TEST(TraceLogPlan, RepeatedTokenIsCutOnceMore) {
  const auto plan = kzq::PlanTraceLog(Inputs("", "/l/a_kzq_b_kzq_x-.log LIMIT=2 COUNT=1 MAXFILES=4"));
  // base "a_kzq_b_kzq_x": cut to "a_kzq_b_kzq", then to "a_kzq_b" with token "kzq";
  // "_kzq_" still occurs, so one more cut gives "a_kzq".
  EXPECT_EQ(plan.log_spec, "/l/a_kzq_" + kLog + " INVENTORY=/l/a_kzq_" + kInventory +
                               " COUNT=1 PRESERVE=0 LIMIT=2 MAXFILES=4");
}

TEST(TraceLogPlan, LogSpecWithoutDashResetsThePath) {
  const auto plan = kzq::PlanTraceLog(Inputs("", "/logs/trace.log LIMIT=2"));
  EXPECT_THAT(plan.traces, Contains("No '-' found, resetting path name.\n"));
  EXPECT_EQ(plan.log_spec, kLog + " INVENTORY=" + kInventory);
}

TEST(TraceLogPlan, OutputFileOfTheTraceSpecWithVariablesAndQuotes) {
  auto plan = kzq::PlanTraceLog(Inputs("ERROR >|LOGDIR|/trace.log \r\n", ""));
  EXPECT_EQ(plan.log_spec, "/var/log/kzq/" + kLog + " INVENTORY=/var/log/kzq/" + kInventory +
                               " COUNT=03 PRESERVE=0 LIMIT=1 MAXFILES=10");
  plan = kzq::PlanTraceLog(Inputs("ERROR >\"C:\\Program Files\\logs\\t.log", ""));
  EXPECT_EQ(plan.log_spec, "\"C:\\Program Files\\logs\\" + kLog + "\" INVENTORY=\"C:\\Program Files\\logs\\" +
                               kInventory + "\" COUNT=03 PRESERVE=0 LIMIT=1 MAXFILES=10");
}

TEST(TraceLogPlan, VariablePrefixIsUsedForBothVariables) {
  auto in = Inputs("", "");
  in.variable_prefix = "%";
  EXPECT_EQ(kzq::PlanTraceLog(in).log_spec, "%(systask)_%(sysutcstart)-.log INVENTORY=%(systask).inv");
}

TEST(TraceLogSetup, PublishesTheThreeSettings) {
  kzq_test::TempDir dir;
  FILE* trace = fopen(dir.File("trace").c_str(), "wb+");
  framework::SetTraceStream(trace);
  platform::SetEnv("KPB_TRC1", "ERROR");
  platform::SetEnv("KPB_TRC1_LOG", "");
  platform::SetEnv("KPB_VARPREFIX", "");
  platform::SetEnv("TAVRA_LOG_PATH", "");
  kzq::SetupTraceLog("KZQENV");
  framework::SetTraceStream(nullptr);
  fclose(trace);
  EXPECT_EQ(platform::GetEnv("KPB_TRC1").value_or(""), "ERROR");
  EXPECT_EQ(platform::GetEnv("KPB_VARPREFIX").value_or(""), "$");
  EXPECT_EQ(platform::GetEnv("KPB_TRC1_LOG").value_or(""), kLog + " INVENTORY=" + kInventory);
  const std::string text = kzq_test::ReadFile(dir.File("trace"));
  EXPECT_NE(text.find("resetting the value of KPB_TRC1 from ERROR to ERROR"), std::string::npos);
  EXPECT_NE(text.find("Adding env variable: KPB_TRC1_LOG="), std::string::npos);
}

}  // namespace
