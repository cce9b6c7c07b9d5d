// Replacing the endpoint's token and users while it serves: the next
// request is judged by the new ones alone.
#include <httplib.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "framework/serve/endpoint.h"

namespace {

TEST(EndpointAccess, ReplacedTokenAndUsersJudgeTheNextRequest) {
  framework::HttpSettings settings;
  settings.port = 0;
  settings.token = "old";
  framework::SampleCache cache;
  std::string error;
  auto endpoint =
      framework::HttpEndpoint::Start(settings, &cache, std::make_shared<framework::AgentDescription>(), &error);
  ASSERT_TRUE(endpoint) << error;
  const auto status = [&](const std::string& token, const std::string& user, const std::string& password) {
    httplib::Client client("127.0.0.1", endpoint->Port());
    if (!token.empty()) client.set_bearer_token_auth(token);
    if (!user.empty()) client.set_basic_auth(user, password);
    auto answer = client.Get("/tables");
    return answer ? answer->status : -1;
  };
  EXPECT_EQ(status("old", "", ""), 200);

  // A published bcrypt test vector: "U*U" at cost 5.
  ASSERT_TRUE(endpoint->ReplaceAccess(
      "new", {{"prometheus", "$2a$05$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW"}}, &error));
  EXPECT_EQ(status("old", "", ""), 401);
  EXPECT_EQ(status("new", "", ""), 200);
  EXPECT_EQ(status("", "prometheus", "U*U"), 200);
  EXPECT_EQ(status("", "prometheus", "U*U"), 200);  // verified before

  // Users gone: a password verified under them no longer counts.
  ASSERT_TRUE(endpoint->ReplaceAccess("new", {}, &error));
  EXPECT_EQ(status("", "prometheus", "U*U"), 401);
  ASSERT_TRUE(endpoint->ReplaceAccess("", {}, &error));  // a loopback endpoint may be open
  EXPECT_EQ(status("", "", ""), 200);
  endpoint->Stop();
}

}  // namespace
