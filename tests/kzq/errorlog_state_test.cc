#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "kzq/errorlog_queue.h"
#include "kzq/errorlog_state.h"
#include "tests/support/errorlog_writer.h"
#include "tests/support/temp_dir.h"

namespace {

using kzq_test::Utf16Bytes;

// The resume point is one UTF-16 line. The file is never truncated, so a
// kill at any instant leaves a whole line: a shorter one (a log that started
// over) is read back alone, and a writer of the next run overwrites in place.
TEST(ErrorlogState, AWriterLeavesExactlyTheLastPointAsOneUtf16Line) {
  kzq_test::TempDir home;
  const std::string path = kzq::ErrorStateFilePath(home.Path(), "kvc", "SQL1");
  const char sep = path[home.Path().size()];
  EXPECT_EQ(path.substr(home.Path().size() + 1),
            std::string("tmp") + sep + "kvc" + sep + "SQL1" + sep + "SQL1_KZQERROR_EVENT");
  ASSERT_TRUE(kzq::WriteResumePoint(path, {u"2026-11-23", u"10:15:02.31", 123456, 3}));
  EXPECT_EQ(kzq_test::ReadFile(path), Utf16Bytes("2026-11-23 10:15:02.31 123456\n"));
  kzq::ResumePointWriter writer(path);
  ASSERT_TRUE(writer.Save({u"2026-11-23", u"10:15:03.00", 999999, 3}));
  EXPECT_EQ(kzq_test::ReadFile(path), Utf16Bytes("2026-11-23 10:15:03.00 999999\n"));
  ASSERT_TRUE(writer.Save({u"2026-11-24", u"00:00:01.00", 714, 3}));
  const auto point = kzq::ReadResumePoint(path, 50);
  ASSERT_TRUE(point.has_value());
  EXPECT_EQ(point->values, 3);
  EXPECT_EQ(point->date_word, u"2026-11-24");
  EXPECT_EQ(point->time_word, u"00:00:01.00");
  EXPECT_EQ(point->offset, 714);
  kzq::ResumePointWriter next_run(path);
  ASSERT_TRUE(next_run.Save({u"2026-11-24", u"00:00:02.00", 9, 3}));
  EXPECT_EQ(kzq_test::ReadFile(path).substr(0, 2 * 25), Utf16Bytes("2026-11-24 00:00:02.00 9\n"));
  EXPECT_EQ(kzq::ReadResumePoint(path, 50)->offset, 9);
}

TEST(ErrorlogState, DamagedOrMissingFilesSayHowMuchWasRead) {
  kzq_test::TempDir dir;
  EXPECT_FALSE(kzq::ReadResumePoint(dir.File("none"), 50).has_value());
  kzq_test::WriteFile(dir.File("two"), Utf16Bytes("2026-11-23 10:15:02.31 x\n"));
  EXPECT_EQ(kzq::ReadResumePoint(dir.File("two"), 50)->values, 2);
  kzq_test::WriteFile(dir.File("empty"), "");
  EXPECT_EQ(kzq::ReadResumePoint(dir.File("empty"), 50)->values, 0);
  // Only the first units of a long line are read.
  kzq_test::WriteFile(dir.File("long"), Utf16Bytes("2026-11-23 10:15:02.31 99999999\n"));
  EXPECT_EQ(kzq::ReadResumePoint(dir.File("long"), 24)->offset, 9);
}

TEST(ErrorEventQueue, KeepsTheNewestWithinItsBound) {
  kzq::ErrorEventQueue queue;
  for (const char* event : {"a", "b", "c"}) queue.AppendBounded(event, 2);
  EXPECT_EQ(queue.Snapshot(), (std::vector<std::string>{"b", "c"}));
  queue.Append("d");
  queue.Append("e");
  queue.Trim(3);
  EXPECT_EQ(queue.TakeAll(), (std::vector<std::string>{"c", "d", "e"}));
  EXPECT_EQ(queue.Size(), 0);
}

TEST(ErrorEventQueue, AReaderBesideAWriterSeesEachEventOnceInOrder) {
  kzq::ErrorEventQueue queue;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 5000; ++i) queue.AppendBounded(std::to_string(i), 50);
    done = true;
  });
  int last = -1;
  bool ordered = true;
  for (bool finished = false; !finished;) {
    finished = done;
    for (const std::string& event : queue.TakeAll()) {
      ordered = ordered && std::stoi(event) > last;
      last = std::stoi(event);
    }
  }
  writer.join();
  EXPECT_TRUE(ordered);
  EXPECT_EQ(last, 4999);
}

}  // namespace
