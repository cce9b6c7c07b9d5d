#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvc/shared_memory_exchange.h"

namespace {

TEST(ThreadChannel, RequestsAndAnswersPassInOrder) {
  kvc::KVCThreadCommObject channel;
  std::string first, second;
  ASSERT_EQ(channel.SendRequest("KZQDBD", {"DBNAME"}, &first, "SPID=7", 5), 0);
  ASSERT_EQ(channel.SendRequest("KZQSQL", {}, &second, nullptr, 5), 0);
  EXPECT_NE(first, second);

  std::string name, unique, statement;
  std::vector<std::string> attributes;
  ASSERT_EQ(channel.GetRequest(&name, &unique, &attributes, &statement, 5), 0);
  EXPECT_EQ(name, "KZQDBD");
  EXPECT_EQ(unique, first);
  EXPECT_EQ(attributes, std::vector<std::string>{"DBNAME"});
  EXPECT_EQ(statement, "SPID=7");
  ASSERT_EQ(channel.GetRequest(&name, &unique, &attributes, &statement, 5), 0);
  EXPECT_EQ(unique, second);
  EXPECT_EQ(channel.GetRequest(&name, &unique, &attributes, &statement, 5), kvc::kCommFailed);
  EXPECT_EQ(unique, "");

  ASSERT_EQ(channel.SendData(first.c_str(), 2, 3, "abcdef", 5), 0);
  ASSERT_EQ(channel.SendData(second.c_str(), 0, 3, nullptr, 5), 0);
  int32_t rows = 0, length = 0;
  std::string bytes;
  ASSERT_EQ(channel.GetData(first.c_str(), &unique, &rows, &length, &bytes, 5), 0);
  EXPECT_EQ(bytes, "abcdef");
  ASSERT_EQ(channel.GetData(second.c_str(), &unique, &rows, &length, &bytes, 5), 0);
  EXPECT_EQ(unique, second);
  EXPECT_EQ(bytes, "NONE");
  EXPECT_EQ(channel.GetData(second.c_str(), &unique, &rows, &length, &bytes, 5), kvc::kCommTimeout);
}

}  // namespace
