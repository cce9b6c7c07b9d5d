#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#else
#include <windows.h>
// After windows.h, which they need.
#include <aclapi.h>
#include <sddl.h>
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
  auto first = platform::OpenSharedArea(name, 30600, platform::ObjectAccess{}, &error);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(error, platform::kOk);
  // Whole pages: fields past the nominal size are addressable.
  EXPECT_GE(first->Size(), 30600u);
  EXPECT_EQ(first->Size() % 4096, 0u);
  EXPECT_EQ(first->Address()[30599], 0);
  memcpy(first->Address() + first->Size() - 8, "tailend", 8);

  auto second = platform::OpenSharedArea(name, 30600, platform::ObjectAccess{}, &error);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(error, platform::kErrAlreadyExists);
  EXPECT_STREQ(reinterpret_cast<char*>(second->Address() + second->Size() - 8), "tailend");
  platform::RemoveSharedArea(name);
}

#ifndef _WIN32
platform::ObjectAccess Private(const std::string& group) {
  platform::ObjectAccess access;
  access.group = group;
  return access;
}

platform::ObjectAccess Open() {
  platform::ObjectAccess access;
  access.open = true;
  return access;
}

struct stat StatOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info;
}

std::string GroupName(gid_t gid) {
  const group* entry = getgrgid(gid);
  return entry != nullptr ? entry->gr_name : "";
}

// A new object is the account's and its group's when the group exists,
// the account's alone when it does not, everyone's when open; an object of
// this account's that an earlier open run left is made private again.
TEST(ChannelObjects, PrivateObjectsAdmitTheAccountAndItsGroupOnly) {
  const std::string group = GroupName(getegid());
  const struct {
    platform::ObjectAccess access;
    unsigned mode;
  } cases[] = {{Private(group), 0660}, {Private("kzq_no_such_group"), 0600}, {Open(), 0666}};
  for (const auto& c : cases) {
    const std::string name = UniqueName("access");
    int error = -1;
    auto area = platform::OpenSharedArea(name, 4096, c.access, &error);
    auto sem = platform::OpenNamedSemaphore(name, 1, c.access, &error);
    ASSERT_NE(area, nullptr);
    ASSERT_NE(sem, nullptr);
    for (const std::string& path : {"/dev/shm/" + name, "/dev/shm/sem." + name}) {
      EXPECT_EQ(StatOf(path).st_mode & 0777, c.mode) << path;
      EXPECT_EQ(StatOf(path).st_gid, getegid()) << path;
    }
    area = platform::OpenSharedArea(name, 4096, Private("kzq_no_such_group"), &error);
    sem = platform::OpenNamedSemaphore(name, 1, Private("kzq_no_such_group"), &error);
    EXPECT_EQ(error, platform::kErrAlreadyExists);
    EXPECT_EQ(StatOf("/dev/shm/" + name).st_mode & 0777, 0600u);
    EXPECT_EQ(StatOf("/dev/shm/sem." + name).st_mode & 0777, 0600u);
    platform::RemoveSharedArea(name);
    platform::RemoveSemaphore(name);
  }
}

// Objects made first by another account - open to all, so that it could
// read every request or answer in the collector's place - are refused, in
// private mode only.
TEST(ChannelObjects, AnotherAccountsObjectsAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as a second account";
  const std::string name = UniqueName("foreign");
  const pid_t child = fork();
  if (child == 0) {
    int error = 0;
    const bool made = setgid(65534) == 0 && setuid(65534) == 0 &&
                      platform::OpenSharedArea(name, 4096, Open(), &error) != nullptr &&
                      platform::OpenNamedSemaphore(name, 1, Open(), &error) != nullptr;
    _exit(made ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  int error = 0;
  EXPECT_EQ(platform::OpenSharedArea(name, 4096, Private(GroupName(getegid())), &error), nullptr);
  EXPECT_EQ(error, platform::kErrInvalidOwner);
  EXPECT_EQ(platform::OpenNamedSemaphore(name, 1, Private(GroupName(getegid())), &error), nullptr);
  EXPECT_EQ(error, platform::kErrInvalidOwner);
  EXPECT_NE(platform::OpenSharedArea(name, 4096, Open(), &error), nullptr);
  EXPECT_NE(platform::OpenNamedSemaphore(name, 1, Open(), &error), nullptr);
  platform::RemoveSharedArea(name);
  platform::RemoveSemaphore(name);
}
#else
// Windows names the objects in its global namespace, one for all kinds: an
// area and a semaphore need names of their own.
HANDLE OpenByName(const std::string& name, bool area) {
  const std::string global = "Global\\" + name;
  return area ? OpenFileMappingA(READ_CONTROL, FALSE, global.c_str())
              : OpenSemaphoreA(READ_CONTROL, FALSE, global.c_str());
}

// The accounts the object's access list grants, as SID strings; "null" for
// a null list, which grants every account.
std::vector<std::string> Grantees(const std::string& name, bool area) {
  HANDLE object = OpenByName(name, area);
  EXPECT_NE(object, nullptr) << name;
  ACL* acl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_EQ(GetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &acl, nullptr,
                            &descriptor),
            static_cast<DWORD>(ERROR_SUCCESS));
  CloseHandle(object);
  std::vector<std::string> sids;
  if (acl == nullptr) sids.push_back("null");
  for (DWORD i = 0; acl != nullptr && i < acl->AceCount; ++i) {
    ACCESS_ALLOWED_ACE* entry = nullptr;
    GetAce(acl, i, reinterpret_cast<void**>(&entry));
    char* text = nullptr;
    ConvertSidToStringSidA(&entry->SidStart, &text);
    sids.push_back(entry->Header.AceType == ACCESS_ALLOWED_ACE_TYPE ? text : "other entry");
    LocalFree(text);
  }
  LocalFree(descriptor);
  return sids;
}

std::string ProcessUser() {
  HANDLE token = nullptr;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
  unsigned char user[512];
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, user, sizeof user, &size);
  CloseHandle(token);
  char* text = nullptr;
  ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &text);
  const std::string sid = text;
  LocalFree(text);
  return sid;
}

platform::ObjectAccess Private() {
  platform::ObjectAccess access;
  access.services = {"kzq_no_such_service"};  // not installed: no entry
  return access;
}

platform::ObjectAccess Open() {
  platform::ObjectAccess access;
  access.open = true;
  return access;
}

// A private object grants SYSTEM, Administrators and the running account
// alone; an open one has a null list; an open one of the running account's
// reopened privately becomes private.
TEST(ChannelObjects, PrivateObjectsGrantTheSystemAndTheAccountOnly) {
  const std::vector<std::string> trusted{"S-1-5-18", "S-1-5-32-544", ProcessUser()};
  const struct {
    platform::ObjectAccess access;
    std::vector<std::string> grantees;
  } cases[] = {{Private(), trusted}, {Open(), {"null"}}};
  for (const auto& c : cases) {
    const std::string name = UniqueName(c.access.open ? "open" : "private");
    const std::string sem_name = name + "_sem";
    int error = -1;
    auto area = platform::OpenSharedArea(name, 4096, c.access, &error);
    auto sem = platform::OpenNamedSemaphore(sem_name, 1, c.access, &error);
    ASSERT_NE(area, nullptr);
    ASSERT_NE(sem, nullptr);
    EXPECT_EQ(Grantees(name, true), c.grantees);
    EXPECT_EQ(Grantees(sem_name, false), c.grantees);
    auto area2 = platform::OpenSharedArea(name, 4096, Private(), &error);
    EXPECT_EQ(error, platform::kErrAlreadyExists);
    auto sem2 = platform::OpenNamedSemaphore(sem_name, 1, Private(), &error);
    EXPECT_EQ(error, platform::kErrAlreadyExists);
    EXPECT_EQ(Grantees(name, true), trusted);
    EXPECT_EQ(Grantees(sem_name, false), trusted);
  }
}

// Objects another account made first - open to all, so that it could read
// every request or answer in the collector's place - are refused, in
// private mode only.
TEST(ChannelObjects, AnotherAccountsObjectsAreRefused) {
  unsigned char service[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof service;
  ASSERT_TRUE(CreateWellKnownSid(WinLocalServiceSid, nullptr, service, &size));
  SECURITY_DESCRIPTOR descriptor;
  InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorOwner(&descriptor, service, FALSE);
  SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
  SECURITY_ATTRIBUTES foreign{sizeof foreign, &descriptor, FALSE};
  const std::string name = UniqueName("foreign");
  const std::string sem_name = name + "_sem";
  HANDLE area =
      CreateFileMappingA(INVALID_HANDLE_VALUE, &foreign, PAGE_READWRITE, 0, 4096, ("Global\\" + name).c_str());
  HANDLE sem = CreateSemaphoreA(&foreign, 1, 1, ("Global\\" + sem_name).c_str());
  ASSERT_NE(area, nullptr) << GetLastError();
  ASSERT_NE(sem, nullptr) << GetLastError();

  int error = 0;
  EXPECT_EQ(platform::OpenSharedArea(name, 4096, Private(), &error), nullptr);
  EXPECT_EQ(error, platform::kErrInvalidOwner);
  EXPECT_EQ(platform::OpenNamedSemaphore(sem_name, 1, Private(), &error), nullptr);
  EXPECT_EQ(error, platform::kErrInvalidOwner);
  EXPECT_EQ(Grantees(name, true), std::vector<std::string>{"null"});
  EXPECT_NE(platform::OpenSharedArea(name, 4096, Open(), &error), nullptr);
  EXPECT_NE(platform::OpenNamedSemaphore(sem_name, 1, Open(), &error), nullptr);
  CloseHandle(area);
  CloseHandle(sem);
}
#endif

// The count never exceeds one; a second open keeps the count the first
// made (its own initial count is ignored) and reports 183.
TEST(Semaphore, CountNeverExceedsOneAndReopeningKeepsIt) {
  const std::string name = UniqueName("sem");
  int error = -1;
  auto sem = platform::OpenNamedSemaphore(name, 1, platform::ObjectAccess{}, &error);
  ASSERT_NE(sem, nullptr);
  EXPECT_EQ(error, platform::kOk);
  EXPECT_EQ(sem->Release(), platform::kErrTooManyPosts);
  EXPECT_EQ(sem->Wait(0), platform::kOk);
  EXPECT_EQ(sem->Wait(20), platform::kErrTimeout);
  auto other = platform::OpenNamedSemaphore(name, 1, platform::ObjectAccess{}, &error);
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(error, platform::kErrAlreadyExists);
  EXPECT_EQ(other->Wait(0), platform::kErrTimeout);
  std::thread poster([&] { EXPECT_EQ(sem->Release(), platform::kOk); });
  EXPECT_EQ(other->Wait(5000), platform::kOk);
  poster.join();
  EXPECT_EQ(sem->Release(), platform::kOk);
  EXPECT_EQ(sem->Release(), platform::kErrTooManyPosts);
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
