#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "kvc/tracked_memory.h"
#include "tests/support/log_capture.h"

namespace {

using testing::HasSubstr;
using testing::Not;

const unsigned char* Bytes(const void* p) { return static_cast<const unsigned char*>(p); }

int GuardBytesAfter(const void* block, size_t requested) {
  int n = 0;
  for (size_t i = requested; i < kvc::TrackedBlockSize(requested, 0); ++i)
    n += Bytes(block)[i] == kvc::kGuardByte;
  return n;
}

TEST(TrackedMemory, BlockSizeLeavesFourToNineteenGuardBytes) {
  EXPECT_EQ(kvc::TrackedBlockSize(13, 0), 32u);
  EXPECT_EQ(kvc::TrackedBlockSize(12, 0), 16u);
  EXPECT_EQ(kvc::TrackedBlockSize(0, 0), 16u);
  EXPECT_EQ(kvc::TrackedBlockSize(13, kvc::kTrackExactSize), 13u);
  kvc::ChainAnchor chain;
  void* p13 = nullptr;
  void* p12 = nullptr;
  kvc::TrackedAlloc(&chain, &p13, 13, kvc::kTrackUntracked, __FILE__, __LINE__, "p13");
  kvc::TrackedAlloc(&chain, &p12, 12, kvc::kTrackUntracked, __FILE__, __LINE__, "p12");
  EXPECT_EQ(GuardBytesAfter(p13, 13), 19);
  EXPECT_EQ(GuardBytesAfter(p12, 12), 4);
  EXPECT_EQ(chain.count, 0);
  kvc::TrackedFree(&chain, &p13, kvc::kTrackUntracked, __FILE__, __LINE__, "p13");
  kvc::TrackedFree(&chain, &p12, kvc::kTrackUntracked, __FILE__, __LINE__, "p12");
  EXPECT_EQ(p13, nullptr);
}

TEST(TrackedMemory, EntryRecordsTheVariableBeforeItReceivesTheBlock) {
  kzq_test::LogCapture log;
  kvc::ChainAnchor chain;
  char* text = nullptr;
  kvc::TrackedStrdup(&chain, &text, "hello", kvc::kTrackZero, __FILE__, __LINE__, "text copy label");
  EXPECT_STREQ(text, "hello");
  ASSERT_EQ(chain.count, 1);
  const auto* entry = static_cast<const kvc::TrackEntry*>(kvc::ChainFirst(&chain));
  EXPECT_EQ(entry->recorded, nullptr);
  EXPECT_EQ(entry->variable, reinterpret_cast<void**>(&text));
  EXPECT_EQ(entry->requested, 6);
  EXPECT_EQ(entry->block_size, 16);
  EXPECT_STREQ(entry->label, "text copy label");
  // So the free through the same variable does not find the entry: it is
  // reported and the block is freed all the same.
  KVC_FREE(&chain, text, 0);
  EXPECT_EQ(text, nullptr);
  EXPECT_THAT(log.Text(), HasSubstr("UTT3500W"));
  EXPECT_THAT(log.Text(), HasSubstr("Could not find ddb_chain entry."));
  kvc::TrackedFreeAll(&chain);
  EXPECT_EQ(chain.count, 0);
}

// The guard is checked only when the free finds its entry: a variable that
// held the block is allocated into again, so the entry records the block.
TEST(TrackedMemory, OverrunIsReportedWhenTheFreeFindsItsEntry) {
  for (const bool overrun : {true, false}) {
    kzq_test::LogCapture log;
    kvc::ChainAnchor chain;
    void* first = nullptr;
    kvc::TrackedAlloc(&chain, &first, 13, kvc::kTrackUntracked, __FILE__, __LINE__, "first");
    void* again = first;
    kvc::TrackedAlloc(&chain, &again, 13, 0, __FILE__, __LINE__, "again");
    memset(first, 'a', 13);
    if (overrun) static_cast<char*>(first)[13] = 'X';
    kvc::TrackedFree(&chain, &first, 0, __FILE__, __LINE__, "first");
    EXPECT_EQ(chain.count, 0);
    if (overrun) {
      EXPECT_THAT(log.Text(), HasSubstr("UTT5500E"));
      EXPECT_THAT(log.Text(), HasSubstr("Memory overrun-    19 bytes ->X"));
    } else {
      EXPECT_THAT(log.Text(), Not(HasSubstr("UTT5500"))) << "an intact guard is not reported";
    }
    kvc::TrackedFree(&chain, &again, kvc::kTrackUntracked, __FILE__, __LINE__, "again");
  }
}

TEST(TrackedMemory, KeepFlagsLeaveBlockAndVariableAloneAndOtherEndPutsTheEntryFirst) {
  kvc::ChainAnchor chain;
  void* p = nullptr;
  kvc::TrackedAlloc(&chain, &p, 8, kvc::kTrackUntracked, __FILE__, __LINE__, "p");
  void* held = p;
  kvc::TrackedFree(&chain, &p, kvc::kTrackUntracked | kvc::kTrackKeepOnFree, __FILE__, __LINE__, "p");
  EXPECT_EQ(p, held);
  kvc::TrackedFree(&chain, &p, kvc::kTrackUntracked | kvc::kTrackLeavePointer, __FILE__, __LINE__, "p");
  EXPECT_EQ(p, held);  // freed, but the variable still holds the old address
  kvc::TrackedAlloc(&chain, &p, 8, kvc::kTrackUntracked, __FILE__, __LINE__, "p");
  kvc::TrackedFree(&chain, &p, kvc::kTrackUntracked | kvc::kTrackKeepOnFree | kvc::kTrackForceFree,
                   __FILE__, __LINE__, "p");
  EXPECT_EQ(p, nullptr);
  void* a = reinterpret_cast<void*>(0x10);  // values the entries record
  void* b = reinterpret_cast<void*>(0x20);
  void* a_var = a;
  void* b_var = b;
  kvc::TrackedAlloc(&chain, &a_var, 4, 0, __FILE__, __LINE__, "a");
  kvc::TrackedAlloc(&chain, &b_var, 4, kvc::kTrackOtherEnd, __FILE__, __LINE__, "b");
  EXPECT_EQ(static_cast<kvc::TrackEntry*>(kvc::ChainFirst(&chain))->recorded, b);
  // Detach takes the entries out; the blocks stay with the caller.
  EXPECT_EQ(kvc::TrackedDetach(&chain, a), a);
  EXPECT_EQ(kvc::TrackedDetach(&chain, b), b);
  EXPECT_EQ(kvc::TrackedDetach(&chain, b), nullptr);
  EXPECT_EQ(chain.count, 0);
  kvc::TrackedFree(&chain, &a_var, kvc::kTrackUntracked, __FILE__, __LINE__, "a");
  kvc::TrackedFree(&chain, &b_var, kvc::kTrackUntracked, __FILE__, __LINE__, "b");
}

TEST(TrackedMemoryDeathTest, ExhaustedMemoryEndsTheProcessWithCode4) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  kvc::ChainAnchor chain;
  void* p = nullptr;
  EXPECT_EXIT(kvc::TrackedAlloc(&chain, &p, size_t{1} << 40, 0, __FILE__, __LINE__, "huge"),
              testing::ExitedWithCode(4), "");
}

}  // namespace
