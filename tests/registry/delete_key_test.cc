// Deleting keys: missing keys, subkeys left over, and an object whose own
// key is deleted under it.
#include <gtest/gtest.h>

#include <string>

#include "tests/registry/registry_fixture.h"

namespace {

using kzq_test::RegistryTest;

class DeleteKeyTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    MakeKeys({"tree\\left\\leaf", "tree\\right", "single"});
    ASSERT_EQ(CRegistry::kOk, OpenWritable(r_, ""));
  }
  bool Exists(const std::string& sub) { return r_.KeyExists(Path(sub).c_str()) == 1; }
  CRegistry r_;
};

TEST_F(DeleteKeyTest, RelativeKeyWithoutSubkeysGoes) {
  EXPECT_EQ(CRegistry::kOk, r_.DeleteKey("SINGLE", false));
  EXPECT_EQ("RegDeleteKey", LastApi(r_));
  EXPECT_FALSE(Exists("single"));
  EXPECT_EQ(base_, CurrentPath(r_));
}

TEST_F(DeleteKeyTest, MissingKeyGives6AndAnEmptyPathIsRefused) {
  EXPECT_EQ(CRegistry::kKeyNotFound, r_.DeleteKey("nothing", true));
  EXPECT_EQ(CRegistry::kKeyNotFound, r_.DeleteKey(("\\" + Path("nothing")).c_str(), true));
  EXPECT_EQ(CRegistry::kNotAllowed, r_.DeleteKey("", true));
}

TEST_F(DeleteKeyTest, SubkeysWithoutRecursionGive17AndNothingGoes) {
  EXPECT_EQ(CRegistry::kSubkeysRemain, r_.DeleteKey("tree", false));
  EXPECT_TRUE(Exists("tree\\left\\leaf"));
  EXPECT_TRUE(Exists("tree\\right"));
}

TEST_F(DeleteKeyTest, RecursiveDeletesTheWholeTree) {
  EXPECT_EQ(CRegistry::kOk, r_.DeleteKey(("\\" + Path("tree")).c_str(), true));
  EXPECT_FALSE(Exists("tree"));
  EXPECT_TRUE(Exists("single"));
}

TEST_F(DeleteKeyTest, OwnKeyDeletedMovesToTheParentWith18) {
  CRegistry inside;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(inside, "tree\\left"));
  EXPECT_EQ(CRegistry::kMovedToParent, inside.DeleteKey(("\\" + Path("tree\\left")).c_str(), true));
  EXPECT_EQ(Path("tree"), CurrentPath(inside));
  EXPECT_FALSE(Exists("tree\\left"));
  EXPECT_TRUE(Exists("tree\\right"));
  EXPECT_EQ(CRegistry::kOk, inside.PutValue("still", "usable"));
}

TEST_F(DeleteKeyTest, KeyAboveTheOwnKeyDeletedMovesToItsParent) {
  CRegistry inside;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(inside, "tree\\left\\leaf"));
  EXPECT_EQ(CRegistry::kMovedToParent, inside.DeleteKey(("\\" + Path("TREE")).c_str(), true));
  EXPECT_EQ(base_, CurrentPath(inside));
  EXPECT_FALSE(Exists("tree"));
}

TEST_F(DeleteKeyTest, SiblingWithASharedPrefixIsNotTheOwnKey) {
  MakeKeys({"tree2"});
  CRegistry inside;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(inside, "tree2"));
  EXPECT_EQ(CRegistry::kOk, inside.DeleteKey(("\\" + Path("tree")).c_str(), true));
  EXPECT_EQ(Path("tree2"), CurrentPath(inside));
}

}  // namespace
