#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kzq/registry_environment.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "registry/registry_position.h"
#include "tests/support/temp_dir.h"

namespace {

// Keys below HKEY_LOCAL_MACHINE\SOFTWARE\Orvane\kzqtest<pid>: the real
// registry under Wine, a file-backed store in a temporary root natively.
class RegistryImport : public testing::Test {
 protected:
  void SetUp() override {
    platform::SetEnv("KZQ_REGISTRY_ROOT", root_.Path());
    top_ = std::string(kzq::kMakerRoot) + "\\kzqtest" + std::to_string(platform::CurrentProcessId());
    for (const char* name : {"KZQ_RE_A", "KZQ_RE_B", "KZQ_RE_X", "KZQ_RE_D", "KZQ_RE_ROOT", "KZQ_RE_TOP"})
      platform::SetEnv(name, "");
  }
  void TearDown() override {
    CRegistry cleaner;
    cleaner.Attributes(platform::kKeyAllAccess, 0, nullptr, nullptr);
    if (cleaner.Open(nullptr, platform::kLocalMachine, nullptr, false) == 0)
      cleaner.DeleteKey(("\\" + top_).c_str(), true);
    Put(std::string(kzq::kMakerRoot) + "\\Environment", nullptr, nullptr);
  }

  // Creates `key` and, when `name` is given, a REG_SZ value in it; with a
  // null name, removes the root's test value instead.
  void Put(const std::string& key, const char* name, const char* text, uint32_t type = 1) {
    CRegistry r;
    r.Attributes(platform::kKeyAllAccess, 0, nullptr, nullptr);
    ASSERT_EQ(r.Open(nullptr, platform::kLocalMachine, key.c_str(), true), 0u) << key;
    if (name == nullptr) {
      r.DeleteValue("KZQ_RE_ROOT");
      return;
    }
    ASSERT_EQ(r.PutValue(name, text, type, static_cast<uint32_t>(strlen(text) + 1)), 0u) << name;
  }

  kzq_test::TempDir root_;
  std::string top_;
};

std::string Env(const char* name) { return platform::GetEnv(name).value_or("<unset>"); }

TEST_F(RegistryImport, WalksFromTheKeyUpToTheMakersRoot) {
  const std::string key = top_ + "\\inst\\SQL1";
  platform::SetEnv("KZQ_RE_BASE", "C:\\kzq");
  Put(key + "\\Environment", "KZQ_RE_A", "specific");
  Put(key + "\\Environment", "KZQ_RE_X", "%KZQ_RE_BASE%\\bin", 2);
  const uint32_t dword = 7;
  {
    CRegistry r;
    r.Attributes(platform::kKeyAllAccess, 0, nullptr, nullptr);
    ASSERT_EQ(r.Open(nullptr, platform::kLocalMachine, (key + "\\Environment").c_str(), false), 0u);
    ASSERT_EQ(r.PutValue("KZQ_RE_D", &dword, 4, sizeof dword), 0u);
  }
  Put(top_ + "\\inst\\Environment", "KZQ_RE_A", "ancestor");
  Put(top_ + "\\inst\\Environment", "KZQ_RE_B", "b");
  Put(std::string(kzq::kMakerRoot) + "\\Environment", "KZQ_RE_ROOT", "root");

  kzq::ImportRegistryEnvironment(key.c_str());
  EXPECT_EQ(Env("KZQ_RE_A"), "ancestor");  // put after the specific one, so it wins
  EXPECT_EQ(Env("KZQ_RE_B"), "b");
  EXPECT_EQ(Env("KZQ_RE_X"), "C:\\kzq\\bin");
  EXPECT_EQ(Env("KZQ_RE_D"), "<unset>");     // not a text value
  EXPECT_EQ(Env("KZQ_RE_ROOT"), "<unset>");  // the root's own values are not read
}

// A value longer than the enumeration's buffer (2048) is read whole, and the
// values after it are still read: an agent once fell back to its default
// port because a long value came before KZQ_HTTP_LISTEN.
TEST_F(RegistryImport, ALongValueIsReadWholeAndTheRestStillRead) {
  const std::string key = top_ + "\\long\\Environment";
  const std::string long_text(5000, 'x');
  Put(key, "KZQ_RE_A", long_text.c_str());
  Put(key, "KZQ_RE_B", "after");
  kzq::ImportRegistryEnvironment((top_ + "\\long").c_str());
  EXPECT_EQ(Env("KZQ_RE_A"), long_text);
  EXPECT_EQ(Env("KZQ_RE_B"), "after");
}

TEST_F(RegistryImport, AMissingKeyImportsNothingAndTheWalkStopsAfterOneHundredLevels) {
  Put(top_ + "\\Environment", "KZQ_RE_TOP", "top");
  kzq::ImportRegistryEnvironment((top_ + "\\nope").c_str());
  EXPECT_EQ(Env("KZQ_RE_TOP"), "<unset>");
  std::string deep = top_;
  for (int i = 0; i < 101; ++i) deep += "\\k";
  Put(deep, "unused", "x");
  kzq::ImportRegistryEnvironment(deep.c_str());
  EXPECT_EQ(Env("KZQ_RE_TOP"), "<unset>");
  std::string near = top_;
  for (int i = 0; i < 99; ++i) near += "\\k";
  kzq::ImportRegistryEnvironment(near.c_str());
  EXPECT_EQ(Env("KZQ_RE_TOP"), "top");
}

}  // namespace
