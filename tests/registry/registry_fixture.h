// Every registry test works below a key of its own,
// HKEY_CURRENT_USER\Software\kzqtest<pid>_<n>: in the real registry under
// Wine, and natively in a file-backed store rooted in a fresh temporary
// directory. The key is deleted afterwards.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "platform/environment.h"
#include "platform/error.h"
#include "platform/process.h"
#include "platform/registry_store.h"
#include "registry/registry_position.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {

class RegistryTest : public testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> sequence{0};
    platform::SetEnv("KZQ_REGISTRY_ROOT", root_.Path());
    base_ = "Software\\kzqtest" + std::to_string(platform::CurrentProcessId()) + "_" +
            std::to_string(sequence++);
    CRegistry maker;
    ASSERT_EQ(0u, OpenWritable(maker, "", true));
  }

  void TearDown() override {
    CRegistry cleaner;
    cleaner.Attributes(platform::kKeyAllAccess, 0, nullptr, nullptr);
    if (cleaner.Open(nullptr, platform::kCurrentUser, nullptr, false) == 0)
      cleaner.DeleteKey(("\\" + base_).c_str(), true);
  }

  // Opens `r` with full access at `sub` below the test key ("" for the key
  // itself).
  uint32_t OpenWritable(CRegistry& r, const std::string& sub, bool create = false) {
    r.Attributes(platform::kKeyAllAccess, 0, nullptr, nullptr);
    return r.Open(nullptr, platform::kCurrentUser, Path(sub).c_str(), create);
  }

  // Opens `r` with the default access (KEY_READ) at `sub`.
  uint32_t OpenReadOnly(CRegistry& r, const std::string& sub) {
    return r.Open(nullptr, platform::kCurrentUser, Path(sub).c_str(), false);
  }

  // The path of `sub` below the hive: "Software\kzqtest1_0\sub".
  std::string Path(const std::string& sub) const {
    return sub.empty() ? base_ : base_ + "\\" + sub;
  }

  // Creates the keys named (each a path below the test key).
  void MakeKeys(std::initializer_list<const char*> subs) {
    for (const char* sub : subs) {
      CRegistry maker;
      ASSERT_EQ(0u, OpenWritable(maker, sub, true)) << sub;
    }
  }

  static std::string CurrentPath(CRegistry& r) {
    char path[CRegistry::kPathSize];
    r.Status(nullptr, nullptr, 0, path, sizeof path, nullptr, 0, nullptr, nullptr, 0);
    return path;
  }

  // The text value `name` holds, or "<missing>" when it cannot be read.
  static std::string Text(CRegistry& r, const char* name) {
    char text[256] = {};
    uint32_t size = sizeof text;
    return r.GetValue(name, text, nullptr, &size) == CRegistry::kOk ? text : "<missing>";
  }

  static std::string LastApi(CRegistry& r) {
    char api[CRegistry::kNameSize];
    r.QueryError(api);
    return api;
  }

  TempDir root_;
  std::string base_;
};

}  // namespace kzq_test
