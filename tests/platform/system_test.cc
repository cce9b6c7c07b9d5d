#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/worker_thread.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(FileSystem, StatClassifiesAndDirectoriesAreMadeAtEveryMissingLevel) {
  kzq_test::TempDir dir;
  kzq_test::WriteFile(dir.File("three"), "abc");
  platform::FileStatus st;
  ASSERT_EQ(platform::StatPath(dir.File("three"), &st), 0);
  EXPECT_TRUE(st.is_regular);
  EXPECT_EQ(st.size, 3u);
  EXPECT_GT(st.created, 0);
  ASSERT_EQ(platform::StatPath(dir.Path(), &st), 0);
  EXPECT_TRUE(st.is_directory);
  EXPECT_EQ(platform::StatPath(dir.File("missing"), &st), ENOENT);
  const char sep = platform::PathSeparator();
  const std::string deep = dir.Path() + sep + "a" + sep + "b" + sep + "c";
  EXPECT_EQ(platform::CreateDirectories(deep), 0);
  EXPECT_EQ(platform::CreateDirectories(deep), 0);
  ASSERT_EQ(platform::StatPath(deep, &st), 0);
  EXPECT_TRUE(st.is_directory);
  EXPECT_NE(platform::CreateDirectories(dir.File("three")), 0);
}

// The runtime directory holds pid and lock files: it is made for this
// account alone, and one that every account may write, or that is a link,
// is refused rather than used.
TEST(FileSystem, RuntimeDirectoryIsTheAccountsOwn) {
  kzq_test::TempDir dir;
  const std::string runtime = dir.File("run");
  platform::SetEnv("KZQ_RUNTIME_DIR", runtime);
  ASSERT_EQ(platform::PrepareRuntimeDirectory(), 0);
  platform::FileStatus st;
  EXPECT_EQ(platform::StatPath(runtime, &st), 0);
  EXPECT_TRUE(st.is_directory);
#ifndef _WIN32
  EXPECT_EQ(std::filesystem::status(runtime).permissions(), std::filesystem::perms::owner_all);
  std::filesystem::permissions(runtime, std::filesystem::perms::all);
  EXPECT_EQ(platform::PrepareRuntimeDirectory(), 5);
  std::filesystem::create_directory_symlink(dir.Path(), dir.File("link"));
  platform::SetEnv("KZQ_RUNTIME_DIR", dir.File("link"));
  EXPECT_EQ(platform::PrepareRuntimeDirectory(), 5);
  // A file planted as a link is not written through.
  platform::SetEnv("KZQ_RUNTIME_DIR", dir.Path());
  std::filesystem::create_symlink(dir.File("target"), dir.File("KZQCOLL0.pid"));
  EXPECT_NE(platform::WriteFileNoFollow(dir.File("KZQCOLL0.pid"), "1\n"), 0);
  EXPECT_FALSE(std::filesystem::exists(dir.File("target")));
#endif
  platform::SetEnv("KZQ_RUNTIME_DIR", "");
}

TEST(Clock, LocalTimeRoundTripsThroughItsMomentAndNowAgreesWithTheUnixClock) {
  platform::LocalTime t{2026, 11, 13, 7, 10, 5};
  const int64_t moment = platform::FromLocal(&t);
  ASSERT_NE(moment, -1);
  EXPECT_EQ(t.weekday, 5);  // a Friday
  EXPECT_EQ(t.yearday, 316);
  platform::LocalTime back;
  ASSERT_TRUE(platform::ToLocal(moment, &back));
  EXPECT_EQ(back.year, 2026);
  EXPECT_EQ(back.day, 13);
  EXPECT_EQ(back.hour, 7);
  EXPECT_EQ(back.second, 5);
  platform::LocalTime now = platform::NowLocal();
  const int64_t unix_now = platform::NowUnixSeconds();
  const int64_t from_local = platform::FromLocal(&now);
  EXPECT_LE(std::llabs(from_local - unix_now), 2);
  EXPECT_GE(now.millisecond, 0);
  EXPECT_LT(now.millisecond, 1000);
}

}  // namespace

namespace {

std::atomic<long> g_ticks{0};
std::atomic<bool> g_finish{false};

int CountUntilFinished() {
  while (!g_finish) ++g_ticks;
  return 0;
}

}  // namespace

TEST(WorkerThread, SuspendedThreadMakesNoProgressUntilResumed) {
  int error = 0;
  auto worker = platform::StartWorkerThread(CountUntilFinished, &error);
  ASSERT_NE(worker, nullptr) << error;
  while (g_ticks == 0) platform::SleepMillis(1);
  ASSERT_TRUE(worker->Suspend());
  const long parked = g_ticks;
  platform::SleepMillis(100);
  EXPECT_EQ(g_ticks, parked);
  ASSERT_TRUE(worker->Resume());
  while (g_ticks == parked) platform::SleepMillis(1);
  g_finish = true;
}
