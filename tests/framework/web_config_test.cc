// The web configuration file: what it is read as, and that whatever it
// cannot honour is an error naming its line.
#include "framework/serve/web_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using testing::HasSubstr;

const char kHash[] = "$2y$05$/OK.fbVrR/bpIqNJ5ianF.Sa7shbm4.OzKpvFnX1pQLmQW96oUlCq";

TEST(WebConfig, ReadsUsersAndTlsWithQuotesCommentsAndPathsBesideTheFile) {
  const std::string text = std::string("---\n# the exporters' form\n") +
                           "tls_server_config:\n"
                           "  cert_file: server.crt   # beside the file\n"
                           "  key_file: '/etc/kzq/it''s.key'\n"
                           "  client_auth_type: \"RequireAndVerifyClientCert\"\n"
                           "  client_ca_file: ca.pem\r\n"
                           "  min_version: TLS13\n"
                           "\n"
                           "basic_auth_users:\n"
                           "    prometheus: " + kHash + "\n"
                           "    'ops team': \"" + kHash + "\"\n";
  std::string error;
  const auto config = framework::ParseWebConfig(text, "/etc/kzq/web.yml", &error);
  ASSERT_TRUE(config) << error;
  ASSERT_TRUE(config->tls);
  EXPECT_EQ(config->tls->cert_file, "/etc/kzq/server.crt");
  EXPECT_EQ(config->tls->key_file, "/etc/kzq/it's.key");
  EXPECT_EQ(config->tls->client_ca_file, "/etc/kzq/ca.pem");
  EXPECT_EQ(config->tls->client_auth_type, "RequireAndVerifyClientCert");
  EXPECT_EQ(config->tls->min_version, "TLS13");
  const std::map<std::string, std::string> users = {{"prometheus", kHash}, {"ops team", kHash}};
  EXPECT_EQ(config->users, users);

  const auto empty = framework::ParseWebConfig("# nothing yet\nbasic_auth_users: {}\n", "w.yml", &error);
  ASSERT_TRUE(empty) << error;
  EXPECT_TRUE(empty->users.empty());
  EXPECT_FALSE(empty->tls);
}

TEST(WebConfig, RefusesWhatItCannotHonourNamingFileAndLine) {
  const std::pair<std::string, const char*> bad[] = {
      {"basic_auth_users:\n  alice: secret-in-clear\n", "web.yml:2: the password hash of user 'alice'"},
      {"basic_auth_users:\n  alice:\n", "web.yml:2: a nested mapping"},
      {std::string("basic_auth_users:\n  alice: ") + kHash + "\n  alice: " + kHash + "\n",
       "web.yml:3: 'alice' appears twice"},
      {"tls_server_config:\n  cert_file: a.crt\n", "web.yml:1: tls_server_config needs both cert_file and key_file"},
      {"tls_server_config:\n  cert_file: a\n  key_file: b\n  cipher_suites:\n    - TLS_AES_128_GCM_SHA256\n",
       "web.yml:5: a list"},
      {"tls_server_config:\n  cert_file: a\n  key_file: b\n  max_version: TLS12\n",
       "web.yml:4: tls_server_config.max_version is not supported"},
      {"tls_server_config:\n  cert_file: a\n  key_file: b\n  min_version: SSL3\n", "web.yml:1: min_version 'SSL3'"},
      {"tls_server_config:\n  cert_file: a\n  key_file: b\n  client_auth_type: RequireAndVerifyClientCert\n",
       "needs client_ca_file"},
      {"tls_server_config:\n  cert_file: a\n  key_file: b\n  client_ca_file: ca.pem\n", "verifies no client"},
      {"http_server_config:\n  http2: false\n", "web.yml:1: http_server_config is not supported"},
      {"basic_auth_user:\n", "web.yml:1: no setting 'basic_auth_user'"},
      {"basic_auth_users:\n\talice: x\n", "web.yml:2: a tab"},
      {"basic_auth_users:\n  alice: \"unclosed\n", "web.yml:2: a \" quote is not closed"},
      {"basic_auth_users:\n  - alice\n", "web.yml:2: a list"},
      {"basic_auth_users: [alice]\n", "web.yml:1: '[' begins YAML"},
      {"  basic_auth_users:\n", "web.yml:1: indented"},
      {"tls_server_config:\n  cert_file: a\n   key_file: b\n", "web.yml:3: indented unlike"},
      {"basic_auth_users:\nbasic_auth_users:\n", "web.yml:2: 'basic_auth_users' appears twice"},
      {"basic_auth_users: alice\n", "web.yml:1: basic_auth_users takes a mapping"},
  };
  for (const auto& [text, why] : bad) {
    std::string error;
    EXPECT_FALSE(framework::ParseWebConfig(text, "web.yml", &error)) << text;
    EXPECT_THAT(error, HasSubstr(why)) << text;
  }
  std::string error;
  EXPECT_FALSE(framework::ReadWebConfig("/nonexistent/web.yml", &error));
  EXPECT_THAT(error, HasSubstr("cannot read the web configuration /nonexistent/web.yml"));
}

}  // namespace
