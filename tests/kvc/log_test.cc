#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "tests/support/log_capture.h"

namespace {

using kzq_test::LogCapture;
using testing::ElementsAre;
using testing::HasSubstr;
using kzq_test::FullyMatches;

std::string Tid() { return "(" + std::to_string(platform::CurrentThreadId()) + ")"; }

TEST(DiagnosticLog, LinePrefixIsUpperCasedIdLevelThenThreadId) {
  LogCapture log;
  ASSERT_TRUE(log.Opened());
  kvc::Log('e', "nsh0012", "failed with %d\n", 7);
  kvc::Log('w', "abc1234", "careful\n");
  kvc::Log('a', "abc1235", "shown as information\n");
  kvc::Log('-', "abc1236", "bare\n");
  kvc::Log('i', ".abc", "full stop: the id as it stands, no level\n");
  kvc::Log('@', "kzqagent", "names the process, writes nothing\n");
  kvc::Log('i', "kvc0003", "%s", "");
  EXPECT_THAT(log.Lines(), ElementsAre("NSH0012E " + Tid() + "failed with 7",
                                       "ABC1234W " + Tid() + "careful",
                                       "ABC1235I " + Tid() + "shown as information",
                                       Tid() + "bare",
                                       "abc " + Tid() + "full stop: the id as it stands, no level",
                                       "KVC0003I " + Tid() + " *** vsprintf error **** "));
  // Every line written begins with the local date and time.
  std::istringstream raw(log.Text());
  for (std::string line; std::getline(raw, line);)
    EXPECT_THAT(line.substr(0, line.find('\r')), FullyMatches("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} [^ ].*"));
}

TEST(DiagnosticLog, ARepeatedLineIsCountedNotWritten) {
  LogCapture log;
  for (int i = 0; i < 500; ++i) kvc::Log('e', "nsh0012", "failed with %d\n", 7);
  kvc::Log('e', "nsh0012", "failed with %d\n", 8);
  kvc::Log('e', "nsh0012", "failed with %d\n", 8);
  kvc::Log('i', "abc0001", "done\n");
  EXPECT_THAT(log.Lines(), ElementsAre("NSH0012E " + Tid() + "failed with 7",
                                       "KVC0100I " + Tid() + "The line before came 499 more times",
                                       "NSH0012E " + Tid() + "failed with 8",
                                       "KVC0100I " + Tid() + "The line before came 1 more times",
                                       "ABC0001I " + Tid() + "done"));
}

TEST(DiagnosticLog, OpeningAppendsToWhatTheOtherProgramWrote) {
  LogCapture log;
  kvc::Log('i', "abc0001", "collector started\n");
  ASSERT_EQ(kvc::OpenLogFile(), 0);
  kvc::Log('i', "abc0002", "agent started\n");
  EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr("collector started"), HasSubstr("agent started")));
}

TEST(DiagnosticLog, TraceLinesCarryTheLocalTimeAndDetailOnesNeedTheirOption) {
  LogCapture log;
  kvc::Log('t', "kvc0001", "traced\n");
  EXPECT_THAT(log.Lines(), ElementsAre(FullyMatches("KVC0001T \\([0-9]{6}\\) \\([0-9]+\\)traced")));
  platform::SetEnv("COLL_TRACE_DETAIL", "");
  kvc::ReloadOptions();
  kvc::Log('h', "kvc0002", "hidden\n");
  EXPECT_EQ(log.Lines().size(), 1u);
  platform::SetEnv("COLL_TRACE_DETAIL", "1");
  kvc::ReloadOptions();
  kvc::Log('h', "kvc0002", "shown\n");
  platform::SetEnv("COLL_TRACE_DETAIL", "");
  kvc::ReloadOptions();
  EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr("traced"), FullyMatches("KVC0002H \\([0-9]{6}\\) .*shown")));
}

TEST(DiagnosticLog, WrapsOnTheWriteAfterAPositiveLimitOnly) {
  {
    LogCapture never("-5");
    for (int i = 0; i < 40; ++i) kvc::Log('i', "kvc0011", "line %d\n", i);
    EXPECT_EQ(never.Lines().size(), 40u);
  }
  LogCapture log("2");
  kvc::Log('i', "kvc0010", "one\n");
  kvc::Log('i', "kvc0010", "two\n");
  EXPECT_EQ(log.Lines().size(), 2u);
  kvc::Log('i', "kvc0010", "three\n");
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr("       File wrapped -- "));
  EXPECT_THAT(lines[0], FullyMatches("CGN5000I .*-- [0-9]{4}/[0-9]{2}/[0-9]{2} .*"));
  EXPECT_THAT(lines[1], HasSubstr("three"));
}

TEST(DiagnosticLog, HexDumpWritesSixteenBytesPerLine) {
  LogCapture log;
  const char bytes[] = "0123456789abcdef\x01\x7f" "AB";
  kvc::HexDump(nullptr, bytes, 20);
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr("000: 30313233 34353637 38396162 63646566 *0123456789abcdef*"));
  EXPECT_THAT(lines[0], FullyMatches("UPX0100T .*"));
  EXPECT_THAT(lines[1], HasSubstr("010: 017f4142" + std::string(27, ' ') + " *..AB*"));
}

TEST(OutputFileBackups, CountFollowsTheSettingWithItsAsymmetry) {
  EXPECT_EQ(kvc::BackupCountFor(nullptr, 0), 1);
  EXPECT_EQ(kvc::BackupCountFor("", 3), 5);
  EXPECT_EQ(kvc::BackupCountFor("-100000", 0), 9999);
  EXPECT_EQ(kvc::BackupCountFor("-12", 0), 12);
  EXPECT_EQ(kvc::BackupCountFor("-9", 0), 0);
  EXPECT_EQ(kvc::BackupCountFor("-1", 0), 0);
  EXPECT_EQ(kvc::BackupCountFor("0", 1), 0);
  EXPECT_EQ(kvc::BackupCountFor("7", 0), 7);
  EXPECT_EQ(kvc::BackupCountFor("12", 0), 9);
}

TEST(OutputFileBackups, RotationShiftsEveryBackupUpByOne) {
  kzq_test::TempDir dir;
  const std::string out = dir.File("agt.out");
  for (const char* name : {"agt.out", "agt.ou1", "agt.ou2", "agt.ou3"})
    kzq_test::WriteFile(dir.File(name), name);
  kvc::RotateBackups(out.c_str(), 3);
  EXPECT_EQ(kzq_test::ReadFile(dir.File("agt.ou1")), "agt.out");
  EXPECT_EQ(kzq_test::ReadFile(dir.File("agt.ou2")), "agt.ou1");
  EXPECT_EQ(kzq_test::ReadFile(dir.File("agt.ou3")), "agt.ou2");
  platform::FileStatus ignored;
  EXPECT_NE(platform::StatPath(out, &ignored), 0);

  kzq_test::WriteFile(out, "newest");
  kvc::RotateBackups(out.c_str(), 1);
  EXPECT_EQ(kzq_test::ReadFile(dir.File("agt.ou1")), "newest");
}

// The output file's path and backup count are fixed by the first call in a
// process, so this is the only test that opens it.
TEST(OutputFileBackups, OpeningKeepsThePreviousRunAsBackup) {
  kzq_test::TempDir dir;
  platform::SetEnv("KVCLOGDIR", dir.Path());
  platform::SetEnv("COLL_NUMOUTBAK", "2");
  kzq_test::WriteFile(dir.File("agt.out"), "previous run");
  FILE* out = kvc::OpenOutputFile("agt.out");
  ASSERT_NE(out, nullptr);
  fputs("this run", out);
  fclose(out);
  EXPECT_EQ(kzq_test::ReadFile(dir.File("agt.ou1")), "previous run");
  EXPECT_EQ(kzq_test::ReadFile(dir.File("agt.out")), "this run");
  platform::SetEnv("COLL_NUMOUTBAK", "");
}

}  // namespace
