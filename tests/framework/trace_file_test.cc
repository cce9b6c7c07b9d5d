#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "framework/trace.h"
#include "framework/trace_file.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using kzq_test::FullyMatches;
using testing::ElementsAre;

using std::filesystem::exists;

TEST(TraceLogSpec, ReadsTheNamesAndLimitsOfTheSettingAndTheLevelsBeforeTheArrow) {
  const auto spec = framework::ParseTraceLogSpec(
      "\"C:\\Program Files\\logs\\a_$(systask)_$(sysutcstart)-.log\" INVENTORY=\"C:\\Program Files\\logs\\a.inv\" "
      "COUNT=03 PRESERVE=0 LIMIT=2 MAXFILES=4");
  ASSERT_TRUE(spec.has_value());
  EXPECT_EQ(spec->file, "C:\\Program Files\\logs\\a_$(systask)_$(sysutcstart)-.log");
  EXPECT_EQ(spec->inventory, "C:\\Program Files\\logs\\a.inv");
  EXPECT_EQ(spec->count, 3);
  EXPECT_EQ(spec->limit_bytes, 2 << 20);
  EXPECT_EQ(spec->maxfiles, 4);
  // An empty LIMIT= keeps the facility's own default.
  EXPECT_EQ(framework::ParseTraceLogSpec("t-.log LIMIT= COUNT=x")->limit_bytes, 1 << 20);
  EXPECT_FALSE(framework::ParseTraceLogSpec("INVENTORY=only.inv").has_value());
  EXPECT_EQ(framework::ExpandTraceVariables("k_$(systask)_$(sysutcstart)-.log", "$", "kzqagent", "20261123080000"),
            "k_kzqagent_20261123080000-.log");
  EXPECT_EQ(framework::TraceLevelFromSpec(""), framework::kTraceError);
  EXPECT_EQ(framework::TraceLevelFromSpec("error (unit:kzq flow)"), framework::kTraceError | framework::kTraceFlow);
  EXPECT_EQ(framework::TraceLevelFromSpec("ERROR (UNIT:kzq ALL) > c:\\flow.log") & framework::kTraceDetail,
            framework::kTraceDetail);
  EXPECT_EQ(framework::TraceLevelFromSpec("ERROR > c:\\FLOWDETAIL.log"), framework::kTraceError);
}

TEST(RollingTraceFile, FullFilesRollOverAndWrapAfterCount) {
  kzq_test::TempDir dir;
  framework::TraceLogSpec spec;
  spec.file = dir.File("t-.log");
  spec.count = 2;
  spec.limit_bytes = 10;
  framework::RollingTraceFile rolling(spec);
  ASSERT_TRUE(rolling.Write("12345678", 8));
  ASSERT_TRUE(rolling.Write("abc", 3));  // would pass 10 bytes: a new file
  ASSERT_TRUE(rolling.Write("defghijk", 8));  // third file wraps to number 1
  rolling.Flush();
  EXPECT_EQ(kzq_test::ReadFile(dir.File("t-2.log")), "abc");
  EXPECT_EQ(kzq_test::ReadFile(dir.File("t-1.log")), "defghijk");
}

TEST(RollingTraceFile, InventoryKeepsAtMostMaxFiles) {
  kzq_test::TempDir dir;
  framework::TraceLogSpec spec;
  spec.file = dir.File("run-.log");
  spec.inventory = dir.File("run.inv");
  spec.count = 5;
  spec.limit_bytes = 4;
  spec.maxfiles = 2;
  {
    framework::RollingTraceFile rolling(spec);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(rolling.Write("full", 4));
  }
  EXPECT_FALSE(exists(dir.File("run-1.log")));  // the oldest fell off
  EXPECT_TRUE(exists(dir.File("run-2.log")));
  EXPECT_TRUE(exists(dir.File("run-3.log")));
  std::string inventory = kzq_test::ReadFile(dir.File("run.inv"));
  EXPECT_EQ(inventory, dir.File("run-2.log") + "\n" + dir.File("run-3.log") + "\n");
}

// The directory is made when missing; every line is stamped, and a line
// that repeats is counted instead of filling the file.
TEST(RollingTraceFile, TraceLinesReachTheFileTheSettingNames) {
  kzq_test::TempDir dir;
  const std::string logs = dir.File("logs") + platform::PathSeparator() + "trace";
  platform::SetEnv("KPB_TRC1", "ERROR (UNIT:kzq FLOW)");
  platform::SetEnv("KPB_VARPREFIX", "");
  platform::SetEnv("KPB_TRC1_LOG", logs + "/k_$(systask)_$(sysutcstart)-.log INVENTORY=" + logs +
                                       "/k.inv COUNT=03 PRESERVE=0 LIMIT=1 MAXFILES=10");
  const std::string path = framework::StartTraceFromEnvironment("kzqagent");
  ASSERT_FALSE(path.empty());
  EXPECT_NE(path.find("k_kzqagent_2"), std::string::npos);
  EXPECT_EQ(path.substr(path.size() - 6), "-1.log");
  EXPECT_EQ(framework::TraceLevel(), framework::kTraceError | framework::kTraceFlow);
  TRC1_Printf("hello %d", 42);
  TRC1_Printf(" and more\n");
  for (int i = 0; i < 40; ++i) TRC1_Printf("\t\tError in fgetws\n");
  TRC1_Printf("bye\n");
  TRC1_Sync();
  const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
  EXPECT_THAT(kzq_test::ReadFile(path),
              FullyMatches(stamp + "hello 42 and more\n" + stamp + "\t\tError in fgetws\n" + stamp +
                           "The trace line before came 39 more times\n" + stamp + "bye\n"));
  framework::SetTraceLevel(0);
}

}  // namespace
