// The service probe: on Windows the service manager; on POSIX pid files,
// the unit map and the units' cgroups, all in a sandbox of the test's own.
#include "platform/service_probe.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/process.h"

#ifndef _WIN32
#include <unistd.h>

#include "platform/posix/service_units.h"
#include "tests/support/service_sandbox.h"
#endif

namespace {

using platform::QueryService;

// What a probe said, as one comparable text.
std::string Said(const platform::ServiceProbe& probe) {
  if (probe.ok) return "state " + std::to_string(probe.state) + " pid " + std::to_string(probe.process_id);
  const char* steps[] = {"open manager", "open service", "query status"};
  return std::string(steps[static_cast<int>(probe.failed_step)]) + " failed " + std::to_string(probe.error);
}

const std::string kNoSuchService = "open service failed 1060";

#ifndef _WIN32

std::string Running(uint32_t pid) { return "state 4 pid " + std::to_string(pid); }
const std::string kStopped = "state 1 pid 0";
const uint32_t kSelf = platform::CurrentProcessId();
const std::string kSelfText = std::to_string(kSelf);

// A process id that no process holds any more: a child that has ended and
// been reaped.
std::string DeadPid() {
  int error = 0;
  auto child = platform::StartProcess({"/bin/true"}, &error);
  EXPECT_NE(child, nullptr) << error;
  if (child == nullptr) return "0";
  child->Wait();
  return std::to_string(child->Id());
}

class ServiceProbePidFile : public testing::Test {
 protected:
  kzq_test::ServiceSandbox sandbox_;
};

// Signalling another user's process is refused with EPERM: it lives all the
// same. Under root the signal is allowed; either way init runs.
TEST_F(ServiceProbePidFile, LiveProcessOfTheFirstLineRunsWhoeverItsUser) {
  sandbox_.WritePidFile("KZQCOLL7", " \t" + kSelfText + " \r\n1\n");
  EXPECT_EQ(Said(QueryService("KZQCOLL7")), Running(kSelf));
  sandbox_.WritePidFile("KZQCOLL1", "1");
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), Running(1));
}

TEST_F(ServiceProbePidFile, ChildRunsUntilItHasBeenKilled) {
  int error = 0;
  auto child = platform::StartProcess({"/bin/sleep", "30"}, &error);
  ASSERT_NE(child, nullptr) << error;
  sandbox_.WritePidFile("KZQCOLL1", std::to_string(child->Id()) + "\n");
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), Running(child->Id()));
  ASSERT_TRUE(child->Kill());
  child->Wait();
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), kStopped);
}

TEST_F(ServiceProbePidFile, AnythingButALivePositivePidIsStopped) {
  for (const std::string& text : std::vector<std::string>{"", "\n", "abc", "12x", "+12", "1 2", "0", "-5", "99999999999",
                                 "\n" + kSelfText, DeadPid()}) {
    sandbox_.WritePidFile("KZQCOLL1", text);
    EXPECT_EQ(Said(QueryService("KZQCOLL1")), kStopped) << '"' << text << '"';
  }
}

TEST_F(ServiceProbePidFile, ComesBeforeTheUnitAndFailsTheQueryWhenUnreadable) {
  sandbox_.AddUnit("mssql-server", kSelfText);
  sandbox_.WritePidFile("MSSQLSERVER", "garbage");
  EXPECT_EQ(Said(QueryService("MSSQLSERVER")), kStopped);
  std::filesystem::remove(sandbox_.PidFile("MSSQLSERVER"));
  std::filesystem::create_directory(sandbox_.PidFile("MSSQLSERVER"));
  EXPECT_EQ(Said(QueryService("MSSQLSERVER")), "query status failed 31");
  std::filesystem::remove(sandbox_.PidFile("MSSQLSERVER"));
  EXPECT_EQ(Said(QueryService("MSSQLSERVER")), Running(kSelf));
}

// A pid file planted by another account, or a link to some other file,
// does not make a service run.
TEST_F(ServiceProbePidFile, APlantedFileOrLinkIsNotBelieved) {
  const std::string elsewhere = sandbox_.PidFile("elsewhere");
  kzq_test::WriteFile(elsewhere, kSelfText);
  std::filesystem::create_symlink(elsewhere, sandbox_.PidFile("KZQCOLL1"));
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), "query status failed 5");
  if (geteuid() != 0) return;  // only root can give a file to another account
  std::filesystem::remove(sandbox_.PidFile("KZQCOLL1"));
  sandbox_.WritePidFile("KZQCOLL1", kSelfText);
  ASSERT_EQ(chown(sandbox_.PidFile("KZQCOLL1").c_str(), 4242, 4242), 0);
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), "query status failed 5");
}

TEST_F(ServiceProbePidFile, NamesThatCannotBeOneFileAreInvalid) {
  sandbox_.WritePidFile("x", kSelfText);
  for (const std::string& name : std::vector<std::string>{"", "../x", "a\\x", std::string(257, 'x')})
    EXPECT_EQ(Said(QueryService(name.c_str())), "open service failed 123") << name;
  EXPECT_EQ(Said(QueryService(nullptr)), "open service failed 123");
}

class ServiceProbeCgroup : public testing::Test {
 protected:
  void SetUp() override { platform::SetEnv("KZQ_SERVICE_UNITS", "KZQCOLL1=kzqcoll@SQL1"); }
  kzq_test::ServiceSandbox sandbox_;
};

// The version one hierarchy counts only while the unified one lacks the unit.
TEST_F(ServiceProbeCgroup, FirstLiveProcessOfTheUnitIsTheServiceInEitherHierarchy) {
  sandbox_.AddUnit("kzqcoll@SQL1", kSelfText, "systemd/system.slice");
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), Running(kSelf));
  sandbox_.AddUnit("kzqcoll@SQL1", DeadPid() + "\nnot-a-pid\n\n0\n" + kSelfText + "\n1\n");
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), Running(kSelf));
  sandbox_.AddUnit("kzqcoll@SQL1", DeadPid() + "\n");
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), kStopped);
  sandbox_.AddUnit("kzqcoll@SQL1", "");
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), kStopped);
}

TEST_F(ServiceProbeCgroup, UnloadedUnitDoesNotExistAndAMissingListFailsTheQuery) {
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), kNoSuchService);
  const std::string cgroup = sandbox_.AddUnit("kzqcoll@SQL1", kSelfText);
  std::filesystem::remove(cgroup + "/cgroup.procs");
  EXPECT_EQ(Said(QueryService("KZQCOLL1")), "query status failed 2");
}

TEST_F(ServiceProbeCgroup, DefaultMapKnowsOnlyTheDefaultDatabaseServiceUntilOneIsSet) {
  sandbox_.AddUnit("mssql-server", kSelfText);
  sandbox_.AddUnit("mssql-sql1", kSelfText);
  platform::SetEnv("KZQ_SERVICE_UNITS", "");
  EXPECT_EQ(Said(QueryService("mssqlserver")), Running(kSelf));
  EXPECT_EQ(Said(QueryService("MSSQL$SQL1")), kNoSuchService);
  platform::SetEnv("KZQ_SERVICE_UNITS", " MSSQL$SQL1 = mssql-sql1.service ");
  EXPECT_EQ(Said(QueryService("mssql$sql1")), Running(kSelf));
  EXPECT_EQ(Said(QueryService("MSSQLSERVER")), kNoSuchService);
}

TEST(ServiceUnitMap, NamesInAnyCaseBlanksAndSuffixIgnoredLastItemWinsMalformedSkipped) {
  const std::string map = " KZQCOLL1 = kzqcoll@SQL1 ,\tmssqlserver=mssql.service ,KzqColl1=other";
  EXPECT_EQ(platform::posix::FindServiceUnit(map, "kzqcoll1").value_or("-"), "other");
  EXPECT_EQ(platform::posix::FindServiceUnit(map, "MSSQLSERVER").value_or("-"), "mssql");
  EXPECT_EQ(platform::posix::FindServiceUnit(map, "KZQCOLL").value_or("-"), "-");
  const std::string odd = "JUNK,=nameless,EMPTY=,SUFFIX=.service,SLASH=../x,SPACED=a b,EQUALS=a=b,,GOOD=unit,GOOD=bad/";
  for (const char* name : {"JUNK", "", "EMPTY", "SUFFIX", "SLASH", "SPACED", "EQUALS"})
    EXPECT_FALSE(platform::posix::FindServiceUnit(odd, name).has_value()) << name;
  EXPECT_EQ(platform::posix::FindServiceUnit(odd, "good").value_or("-"), "unit");
}

#else

// The installer service is started only on demand.
TEST(ServiceProbe, RunningServiceHasAProcessOfItsOwnStoppedOneNoneUnknownOneFails) {
  EXPECT_EQ(Said(QueryService("KZQNOSUCHSERVICE")), kNoSuchService);
  EXPECT_EQ(Said(QueryService("msiserver")), "state 1 pid 0");
  const platform::ServiceProbe probe = QueryService("PlugPlay");
  ASSERT_TRUE(probe.ok) << Said(probe);
  EXPECT_EQ(probe.state, platform::kServiceRunning);
  EXPECT_NE(probe.process_id, 0u);
  EXPECT_NE(probe.process_id, platform::CurrentProcessId());
}

#endif

}  // namespace
