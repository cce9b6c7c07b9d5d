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
  in.environment = [](const std::string& name) -> std::optional<std::string> {
    if (name == "LOGDIR") return "/var/log/kzq";
    return std::nullopt;
  };
  return in;
}

TEST(TraceLogPlan, LogSpecFromTheSettings) {
  const std::string kDefaults = " COUNT=03 PRESERVE=0 LIMIT=1 MAXFILES=10";
  const struct {
    const char* what;
    std::string trace, log, tavra_log_path, prefix;
    std::string expected;
    const char* traced;  // a line the plan must trace, if any
  } cases[] = {
      {"no settings at all name the files only", "ERROR", "", "", "$", kLog + " INVENTORY=" + kInventory,
       "Found no output file set\n"},
      {"TAVRA_LOG_PATH gets the default limits and a slash", "ERROR", "", "C:\\a\\LOGS", "$",
       "C:\\a\\LOGS/" + kLog + " INVENTORY=C:\\a\\LOGS/" + kInventory + kDefaults, nullptr},
      // LIMIT is absent, so the new spec carries an empty LIMIT=.
      {"a log spec gives path, base and limits", "ERROR",
       "C:\\logs\\HOST_kzq_agent_$(sysutcstart)-.log count=5 MAXFILES=3", "", "$",
       "C:\\logs\\HOST_kzq_" + kLog + " INVENTORY=C:\\logs\\HOST_kzq_" + kInventory +
           " COUNT=5 PRESERVE=0 LIMIT= MAXFILES=3",
       "After underscore processing, last token is agent  ;  base name is HOST_kzq\n"},
      // base "a_kzq_b_kzq_x": cut to "a_kzq_b_kzq", then to "a_kzq_b" with token "kzq";
      // "_kzq_" still occurs, so one more cut gives "a_kzq".
      {"a repeated token is cut once more", "", "/l/a_kzq_b_kzq_x-.log LIMIT=2 COUNT=1 MAXFILES=4", "", "$",
       "/l/a_kzq_" + kLog + " INVENTORY=/l/a_kzq_" + kInventory + " COUNT=1 PRESERVE=0 LIMIT=2 MAXFILES=4",
       nullptr},
      {"a log spec without a dash resets the path", "", "/logs/trace.log LIMIT=2", "", "$",
       kLog + " INVENTORY=" + kInventory, "No '-' found, resetting path name.\n"},
      {"the trace spec's output file, with variables", "ERROR >|LOGDIR|/trace.log \r\n", "", "", "$",
       "/var/log/kzq/" + kLog + " INVENTORY=/var/log/kzq/" + kInventory + kDefaults, nullptr},
      {"the trace spec's output file, quoted", "ERROR >\"C:\\Program Files\\logs\\t.log", "", "", "$",
       "\"C:\\Program Files\\logs\\" + kLog + "\" INVENTORY=\"C:\\Program Files\\logs\\" + kInventory + "\"" +
           kDefaults,
       nullptr},
      {"the variable prefix is used for both variables", "", "", "", "%",
       "%(systask)_%(sysutcstart)-.log INVENTORY=%(systask).inv", nullptr},
  };
  for (const auto& c : cases) {
    auto in = Inputs(c.trace, c.log);
    if (!c.tavra_log_path.empty()) in.tavra_log_path = c.tavra_log_path;
    in.variable_prefix = c.prefix;
    const auto plan = kzq::PlanTraceLog(in);
    EXPECT_EQ(plan.log_spec, c.expected) << c.what;
    if (c.traced != nullptr) {
      EXPECT_THAT(plan.traces, Contains(c.traced)) << c.what;
    }
  }
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
