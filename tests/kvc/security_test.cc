#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kvc/ipc_security.h"
#include "platform/security.h"
#include "tests/support/log_capture.h"

namespace {

using testing::HasSubstr;

TEST(SecurityDescriptors, OpenAndUserDescriptorsAreEachOneProcessWideRecord) {
  platform::SecurityDescriptor* first = nullptr;
  platform::SecurityDescriptor* second = nullptr;
  ASSERT_EQ(kvc::CreateOpenDescriptor(&first), 0);
  ASSERT_EQ(kvc::CreateOpenDescriptor(&second), 0);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  std::string me;
  ASSERT_EQ(platform::CurrentUserName(&me), 0);
  platform::SecurityDescriptor* d = nullptr;
  EXPECT_EQ(kvc::CreateUserDescriptor(&d, nullptr), 0);
  platform::SecurityDescriptor* again = nullptr;
  EXPECT_EQ(kvc::CreateUserDescriptor(&again, me.c_str()), 0);
  EXPECT_EQ(d, again);
}

TEST(SecurityDescriptors, UnknownAccountFailsButStillPointsAtTheDescriptor) {
  kzq_test::LogCapture log;
  platform::SecurityDescriptor* d = nullptr;
  EXPECT_EQ(kvc::CreateUserDescriptor(&d, "kzq_no_such_user_x9"), -1);
  EXPECT_EQ(d, platform::UserDescriptorStorage());
  EXPECT_THAT(log.Text(), HasSubstr("NTS0040E"));
  EXPECT_THAT(log.Text(), HasSubstr("Unable to check account info: 'kzq_no_such_user_x9'. Error "));
}

}  // namespace
