#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

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
