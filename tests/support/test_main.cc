// Every test binary starts here: each run gets its own server id, so that
// the machine-wide log lock and shared objects of concurrent runs (native
// and Wine, or two checkouts) never meet.
#include <gtest/gtest.h>

#include <string>

#include "platform/environment.h"
#include "platform/process.h"

// A string handed to putenv belongs to the environment from then on; when a
// later test puts the same name again the old string is unreachable, which
// is how putenv works, not a leak of the code under test.
extern "C" const char* __lsan_default_suppressions() { return "leak:PutEnvPair\n"; }

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!platform::GetEnv("COLL_SERVERID").has_value())
    platform::SetEnv("COLL_SERVERID", "t" + std::to_string(platform::CurrentProcessId()));
  platform::SetEnv("COLL_SERVICENUMBER", "1");
  // Agents the tests start listen on a free port each, never on the
  // default one an agent of the machine may hold.
  if (!platform::GetEnv("KZQ_HTTP_LISTEN").has_value()) platform::SetEnv("KZQ_HTTP_LISTEN", "127.0.0.1:0");
  return RUN_ALL_TESTS();
}
