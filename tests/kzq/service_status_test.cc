// What the agent makes of a service probe: the process id of a running
// service, 0 otherwise, and which failures reach the diagnostic log.
#include "kzq/service_status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "kvc/debug_switches.h"
#include "platform/process.h"
#include "platform/service_probe.h"
#include "tests/support/log_capture.h"
#include "tests/support/service_sandbox.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string Tid() { return "(" + std::to_string(platform::CurrentThreadId()) + ")"; }

// A service in each state: made up in the sandbox on POSIX; on Windows one
// that every system has (the installer service starts only on demand).
class ServiceStatus : public testing::Test {
 protected:
  void TearDown() override { kvc::Debug() = kvc::DebugSwitches(); }
#ifndef _WIN32
  const char* RunningService() {
    sandbox_.WritePidFile("KZQCOLL1", std::to_string(platform::CurrentProcessId()));
    return "KZQCOLL1";
  }
  const char* StoppedService() {
    sandbox_.WritePidFile("KZQCOLL2", "gone");
    return "KZQCOLL2";
  }
#else
  const char* RunningService() { return "PlugPlay"; }
  const char* StoppedService() { return "msiserver"; }
#endif
  kzq_test::ServiceSandbox sandbox_;
  kzq_test::LogCapture log_;
};

TEST_F(ServiceStatus, UnknownServiceIsNotRunningAndAlwaysLogged) {
  ASSERT_TRUE(log_.Opened());
  EXPECT_EQ(kzq::check_service_status("KZQNOSUCHSERVICE"), 0u);
  EXPECT_THAT(log_.Lines(),
              ElementsAre("CML1525E " + Tid() + "Error in check_service_status:OpenServiceA() Error Code: 1060"));
}

TEST_F(ServiceStatus, RunningServiceGivesItsProcessAndLogsNothing) {
  kvc::Debug().debug = true;
  const char* name = RunningService();
  const uint32_t pid = kzq::check_service_status(name);
  EXPECT_NE(pid, 0u);
  EXPECT_EQ(pid, platform::QueryService(name).process_id);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ServiceStatus, StoppedServiceIsLoggedOnlyWhenDebugging) {
  const char* name = StoppedService();
  EXPECT_EQ(kzq::check_service_status(name), 0u);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  kvc::Debug().debug = true;
  EXPECT_EQ(kzq::check_service_status(name), 0u);
  EXPECT_THAT(log_.Lines(), ElementsAre("CML1525W " + Tid() + "QueryServiceStatusEx() returned service_status: 1"));
}

#ifndef _WIN32

TEST_F(ServiceStatus, FailedStatusQueryIsLoggedOnlyWhenDebugging) {
  const std::string cgroup = sandbox_.AddUnit("mssql-server", "");
  std::filesystem::remove(cgroup + "/cgroup.procs");
  EXPECT_EQ(kzq::check_service_status("MSSQLSERVER"), 0u);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  kvc::Debug().debug = true;
  EXPECT_EQ(kzq::check_service_status("MSSQLSERVER"), 0u);
  EXPECT_THAT(log_.Lines(), ElementsAre("CML1525W " + Tid() +
                                        "Error in check_service_status:QueryServiceStatusEx() Error Code: 2"));
}

TEST_F(ServiceStatus, EveryCallAsksAfresh) {
  const std::string cgroup = sandbox_.AddUnit("mssql-server", std::to_string(platform::CurrentProcessId()));
  EXPECT_EQ(kzq::check_service_status("MSSQLSERVER"), platform::CurrentProcessId());
  std::filesystem::remove_all(cgroup);
  EXPECT_EQ(kzq::check_service_status("MSSQLSERVER"), 0u);
  EXPECT_THAT(log_.Lines(),
              ElementsAre("CML1525E " + Tid() + "Error in check_service_status:OpenServiceA() Error Code: 1060"));
}

#endif

}  // namespace
