// Enumerating values and subkeys, forwards and from the end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/registry/registry_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kzq_test::RegistryTest;
using testing::ElementsAre;
using testing::HasSubstr;

class EnumTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    ASSERT_EQ(CRegistry::kOk, OpenWritable(r_, ""));
  }

  // Names and indexes of the enumeration until it ends; stops at the first
  // result other than 0 and keeps it in last_.
  template <typename Next>
  std::vector<std::string> Names(Next next, std::vector<uint32_t>* indexes) {
    std::vector<std::string> names;
    for (;;) {
      char name[64];
      uint32_t size = sizeof name, index = 0;
      last_ = next(name, &size, &index);
      if (last_ != CRegistry::kOk) return names;
      names.push_back(name);
      if (indexes) indexes->push_back(index);
    }
  }
  std::vector<std::string> Values(bool from_end, std::vector<uint32_t>* indexes = nullptr) {
    return Names([&](char* name, uint32_t* size, uint32_t* index) {
      return r_.EnumVals(name, size, nullptr, nullptr, nullptr, index, from_end);
    }, indexes);
  }
  std::vector<std::string> Keys(bool from_end, std::vector<uint32_t>* indexes = nullptr) {
    return Names([&](char* name, uint32_t* size, uint32_t* index) {
      return r_.EnumKeys(name, size, nullptr, nullptr, nullptr, index, from_end);
    }, indexes);
  }

  CRegistry r_;
  uint32_t last_ = 0;
};

TEST_F(EnumTest, ValuesComeInTheKeysOrderWithTheirDataAndFromTheEndNotAtAll) {
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("alpha", "1"));
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("beta", "22"));
  char name[16], data[16];
  uint32_t name_size = sizeof name, data_size = sizeof data, type = 0, index = 9;
  ASSERT_EQ(CRegistry::kOk, r_.EnumVals(name, &name_size, data, &data_size, &type, &index, false));
  EXPECT_STREQ("alpha", name);
  EXPECT_EQ(5u, name_size);
  EXPECT_STREQ("1", data);
  EXPECT_EQ(2u, data_size);
  EXPECT_EQ(platform::kRegExpandSz, type);
  EXPECT_EQ(0u, index);
  std::vector<uint32_t> indexes;
  EXPECT_THAT(Values(false, &indexes), ElementsAre("beta"));
  EXPECT_THAT(indexes, ElementsAre(1u));
  EXPECT_EQ(CRegistry::kEnumFinished, last_);
  EXPECT_THAT(Values(false), ElementsAre("alpha", "beta")) << "9 reset the enumeration";
  // From the end, values start past the last one and end at once.
  EXPECT_THAT(Values(true), ElementsAre());
  EXPECT_EQ(CRegistry::kEnumFinished, last_);
  EXPECT_THAT(Values(false), ElementsAre("alpha", "beta")) << "and the direction is reset";
  EXPECT_THAT(Keys(true), ElementsAre()) << "no subkeys from the end ends at once too";
  EXPECT_EQ(CRegistry::kEnumFinished, last_);
}

#ifndef _WIN32
// Wine orders values by name; Windows and the file store keep the order in
// which they were first written.
TEST_F(EnumTest, ValuesKeepTheOrderTheyWereFirstWritten) {
  for (const char* name : {"zulu", "alpha", "Mike"}) ASSERT_EQ(CRegistry::kOk, r_.PutValue(name, "x"));
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("ZULU", "rewritten"));
  EXPECT_THAT(Values(false), ElementsAre("zulu", "alpha", "Mike"));
}
#endif

TEST_F(EnumTest, SubkeysForwardsAndBackwardsInNameOrderAsTheFirstCallChose) {
  MakeKeys({"Charlie", "alpha", "Bravo"});
  std::vector<uint32_t> indexes;
  EXPECT_THAT(Keys(false, &indexes), ElementsAre("alpha", "Bravo", "Charlie"));
  EXPECT_THAT(indexes, ElementsAre(0u, 1u, 2u));
  EXPECT_EQ(CRegistry::kEnumFinished, last_);
  indexes.clear();
  EXPECT_THAT(Keys(true, &indexes), ElementsAre("Charlie", "Bravo", "alpha"));
  EXPECT_THAT(indexes, ElementsAre(2u, 1u, 0u));
  EXPECT_EQ(CRegistry::kEnumFinished, last_);
  // The direction is chosen by the first call of an enumeration only.
  char name[8];
  uint32_t size = sizeof name;
  ASSERT_EQ(CRegistry::kOk, r_.EnumKeys(name, &size, nullptr, nullptr, nullptr, nullptr, true));
  EXPECT_STREQ("Charlie", name);
  size = sizeof name;
  ASSERT_EQ(CRegistry::kOk, r_.EnumKeys(name, &size, nullptr, nullptr, nullptr, nullptr, false));
  EXPECT_STREQ("Bravo", name);
}

TEST_F(EnumTest, OtherKindInProgressGives10) {
  MakeKeys({"a", "b"});
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("v", "1"));
  char name[8];
  uint32_t size = sizeof name;
  ASSERT_EQ(CRegistry::kOk, r_.EnumKeys(name, &size, nullptr, nullptr, nullptr, nullptr, false));
  size = sizeof name;
  EXPECT_EQ(CRegistry::kOtherEnumActive,
            r_.EnumVals(name, &size, nullptr, nullptr, nullptr, nullptr, false));
  EXPECT_THAT(Keys(false), ElementsAre("b")) << "the key enumeration went on";
  EXPECT_THAT(Values(false), ElementsAre("v"));
  size = sizeof name;
  ASSERT_EQ(CRegistry::kOk, r_.EnumVals(name, &size, nullptr, nullptr, nullptr, nullptr, false));
  size = sizeof name;
  EXPECT_EQ(CRegistry::kOtherEnumActive,
            r_.EnumKeys(name, &size, nullptr, nullptr, nullptr, nullptr, false));
}

TEST_F(EnumTest, BuffersWithoutSizesAreRefusedAndOthersZeroedToTheirSize) {
  char name[8], data[8];
  uint32_t size = sizeof name;
  EXPECT_EQ(CRegistry::kNoValueNameSize,
            r_.EnumVals(name, nullptr, nullptr, nullptr, nullptr, nullptr, false));
  EXPECT_EQ(CRegistry::kNoDataSize, r_.EnumVals(name, &size, data, nullptr, nullptr, nullptr, false));
  EXPECT_EQ(CRegistry::kNoKeyNameSize,
            r_.EnumKeys(name, nullptr, nullptr, nullptr, nullptr, nullptr, false));
  EXPECT_EQ(CRegistry::kNoClassSize, r_.EnumKeys(name, &size, data, nullptr, nullptr, nullptr, false));
  // Buffers with sizes are zeroed to the sizes stated.
  MakeKeys({"k"});
  char key[8], cls[8];
  memset(key, 'x', sizeof key);
  memset(cls, 'x', sizeof cls);
  uint32_t key_size = sizeof key, class_size = sizeof cls;
  ASSERT_EQ(CRegistry::kOk, r_.EnumKeys(key, &key_size, cls, &class_size, nullptr, nullptr, false));
  EXPECT_EQ(std::string("k\0\0\0\0\0\0\0", 8), std::string(key, 8));
  EXPECT_EQ(std::string(8, '\0'), std::string(cls, 8));
}

TEST_F(EnumTest, ShortDataBufferGives4TracesAndMovesOn) {
  kzq_test::LogCapture log;
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("first", "a long text"));
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("second", "b"));
  char name[16], data[4];
  uint32_t name_size = sizeof name, data_size = sizeof data, index = 9;
  EXPECT_EQ(CRegistry::kBufferTooSmall,
            r_.EnumVals(name, &name_size, data, &data_size, nullptr, &index, false));
  EXPECT_EQ(0u, index);
  EXPECT_EQ(platform::kErrMoreData, r_.QueryError(nullptr));
  EXPECT_THAT(log.Text(), HasSubstr("There is more data from registry entry but the buffer isn't "
                                    "big enough. dwEnumIndex = 0"));
  name_size = sizeof name;
  data_size = sizeof data;
  EXPECT_EQ(CRegistry::kOk, r_.EnumVals(name, &name_size, data, &data_size, nullptr, &index, false));
  EXPECT_EQ(1u, index);
  EXPECT_STREQ("second", name);
}

}  // namespace
