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

TEST_F(DeleteKeyTest, RelativeKeyWithoutSubkeysGoesMissingGives6EmptyIsRefused) {
  EXPECT_EQ(CRegistry::kOk, r_.DeleteKey("SINGLE", false));
  EXPECT_EQ("RegDeleteKey", LastApi(r_));
  EXPECT_FALSE(Exists("single"));
  EXPECT_EQ(base_, CurrentPath(r_));
  EXPECT_EQ(CRegistry::kKeyNotFound, r_.DeleteKey("nothing", true));
  EXPECT_EQ(CRegistry::kKeyNotFound, r_.DeleteKey(("\\" + Path("nothing")).c_str(), true));
  EXPECT_EQ(CRegistry::kNotAllowed, r_.DeleteKey("", true));
}

TEST_F(DeleteKeyTest, SubkeysWithoutRecursionGive17AndNothingGoesWithRecursionAllGoes) {
  EXPECT_EQ(CRegistry::kSubkeysRemain, r_.DeleteKey("tree", false));
  EXPECT_TRUE(Exists("tree\\left\\leaf"));
  EXPECT_TRUE(Exists("tree\\right"));
  EXPECT_EQ(CRegistry::kOk, r_.DeleteKey(("\\" + Path("tree")).c_str(), true));
  EXPECT_FALSE(Exists("tree"));
  EXPECT_TRUE(Exists("single"));
}

TEST_F(DeleteKeyTest, OwnKeyOrOneAboveDeletedMovesToTheParentWith18) {
  CRegistry inside;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(inside, "tree\\left"));
  EXPECT_EQ(CRegistry::kMovedToParent, inside.DeleteKey(("\\" + Path("tree\\left")).c_str(), true));
  EXPECT_EQ(Path("tree"), CurrentPath(inside));
  EXPECT_FALSE(Exists("tree\\left"));
  EXPECT_TRUE(Exists("tree\\right"));
  EXPECT_EQ(CRegistry::kOk, inside.PutValue("still", "usable"));
  // A key above the own key deleted: the object moves to that key's parent.
  CRegistry deeper;
  MakeKeys({"tree\\left\\leaf"});
  ASSERT_EQ(CRegistry::kOk, OpenWritable(deeper, "tree\\left\\leaf"));
  EXPECT_EQ(CRegistry::kMovedToParent, deeper.DeleteKey(("\\" + Path("TREE")).c_str(), true));
  EXPECT_EQ(base_, CurrentPath(deeper));
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
