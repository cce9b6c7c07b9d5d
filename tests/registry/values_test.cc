// Values, and what an object tells about its last operation.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "tests/registry/registry_fixture.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

using kzq_test::RegistryTest;
using platform::kCurrentUser;

class ValueTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    ASSERT_EQ(CRegistry::kOk, OpenWritable(r_, ""));
  }
  std::string Text(const char* name) { return RegistryTest::Text(r_, name); }
  CRegistry r_;
};

TEST_F(ValueTest, TextIsStoredAsExpandSzWithItsTerminatorAndTheDefaultHasTheEmptyName) {
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("Home", "%HOME%\\kzq"));
  char text[64];
  uint32_t type = 0;
  uint32_t size = sizeof text;
  ASSERT_EQ(CRegistry::kOk, r_.GetValue("Home", text, &type, &size));
  EXPECT_EQ(platform::kRegExpandSz, type);
  EXPECT_EQ(strlen("%HOME%\\kzq") + 1, size);
  EXPECT_STREQ("%HOME%\\kzq", text);
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("", "default"));
  EXPECT_EQ("default", Text(nullptr));
  EXPECT_EQ("default", Text(""));
}

TEST_F(ValueTest, DwordAndBinaryKeepTheirBytes) {
  const uint32_t level = 0xA1B2C3D4;
  const unsigned char blob[] = {0, 1, 0xFF, 0x0A, 0};
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("Level", &level, platform::kRegDword, sizeof level));
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("Blob", blob, platform::kRegBinary, sizeof blob));
  CRegistry reader;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(reader, ""));
  uint32_t read_level = 0, type = 0, size = sizeof read_level;
  ASSERT_EQ(CRegistry::kOk, reader.GetValue("level", &read_level, &type, &size));
  EXPECT_EQ(level, read_level);
  EXPECT_EQ(platform::kRegDword, type);
  unsigned char read_blob[16];
  size = sizeof read_blob;
  ASSERT_EQ(CRegistry::kOk, reader.GetValue("BLOB", read_blob, &type, &size));
  ASSERT_EQ(sizeof blob, size);
  EXPECT_EQ(0, memcmp(blob, read_blob, sizeof blob));
}

TEST_F(ValueTest, NamesIgnoreCaseAndAWriteReplacesTheOldValue) {
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("Server", "one"));
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("SERVER", "two"));
  EXPECT_EQ("two", Text("server"));
  uint32_t values = 0;
  ASSERT_EQ(CRegistry::kOk, r_.QueryKey(nullptr, nullptr, &values, nullptr));
  EXPECT_EQ(1u, values);
}

TEST_F(ValueTest, MissingValueGives7SmallBufferGives4WithTheSizeAndDeleteGoesOnce) {
  char text[4];
  uint32_t size = sizeof text;
  EXPECT_EQ(CRegistry::kValueNotFound, r_.GetValue("absent", text, nullptr, &size));
  EXPECT_EQ("RegQueryValueEx", LastApi(r_));
  EXPECT_EQ(platform::kErrFileNotFound, r_.QueryError(nullptr));
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("Long", "longer than four"));
  size = sizeof text;
  EXPECT_EQ(CRegistry::kBufferTooSmall, r_.GetValue("Long", text, nullptr, &size));
  EXPECT_EQ(strlen("longer than four") + 1, size);
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("Doomed", "x"));
  ASSERT_EQ(CRegistry::kOk, r_.PutValue("Kept", "y"));
  EXPECT_EQ(CRegistry::kOk, r_.DeleteValue("DOOMED"));
  EXPECT_EQ(CRegistry::kValueNotFound, r_.DeleteValue("Doomed"));
  EXPECT_EQ("RegDeleteValue", LastApi(r_));
  EXPECT_EQ("<missing>", Text("Doomed"));
  EXPECT_EQ("y", Text("Kept"));
}

TEST_F(ValueTest, WritersOnTheSameKeyLoseNoValue) {
  constexpr int kPerWriter = 60;
  const auto write = [this](char prefix) {
    CRegistry w;
    ASSERT_EQ(CRegistry::kOk, OpenWritable(w, ""));
    for (int i = 0; i < kPerWriter; ++i)
      ASSERT_EQ(CRegistry::kOk, w.PutValue((prefix + std::to_string(i)).c_str(), "x"));
  };
  std::thread first(write, 'a');
  std::thread second(write, 'b');
  first.join();
  second.join();
  uint32_t values = 0;
  ASSERT_EQ(CRegistry::kOk, r_.QueryKey(nullptr, nullptr, &values, nullptr));
  EXPECT_EQ(2u * kPerWriter, values);
}

TEST_F(ValueTest, ReadOnlyObjectCannotWriteAndAClosedOneDoesNothing) {
  CRegistry reader;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(reader, ""));
  EXPECT_EQ(platform::kKeyRead, reader.AccessMask());
  EXPECT_EQ(CRegistry::kApiFailed, reader.PutValue("Denied", "x"));
  EXPECT_EQ(platform::kErrAccessDenied, reader.QueryError(nullptr));
  EXPECT_EQ(CRegistry::kApiFailed, reader.DeleteValue("Denied"));
  EXPECT_EQ("<missing>", Text("Denied"));
  CRegistry closed;
  uint32_t size = 4;
  char text[4];
  EXPECT_EQ(CRegistry::kNotOpen, closed.PutValue("a", "b"));
  EXPECT_EQ(CRegistry::kNotOpen, closed.GetValue("a", text, nullptr, &size));
  EXPECT_EQ(CRegistry::kNotOpen, closed.DeleteValue("a"));
  EXPECT_EQ(CRegistry::kNotOpen, closed.QueryKey(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(CRegistry::kNotOpen, closed.NotifyChange(false, nullptr, 0));
  EXPECT_EQ(CRegistry::kNotOpen, closed.DeleteKey("a", false));
  EXPECT_EQ(CRegistry::kNotOpen, closed.Position("a", false));
  EXPECT_EQ(CRegistry::kNotOpen, closed.EnumVals(text, &size, nullptr, nullptr, nullptr, nullptr, false));
  EXPECT_EQ(CRegistry::kNotOpen, closed.EnumKeys(text, &size, nullptr, nullptr, nullptr, nullptr, false));
}

using StatusTest = RegistryTest;

TEST_F(StatusTest, ReportsTheLastCallAndCutsEachCopyToItsBuffer) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(r, ""));
  ASSERT_EQ(CRegistry::kApiFailed, r.Position("missing", false));
  r.Report();  // an operation that calls nothing keeps the last call
  uint32_t open = 0;
  char operation[CRegistry::kNameSize], path[CRegistry::kPathSize], api[CRegistry::kNameSize];
  char machine[CRegistry::kMachineSize] = "x";
  int32_t result = 0;
  EXPECT_EQ(CRegistry::kOk, r.Status(&open, operation, sizeof operation, path, sizeof path, api,
                                     sizeof api, &result, machine, sizeof machine));
  EXPECT_EQ(1u, open);
  EXPECT_STREQ("Status", operation) << "Status records its own name before copying";
  EXPECT_EQ(base_, path);
  EXPECT_STREQ("RegOpenKeyEx", api);
  EXPECT_EQ(platform::kErrFileNotFound, result);
  EXPECT_STREQ("", machine);
  char short_api[4];
  EXPECT_EQ(CRegistry::kBufferTooSmall,
            r.Status(nullptr, nullptr, 0, nullptr, 0, short_api, sizeof short_api, nullptr, nullptr, 0));
  EXPECT_STREQ("Reg", short_api);
  char unsized[8] = "unset";
  EXPECT_EQ(CRegistry::kBufferTooSmall,
            r.Status(nullptr, nullptr, 0, unsized, 0, nullptr, 0, nullptr, nullptr, 0));
  EXPECT_STREQ("unset", unsized) << "a buffer without a size is left alone";
  char exact[5];
  EXPECT_EQ(CRegistry::kOk,
            r.Status(nullptr, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, exact, sizeof exact));
}

TEST_F(StatusTest, QueryKeyCopiesThePathAndGives4ForABufferUnder1024) {
  MakeKeys({"sub"});
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(r, ""));
  ASSERT_EQ(CRegistry::kOk, r.PutValue("v", "1"));
  char small[8];
  uint32_t size = sizeof small;
  uint32_t values = 0, subkeys = 0;
  EXPECT_EQ(CRegistry::kBufferTooSmall, r.QueryKey(small, &size, &values, &subkeys));
  EXPECT_EQ(base_.size(), size);
  EXPECT_EQ(base_.substr(0, 7), small);
  EXPECT_EQ(1u, values) << "the counts come even with a short path buffer";
  EXPECT_EQ(1u, subkeys);
  char full[CRegistry::kPathSize];
  size = sizeof full;
  platform::RegistryKeyInfo info;
  EXPECT_EQ(CRegistry::kOk, r.QueryKey(full, &size, nullptr, nullptr, &info));
  EXPECT_EQ(base_, full);
  EXPECT_EQ(3u, info.max_subkey_length);
  EXPECT_EQ(1u, info.max_value_name_length);
  EXPECT_EQ(CRegistry::kNoKeyNameSize, r.QueryKey(full, nullptr, nullptr, nullptr));
}

using AttributesTest = RegistryTest;

TEST_F(AttributesTest, InitKeepsCustomAttributesOnlyWhenSet) {
  CRegistry r;
  EXPECT_EQ(CRegistry::kOk, r.Attributes(platform::kKeyAllAccess, 0, nullptr, nullptr));
  EXPECT_FALSE(r.HasCustomAttributes()) << "full access is the plain setting";
  r.Init(false);
  EXPECT_EQ(platform::kKeyRead, r.AccessMask());

  EXPECT_EQ(CRegistry::kOk, r.Attributes(platform::kKeyAllAccess, 0, nullptr, "kzqclass"));
  EXPECT_TRUE(r.HasCustomAttributes());
  r.Init(false);
  EXPECT_EQ(platform::kKeyAllAccess, r.AccessMask());
  r.Init(true);
  EXPECT_FALSE(r.HasCustomAttributes());
  EXPECT_EQ(platform::kKeyRead, r.AccessMask());
}

TEST_F(AttributesTest, SecurityAttributesGive999AndStillCreateKeys) {
  CRegistry r;
  platform::RegistrySecurity security;
  security.length = sizeof security;
  EXPECT_EQ(CRegistry::kSecurityGiven,
            r.Attributes(platform::kKeyAllAccess | 0x100, 0, &security, nullptr));
  ASSERT_EQ(CRegistry::kOk, r.Open(nullptr, kCurrentUser, Path("secured").c_str(), true));
  EXPECT_EQ(platform::kCreatedNewKey, r.Disposition());
  EXPECT_EQ(CRegistry::kOk, r.PutValue("v", "1"));
}

using NotifyTest = RegistryTest;

TEST_F(NotifyTest, ClosedHandleGives16) {
  CRegistry original;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(original, ""));
  CRegistry copy(original);
  ASSERT_EQ(CRegistry::kOk, original.Close());
  EXPECT_EQ(CRegistry::kInvalidHandle, copy.NotifyChange(true, nullptr, 0x4));
  EXPECT_EQ(platform::kErrInvalidHandle, copy.QueryError(nullptr));
}

#ifdef _WIN32
TEST_F(NotifyTest, EventIsSignalledWhenAValueChanges) {
  CRegistry watcher;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(watcher, ""));
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  ASSERT_NE(nullptr, event);
  ASSERT_EQ(CRegistry::kOk, watcher.NotifyChange(false, event, REG_NOTIFY_CHANGE_LAST_SET));
  EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0)) << "asynchronous: nothing yet";
  CRegistry writer;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(writer, ""));
  ASSERT_EQ(CRegistry::kOk, writer.PutValue("changed", "1"));
  EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 5000));
  CloseHandle(event);
}
#else
TEST_F(NotifyTest, FileStoreDoesNotWatchAndSaysSo) {
  CRegistry watcher;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(watcher, ""));
  EXPECT_EQ(CRegistry::kApiFailed, watcher.NotifyChange(false, nullptr, 0x4));
  EXPECT_EQ(platform::kErrNotSupported, watcher.QueryError(nullptr));
  EXPECT_EQ("RegNotifyChangeKeyValue", LastApi(watcher));
}
#endif

}  // namespace
