#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kvc/diagnostic_log.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/log_capture.h"
#include "tests/support/started_programs.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::string WriterPath() { return kzq_test::BuiltProgram("tests", "kvc_log_writer"); }

bool Appears(const std::string& path) {
  return kzq_test::Eventually([&] { return std::filesystem::exists(path); }, 30000, 10);
}

using kzq_test::Start;

// Each line must be whole: "<date> <time> TST0001I (tid)<tag> <n> <len> <len x tag>|".
TEST(LogAcrossProcesses, TwoWritersNeverInterleaveInsideALine) {
  kzq_test::TempDir dir;
  platform::SetEnv("KVCLOGDIR", dir.Path());
  platform::SetEnv("COLL_WRAPLINES", "0");
  const int lines = 400;
  const std::string go = dir.File("go");
  auto a = Start({WriterPath(), "write", "A", std::to_string(lines), go, dir.File("ready-a")});
  auto b = Start({WriterPath(), "write", "B", std::to_string(lines), go, dir.File("ready-b")});
  ASSERT_TRUE(a && b);
  ASSERT_TRUE(Appears(dir.File("ready-a")) && Appears(dir.File("ready-b")));
  kzq_test::WriteFile(go, "");
  EXPECT_EQ(a->Wait(), 0);
  EXPECT_EQ(b->Wait(), 0);

  std::istringstream log(kzq_test::ReadFile(dir.File("col.log")));
  std::map<std::string, int> next{{"A", 0}, {"B", 0}};
  for (std::string line; std::getline(log, line);) {
    const size_t body = line.find(')');
    ASSERT_EQ(line.find(" TST0001I ("), 23u) << line.substr(0, 80);
    ASSERT_NE(body, std::string::npos);
    std::istringstream fields(line.substr(body + 1));
    std::string tag, payload;
    int n = -1;
    size_t length = 0;
    fields >> tag >> n >> length >> payload;
    ASSERT_TRUE(next.count(tag)) << line.substr(0, 80);
    EXPECT_EQ(n, next[tag]++);  // each writer's lines all there, in order
    EXPECT_EQ(payload, std::string(length, tag[0]) + "|");
  }
  EXPECT_EQ(next["A"], lines);
  EXPECT_EQ(next["B"], lines);
}

#ifndef _WIN32
// A refused runtime directory (here a file) costs the lock between
// processes, not the lines: they are still written, after a note saying why.
TEST(LogAcrossProcesses, WithoutTheLockFileLinesAreStillWritten) {
  kzq_test::TempDir dir;
  platform::SetEnv("KVCLOGDIR", dir.Path());
  kzq_test::WriteFile(dir.File("not-a-directory"), "");
  platform::SetEnv("KZQ_RUNTIME_DIR", dir.File("not-a-directory"));
  const std::string go = dir.File("go");
  kzq_test::WriteFile(go, "");
  auto writer = Start({WriterPath(), "write", "A", "3", go, dir.File("ready")});
  platform::SetEnv("KZQ_RUNTIME_DIR", "");
  ASSERT_TRUE(writer);
  EXPECT_EQ(writer->Wait(), 0);
  const std::string log = kzq_test::ReadFile(dir.File("col.log"));
  EXPECT_THAT(log, HasSubstr("KVC0101W"));
  EXPECT_THAT(log, HasSubstr("A 2 "));
}
#endif

TEST(LogAcrossProcesses, HeldLockDropsLinesAndAKilledHolderReleasesIt) {
  kzq_test::LogCapture log;
  kzq_test::TempDir dir;
  auto holder = Start({WriterPath(), "hold", dir.File("ready")});
  ASSERT_TRUE(holder);
  ASSERT_TRUE(Appears(dir.File("ready")));
  kvc::Log('i', "tst0002", "dropped while held\n");  // returns: a held lock never blocks a writer for good
  EXPECT_THAT(log.Text(), Not(HasSubstr("dropped while held")));

  ASSERT_TRUE(holder->Kill());
  holder->Wait();
  kvc::Log('i', "tst0002", "written after the holder died\n");
  EXPECT_THAT(log.Text(), HasSubstr("written after the holder died"));
}

}  // namespace
