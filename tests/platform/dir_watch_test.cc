#include <gtest/gtest.h>

#include <cstdio>
#include <string>

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

// The next change within 10 s, skipping time-outs.
std::string NextChange(platform::DirectoryWatch& watch) {
  std::string name;
  int error = 0;
  for (int i = 0; i < 100; ++i) {
    const platform::WatchResult result = watch.Next(&name, 100, &error);
    if (result == platform::WatchResult::kChanged) return name;
    if (result == platform::WatchResult::kFailed) return "failed: " + std::to_string(error);
  }
  return "no change";
}

TEST(DirectoryWatch, ReportsTheFileThatGrewAndWaitsQuietlyOtherwise) {
  kzq_test::TempDir dir;
  Append(dir.File("ERRORLOG"), "start\n");
  int error = 0;
  auto watch = platform::WatchDirectory(dir.Path(), &error);
  ASSERT_NE(watch, nullptr) << error;
  std::string name;
  EXPECT_EQ(watch->Next(&name, 50, &error), platform::WatchResult::kTimeout);

  Append(dir.File("ERRORLOG"), "more\n");
  EXPECT_EQ(NextChange(*watch), "ERRORLOG");
  // Drain whatever else the append caused, then a second file.
  while (watch->Next(&name, 200, &error) == platform::WatchResult::kChanged) {
  }
  Append(dir.File("ERRORLOG.1"), "older\n");
  EXPECT_EQ(NextChange(*watch), "ERRORLOG.1");
  // A removed log is a change too: its reader says it is gone.
  while (watch->Next(&name, 200, &error) == platform::WatchResult::kChanged) {
  }
  ASSERT_EQ(remove(dir.File("ERRORLOG").c_str()), 0);
  EXPECT_EQ(NextChange(*watch), "ERRORLOG");
}

TEST(DirectoryWatch, AMissingDirectoryCannotBeWatched) {
  kzq_test::TempDir dir;
  int error = 0;
  EXPECT_EQ(platform::WatchDirectory(dir.File("absent"), &error), nullptr);
  EXPECT_NE(error, 0);
}

}  // namespace
