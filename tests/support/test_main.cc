// Every test binary starts here: each run gets its own server id, so that
// the machine-wide log lock and shared objects of concurrent runs (native
// and Wine, or two checkouts) never meet.
#include <gtest/gtest.h>

#include <string>

#include "platform/environment.h"
#include "platform/process.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!platform::GetEnv("COLL_SERVERID").has_value())
    platform::SetEnv("COLL_SERVERID", "t" + std::to_string(platform::CurrentProcessId()));
  platform::SetEnv("COLL_SERVICENUMBER", "1");
  return RUN_ALL_TESTS();
}
