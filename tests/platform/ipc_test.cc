#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#ifdef _WIN32
#include <windows.h>

#include <aclapi.h>
#else
#include <sys/stat.h>
#endif

#include "platform/error.h"
#include "platform/named_lock.h"
#include "platform/process.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"

namespace {

std::string UniqueName(const char* what) {
  return std::string("kzqtest_") + what + "_" + std::to_string(platform::CurrentProcessId());
}

TEST(SharedArea, SecondOpenSeesTheFirstWritesAndReports183) {
  const std::string name = UniqueName("area");
  int error = -1;
  auto first = platform::OpenSharedArea(name, 30600, platform::ObjectAccess::kOpen, &error);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(error, platform::kOk);
  // Whole pages: fields past the nominal size are addressable.
  EXPECT_GE(first->Size(), 30600u);
  EXPECT_EQ(first->Size() % 4096, 0u);
  EXPECT_EQ(first->Address()[30599], 0);
  memcpy(first->Address() + first->Size() - 8, "tailend", 8);

  auto second = platform::OpenSharedArea(name, 30600, platform::ObjectAccess::kOpen, &error);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(error, platform::kErrAlreadyExists);
  EXPECT_STREQ(reinterpret_cast<char*>(second->Address() + second->Size() - 8), "tailend");
  platform::RemoveSharedArea(name);
}

#ifdef _WIN32
// The access list of a named mapping (in the global namespace, where the
// layer puts it): its entries' count, and whether the first names the
// running account.
void AccessListOf(const std::string& name, int* entries, bool* first_is_me) {
  HANDLE mapping = OpenFileMappingA(READ_CONTROL, FALSE, ("Global\\" + name).c_str());
  ASSERT_NE(mapping, nullptr);
  ACL* dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_EQ(GetSecurityInfo(mapping, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                            &descriptor),
            ERROR_SUCCESS);
  CloseHandle(mapping);
  *entries = dacl == nullptr ? -1 : dacl->AceCount;  // -1: no list, everyone may
  *first_is_me = false;
  ACCESS_ALLOWED_ACE* ace = nullptr;
  HANDLE token = nullptr;
  unsigned char user[512];
  DWORD size = 0;
  if (dacl != nullptr && GetAce(dacl, 0, reinterpret_cast<void**>(&ace)) &&
      OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) &&
      GetTokenInformation(token, TokenUser, user, sizeof user, &size))
    *first_is_me = EqualSid(&ace->SidStart, reinterpret_cast<TOKEN_USER*>(user)->User.Sid);
  if (token != nullptr) CloseHandle(token);
  LocalFree(descriptor);
}
#endif

TEST(SharedArea, OwnerAreasAdmitOnlyTheRunningAccountOpenOnesEveryone) {
  for (const auto access : {platform::ObjectAccess::kOwner, platform::ObjectAccess::kOpen}) {
    const std::string name = UniqueName(access == platform::ObjectAccess::kOwner ? "owner" : "open");
    int error = -1;
    auto area = platform::OpenSharedArea(name, 4096, access, &error);
    ASSERT_NE(area, nullptr) << error;
#ifdef _WIN32
    int entries = 0;
    bool first_is_me = false;
    AccessListOf(name, &entries, &first_is_me);
    if (access == platform::ObjectAccess::kOwner) {
      EXPECT_EQ(entries, 1);
      EXPECT_TRUE(first_is_me);
    } else {
      EXPECT_EQ(entries, -1);
    }
#else
    struct stat info {};
    ASSERT_EQ(stat(("/dev/shm/" + name).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, access == platform::ObjectAccess::kOwner ? 0600u : 0666u);
#endif
    platform::RemoveSharedArea(name);
  }
}

TEST(Semaphore, CountNeverExceedsOne) {
  const std::string name = UniqueName("sem");
  int error = -1;
  auto sem = platform::OpenNamedSemaphore(name, 1, platform::ObjectAccess::kOpen, &error);
  ASSERT_NE(sem, nullptr);
  EXPECT_EQ(error, platform::kOk);
  EXPECT_EQ(sem->Release(), platform::kErrTooManyPosts);
  EXPECT_EQ(sem->Wait(0), platform::kOk);
  EXPECT_EQ(sem->Wait(20), platform::kErrTimeout);
  EXPECT_EQ(sem->Release(), platform::kOk);
  EXPECT_EQ(sem->Release(), platform::kErrTooManyPosts);
  platform::RemoveSemaphore(name);
}

TEST(Semaphore, ReopeningKeepsTheCountAndReports183) {
  const std::string name = UniqueName("sem2");
  int error = -1;
  auto fill = platform::OpenNamedSemaphore(name, 0, platform::ObjectAccess::kDefault, &error);
  ASSERT_NE(fill, nullptr);
  auto other = platform::OpenNamedSemaphore(name, 1, platform::ObjectAccess::kDefault, &error);
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(error, platform::kErrAlreadyExists);
  EXPECT_EQ(other->Wait(0), platform::kErrTimeout);  // initial count 1 ignored
  std::thread poster([&] { EXPECT_EQ(fill->Release(), platform::kOk); });
  EXPECT_EQ(other->Wait(5000), platform::kOk);
  poster.join();
  platform::RemoveSemaphore(name);
}

TEST(NamedLock, ExcludesOtherThreadsUntilReleased) {
  const std::string name = UniqueName("lock");
  int error = -1;
  auto mine = platform::CreateNamedLock(name, &error);
  auto theirs = platform::CreateNamedLock(name, &error);
  ASSERT_NE(mine, nullptr);
  ASSERT_NE(theirs, nullptr);
  ASSERT_TRUE(mine->TryLockFor(0));
  std::atomic<bool> obtained{true};
  std::thread([&] { obtained = theirs->TryLockFor(50); }).join();
  EXPECT_FALSE(obtained);
  mine->Unlock();
  std::thread([&] {
    obtained = theirs->TryLockFor(1000);
    if (obtained) theirs->Unlock();
  }).join();
  EXPECT_TRUE(obtained);
}

}  // namespace
