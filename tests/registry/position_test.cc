// Opening, moving, closing and copying: the position an object holds and
// the codes it gives for each misuse.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/registry/registry_fixture.h"

namespace {

using kzq_test::RegistryTest;
using platform::kCurrentUser;

using OpenTest = RegistryTest;

TEST_F(OpenTest, OpensOrCreatesAtThePathAndRefusesASecondOpen) {
  CRegistry r(nullptr, kCurrentUser, base_.c_str());
  uint32_t open = 0;
  r.Status(&open, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, nullptr, 0);
  EXPECT_EQ(1u, open) << "the constructor opens when given a hive";
  EXPECT_EQ(base_, CurrentPath(r));
  EXPECT_EQ(CRegistry::kAlreadyOpen, r.Open(nullptr, kCurrentUser, nullptr, false));
  EXPECT_EQ(base_, CurrentPath(r)) << "a refused Open leaves the position alone";
  CRegistry created;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(created, "a\\b\\c", true));
  EXPECT_EQ(platform::kCreatedNewKey, created.Disposition()) << "create makes the whole path";
  EXPECT_EQ("RegCreateKeyEx", LastApi(created));
  CRegistry again;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(again, "A\\B\\C", true));
  EXPECT_EQ(platform::kOpenedExistingKey, again.Disposition()) << "names ignore case";
}

TEST_F(OpenTest, NullHiveMeansLocalMachineAndAMissingPathLeavesTheObjectOpenAtTheRoot) {
  CRegistry local;
  ASSERT_EQ(CRegistry::kOk, local.Open(nullptr, {}, nullptr, false));
  EXPECT_EQ("", CurrentPath(local));
  EXPECT_EQ("RegOpenKeyEx", LastApi(local));
  CRegistry r;
  EXPECT_EQ(CRegistry::kApiFailed, OpenReadOnly(r, "absent"));
  EXPECT_EQ(platform::kErrFileNotFound, r.QueryError(nullptr));
  EXPECT_EQ("RegOpenKeyEx", LastApi(r));
  EXPECT_EQ("", CurrentPath(r));
  EXPECT_EQ(CRegistry::kOk, r.Position(base_.c_str(), false)) << "still usable";
}

TEST_F(OpenTest, RemoteMachineThatCannotBeReachedGives8AndForgetsTheName) {
  CRegistry r;
  EXPECT_EQ(CRegistry::kApiFailed, r.Open("kzq-no-such-host", {}, nullptr, false));
  EXPECT_EQ("RegConnectRegistry", LastApi(r));
  EXPECT_NE(0, r.QueryError(nullptr));
  char machine[CRegistry::kMachineSize] = "x";
  uint32_t open = 1;
  r.Status(&open, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, machine, sizeof machine);
  EXPECT_EQ(0u, open);
  EXPECT_STREQ("", machine);
}

// These never reach the store, so they need no test key (a death test's
// child would leave its key behind).
#ifdef NDEBUG
TEST(OpenHive, HivesOutsideTheAllowedSetGive5) {
  CRegistry local;
  EXPECT_EQ(CRegistry::kNotAllowed,
            local.Open(nullptr, platform::HiveKey(0x80000005), nullptr, false));
  CRegistry remote;
  EXPECT_EQ(CRegistry::kNotAllowed, remote.Open("elsewhere", kCurrentUser, nullptr, false));
}
#else
TEST(OpenHive, HivesOutsideTheAllowedSetFailTheAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CRegistry local;
  EXPECT_DEATH(local.Open(nullptr, platform::HiveKey(0x80000005), nullptr, false),
               "hKey==HKEY_CLASSES_ROOT");
  CRegistry remote;
  EXPECT_DEATH(remote.Open("elsewhere", kCurrentUser, nullptr, false),
               "hKey==HKEY_USERS.*hKey==HKEY_LOCAL_MACHINE");
}
#endif

class PositionTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    MakeKeys({"one\\two\\three", "other"});
  }
};

TEST_F(PositionTest, MovesRelativeAbsoluteAndUp) {
  const struct {
    const char* open_at;
    std::vector<std::string> steps;
    std::string expected;
  } cases[] = {
      {"", {"one", "TWO\\three"}, base_ + "\\one\\TWO\\three"},  // the path as given is kept
      {"one\\two", {"\\" + Path("other")}, Path("other")},
      {"one\\two\\three", {".."}, Path("one\\two")},
  };
  for (const auto& c : cases) {
    CRegistry r;
    ASSERT_EQ(CRegistry::kOk, OpenReadOnly(r, c.open_at)) << c.open_at;
    for (const std::string& step : c.steps) ASSERT_EQ(CRegistry::kOk, r.Position(step.c_str(), false)) << step;
    EXPECT_EQ(c.expected, CurrentPath(r)) << "from " << c.open_at;
  }
}

TEST_F(PositionTest, DotDotOneLevelBelowTheRootYieldsTheRoot) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, r.Open(nullptr, kCurrentUser, "Software", false));
  ASSERT_EQ(CRegistry::kOk, r.Position("..", false));
  EXPECT_EQ("", CurrentPath(r));
  EXPECT_EQ(CRegistry::kOk, r.Position(base_.c_str(), false)) << "relative to the root again";
  EXPECT_EQ(base_, CurrentPath(r));
}

TEST_F(PositionTest, FailureKeepsThePositionAndReportsTheCallAndAnEmptyPathIsRefused) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(r, "one"));
  EXPECT_EQ(CRegistry::kApiFailed, r.Position("missing", false));
  EXPECT_EQ(Path("one"), CurrentPath(r));
  EXPECT_EQ(platform::kErrFileNotFound, r.QueryError(nullptr));
  EXPECT_EQ(CRegistry::kOk, r.Position("two", false)) << "the current key is still open";
  EXPECT_EQ(CRegistry::kNotAllowed, r.Position("", false));
  EXPECT_EQ(CRegistry::kNotAllowed, r.Position(nullptr, false));
}

// Wine's ANSI calls refuse paths past 255 characters, so keys this deep are
// reached, and taken down, a step at a time.
void DeleteChain(const std::string& top, const std::vector<std::string>& names) {
  std::vector<platform::RegistryKey> parents(1);
  platform::OpenRegistryKey(kCurrentUser, top.c_str(), platform::kKeyAllAccess, &parents[0]);
  for (size_t i = 0; i + 1 < names.size(); ++i) {
    platform::RegistryKey key;
    platform::OpenRegistryKey(parents.back(), names[i].c_str(), platform::kKeyAllAccess, &key);
    parents.push_back(key);
  }
  for (size_t i = names.size(); i-- > 0;) {
    platform::DeleteRegistryKey(parents[i], names[i].c_str());
    platform::CloseRegistryKey(parents[i]);
  }
}

TEST_F(PositionTest, RecordedPathIsCutAt1023CharactersButTheKeyIsReached) {
  std::vector<std::string> names;
  for (char c = 'a'; c < 'f'; ++c) names.emplace_back(200, c);
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(r, ""));
  std::string full = base_;
  for (const std::string& name : names) {
    ASSERT_EQ(CRegistry::kOk, r.Position(name.c_str(), true));
    full += "\\" + name;
  }
  EXPECT_EQ(CRegistry::kOk, r.PutValue("deep", "yes"));
  ASSERT_GT(full.size(), 1023u);
  EXPECT_EQ(full.substr(0, 1023), CurrentPath(r));
  CRegistry check;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(check, ""));
  for (const std::string& name : names)
    ASSERT_EQ(CRegistry::kOk, check.Position(name.c_str(), false));
  EXPECT_EQ("yes", Text(check, "deep"));
  r.Close();
  check.Close();
  DeleteChain(base_, names);
}

TEST_F(PositionTest, KeyExistsLooksFromTheRootWithoutCreating) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(r, "one"));
  EXPECT_EQ(1u, r.KeyExists(Path("one\\two").c_str()));
  EXPECT_EQ(1u, r.KeyExists(("\\" + Path("ONE")).c_str()));
  EXPECT_EQ(0u, r.KeyExists("two")) << "relative paths start at the root";
  EXPECT_EQ(0u, r.KeyExists(Path("nothing").c_str()));
  EXPECT_EQ(0u, r.KeyExists(Path("nothing").c_str())) << "and it did not create it";
  EXPECT_EQ(Path("one"), CurrentPath(r));
}

TEST(UpKeyAbsolute, DropsTheLastComponentAndLeadsWithABackslash) {
  const std::pair<const char*, const char*> cases[] = {{"A\\B\\C", "\\A\\B"}, {"A", "\\"}, {"", "\\"}};
  for (const auto& [given, expected] : cases) {
    CRegistry r;
    char path[32];
    strcpy(path, given);
    r.UpKeyAbsolute(path);
    EXPECT_STREQ(expected, path) << "from \"" << given << "\"";
  }
}

using CloseTest = RegistryTest;

TEST_F(CloseTest, ClosesOnceAndGives2AfterwardsAndACopyOfAClosedOneCannotOpenWith15) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(r, ""));
  EXPECT_EQ(CRegistry::kOk, r.Close());
  EXPECT_EQ("RegCloseKey", LastApi(r));
  EXPECT_EQ("", CurrentPath(r));
  EXPECT_EQ(CRegistry::kCloseNotOpen, r.Close());
  r.Init(true);
  EXPECT_EQ("", LastApi(r)) << "Init(true) forgets the last call";
  EXPECT_EQ(CRegistry::kOk, OpenReadOnly(r, "")) << "a closed object opens again";
  CRegistry closed;
  CRegistry copy(closed);
  EXPECT_EQ(CRegistry::kOpenOnCopy, copy.Open(nullptr, kCurrentUser, nullptr, false));
  CRegistry assigned;
  assigned = closed;
  EXPECT_EQ(CRegistry::kOpenOnCopy, assigned.Open(nullptr, kCurrentUser, nullptr, false));
}

TEST_F(CloseTest, CopyAndAssignmentShareTheHandlesAndNeverCloseThem) {
  MakeKeys({"elsewhere"});
  CRegistry original;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(original, ""));
  {
    CRegistry copy(original);
    EXPECT_EQ(base_, CurrentPath(copy));
    EXPECT_EQ(CRegistry::kOk, copy.PutValue("fromCopy", "1"));
    // Moving away must not close the key the original stands on.
    ASSERT_EQ(CRegistry::kOk, copy.Position("elsewhere", false));
    EXPECT_EQ(CRegistry::kOk, copy.Close());
  }  // the copy's destructor closes nothing either
  EXPECT_EQ("1", Text(original, "fromCopy"));
  // Assignment closes the target's own keys and shares the source's.
  CRegistry target;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(target, "elsewhere"));
  target = original;
  EXPECT_EQ(base_, CurrentPath(target));
  EXPECT_EQ(CRegistry::kOk, target.PutValue("viaCopy", "1")) << "the source's access came too";
  EXPECT_EQ(CRegistry::kOk, target.Close());
  EXPECT_EQ("1", Text(original, "viaCopy"));
}

TEST_F(CloseTest, CopyStartsWithoutTheOriginalsEnumeration) {
  MakeKeys({"k1", "k2"});
  CRegistry original;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(original, ""));
  char name[64];
  uint32_t size = sizeof name;
  ASSERT_EQ(CRegistry::kOk,
            original.EnumKeys(name, &size, nullptr, nullptr, nullptr, nullptr, false));
  CRegistry copy(original);
  size = sizeof name;
  EXPECT_EQ(CRegistry::kEnumFinished,
            copy.EnumVals(name, &size, nullptr, nullptr, nullptr, nullptr, false))
      << "10 if the copy had kept the key enumeration";
  size = sizeof name;
  EXPECT_EQ(CRegistry::kOtherEnumActive,
            original.EnumVals(name, &size, nullptr, nullptr, nullptr, nullptr, false));
}

}  // namespace
