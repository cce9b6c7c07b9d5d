#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/dir_watch.h"
#include "platform/file_system.h"
#include "tests/support/temp_dir.h"

namespace {

void Append(const std::string& path, const std::string& text) {
  FILE* file = fopen(path.c_str(), "ab");
  ASSERT_NE(file, nullptr);
  fputs(text.c_str(), file);
  fclose(file);
}

// The first name of the next batch within 10 s, skipping time-outs.
std::string NextChange(platform::DirectoryWatch& watch) {
  std::vector<std::string> names;
  int error = 0;
  for (int i = 0; i < 100; ++i) {
    const platform::WatchResult result = watch.Next(&names, 100, &error);
    if (result == platform::WatchResult::kChanged) return names.front();
    if (result == platform::WatchResult::kFailed) return "failed: " + std::to_string(error);
  }
  return "no change";
}

void Drain(platform::DirectoryWatch& watch) {
  std::vector<std::string> names;
  int error = 0;
  while (watch.Next(&names, 200, &error) == platform::WatchResult::kChanged) {
  }
}

TEST(DirectoryWatch, ReportsTheFileThatGrewAndWaitsQuietlyOtherwise) {
  kzq_test::TempDir dir;
  Append(dir.File("ERRORLOG"), "start\n");
  int error = 0;
  EXPECT_EQ(platform::WatchDirectory(dir.File("absent"), &error), nullptr);
  EXPECT_NE(error, 0) << "a missing directory cannot be watched";
  auto watch = platform::WatchDirectory(dir.Path(), &error);
  ASSERT_NE(watch, nullptr) << error;
  std::vector<std::string> names;
  EXPECT_EQ(watch->Next(&names, 50, &error), platform::WatchResult::kTimeout);

  Append(dir.File("ERRORLOG"), "more\n");
  EXPECT_EQ(NextChange(*watch), "ERRORLOG");
  Drain(*watch);
  Append(dir.File("ERRORLOG.1"), "older\n");
  EXPECT_EQ(NextChange(*watch), "ERRORLOG.1");
  // A removed log is a change too: its reader says it is gone.
  Drain(*watch);
  ASSERT_EQ(remove(dir.File("ERRORLOG").c_str()), 0);
  EXPECT_EQ(NextChange(*watch), "ERRORLOG");
}

// Every file of a batch is named, not only its first: another file
// written just before the log must not hide the log's change.
TEST(DirectoryWatch, EveryFileOfABatchIsNamed) {
  kzq_test::TempDir dir;
  int error = 0;
  auto watch = platform::WatchDirectory(dir.Path(), &error);
  ASSERT_NE(watch, nullptr) << error;
  Append(dir.File("other.trc"), "x\n");
  Append(dir.File("ERRORLOG"), "y\n");
  platform::SleepMillis(200);  // both in the system's queue before the read
  std::vector<std::string> names, all;
  for (int i = 0; i < 20 && std::find(all.begin(), all.end(), "ERRORLOG") == all.end(); ++i)
    if (watch->Next(&names, 100, &error) == platform::WatchResult::kChanged) all.insert(all.end(), names.begin(), names.end());
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.front(), "other.trc");
  EXPECT_NE(std::find(all.begin(), all.end(), "ERRORLOG"), all.end());
}

}  // namespace
