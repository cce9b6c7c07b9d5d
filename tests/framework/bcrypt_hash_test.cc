// bcrypt against the published test vectors of its reference
// implementation (cost 5, so they run fast), and the hashes it refuses.
#include "framework/serve/bcrypt_hash.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

const std::pair<const char*, std::string> kVectors[] = {
    {"$2a$05$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW", "U*U"},
    {"$2a$05$CCCCCCCCCCCCCCCCCCCCC.VGOzA784oUp/Z0DY336zx7pLYAy0lwK", "U*U*"},
    {"$2a$05$XXXXXXXXXXXXXXXXXXXXXOAcXxm9kjPGEMsLznoKqmqw7tc8WCx4a", "U*U*U"},
    {"$2a$05$abcdefghijklmnopqrstuu5s2v8.iXieOjg/.AySBTTZIIVFJeBui",
     "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789chars after 72 are ignored"},
    {"$2a$05$CCCCCCCCCCCCCCCCCCCCC.7uG0VCzI2bS7j6ymqJi9CdcdxiRTWNy", ""},
    // Bytes above 127 are unsigned: the old sign-extension fault would
    // hash these differently.
    {"$2y$05$/OK.fbVrR/bpIqNJ5ianF.Sa7shbm4.OzKpvFnX1pQLmQW96oUlCq", "\xa3"},
    {"$2b$05$/OK.fbVrR/bpIqNJ5ianF.CE5elHaaO4EbggVDjb8P19RukzXSM3e", "\xff\xff\xa3"},
    {"$2y$05$/OK.fbVrR/bpIqNJ5ianF.nRht2l/HRhr6zmCp9vYUvvsqynflf9e", "\xff\xa3" "345"},
};

TEST(BcryptHash, MakesAndMatchesThePublishedVectors) {
  for (const auto& [hash, password] : kVectors) {
    EXPECT_EQ(framework::BcryptHash(password, hash), hash) << password;
    EXPECT_FALSE(framework::BcryptMatches("x" + password, hash)) << password;
  }
  EXPECT_TRUE(framework::BcryptMatches(kVectors[6].second, kVectors[6].first));
  // Only the first 72 bytes count.
  const std::string long_password = kVectors[3].second.substr(0, 72);
  EXPECT_TRUE(framework::BcryptMatches(long_password + "anything", kVectors[3].first));
  EXPECT_FALSE(framework::BcryptMatches(long_password.substr(0, 71), kVectors[3].first));
}

TEST(BcryptHash, RefusesWhatIsNoBcryptHashAndSaysWhy) {
  const std::string good = kVectors[0].first;
  const std::pair<std::string, const char*> bad[] = {
      {"", "shorter"},
      {"$1$05$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW", "$2a$, $2b$ or $2y$"},
      {"$2x$05$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW", "$2a$, $2b$ or $2y$"},
      {"$2a$5$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW", "two-digit cost"},
      {"$2a$03$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW", "cost 3"},
      {"$2a$32$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW", "cost 32"},
      {"$2a$05$CCCCCCCCCCCCCCCCCCCC!.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW", "salt"},
      {good.substr(0, 59), "60 characters"},
      {good + "W", "60 characters"},
      {good.substr(0, 59) + "=", "60 characters"},
  };
  for (const auto& [hash, why] : bad) {
    std::string reason;
    EXPECT_FALSE(framework::IsBcryptHash(hash, &reason)) << hash;
    EXPECT_NE(reason.find(why), std::string::npos) << hash << ": " << reason;
    EXPECT_FALSE(framework::BcryptMatches("U*U", hash)) << hash;
  }
  std::string reason;
  EXPECT_TRUE(framework::IsBcryptHash(good, &reason)) << reason;
}

}  // namespace
