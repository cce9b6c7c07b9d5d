#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "kvc/channel_entry.h"
#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"
#include "kzq/catalogue.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"
#include "platform/service_probe.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"

namespace {

// The agent side against a real kzqcoll replaying rows.
class Collector : public testing::Test {
 protected:
  void SetUp() override {
    const std::string first = "kzqc" + std::to_string(platform::CurrentProcessId());
    platform::SetEnv("COLL_VERSION", first);
    platform::SetEnv("COLL_SERVERID", "7");
    platform::SetEnv("COLL_SERVICENUMBER", "93");
    platform::SetEnv("WAIT_TIMEOUT", "20");
    kzq_test::WriteFile(replay_.File("kzqdbd.jsonl"),
                        "{\"SERVERID\": \"SQL7\", \"DBNAME\": \"master\", \"DBSIZE\": 512}\n"
                        "{\"SERVERID\": \"SQL7\", \"DBNAME\": \"tempdb\", \"DBSIZE\": 64}\n");
    KVCCOMM("initsm");
    collector_ = kzq_test::StartReplayCollector(replay_.Path());
    ASSERT_NE(collector_, nullptr);
    anchor_ = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
    prefix_ = first + "_7";
  }
  void TearDown() override {
    KVCCOMM("term", anchor_);
    kzq_test::Stop(collector_);
    KVCCOMM("shut", nullptr);
    for (const std::string& name : kvc::ChannelObjectNames(prefix_)) {
      platform::RemoveSharedArea(name);
      platform::RemoveSemaphore(name);
    }
  }

  kzq_test::TempDir replay_;
  std::unique_ptr<platform::ChildProcess> collector_;
  kvc::IpcAnchor* anchor_ = nullptr;
  std::string prefix_;
};

TEST_F(Collector, AnswersATableWithItsReplayedRowsTheHeartbeatAndTablesWithoutRows) {
  auto* pipes = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor_, "KZQDBD"));
  ASSERT_NE(pipes, nullptr) << anchor_->error_text;
  ASSERT_EQ(pipes->numrow, 2);
  const int length = kzq::kzqdbd_spec.row_size - kzq::kzqdbd_spec.CollectorOffset();
  ASSERT_EQ(pipes->lenrow, length);
  const int dbname = kzq::kzqdbd_spec.offsets[kzq::kzqdbd_spec.IndexOf("DBNAME")] - 88;
  const int dbsize = kzq::kzqdbd_spec.offsets[kzq::kzqdbd_spec.IndexOf("DBSIZE")] - 88;
  EXPECT_EQ(std::string(pipes->rows, 4), "SQL7");
  EXPECT_EQ(std::string(pipes->rows + length + dbname, 6), "tempdb");
  int32_t size;
  memcpy(&size, pipes->rows + dbsize, 4);
  EXPECT_EQ(size, 512);
  auto* heart = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor_, "HART4"));
  ASSERT_NE(heart, nullptr) << anchor_->error_text;
  ASSERT_EQ(heart->numrow, 1);
  EXPECT_EQ(std::string(heart->rows, static_cast<size_t>(heart->lenrow)), "1 1");
  for (const char* table : {"KZQSRVR", "KZQNOSUCH"}) {
    auto* pipes = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor_, table));
    ASSERT_NE(pipes, nullptr) << table << ": " << anchor_->error_text;
    EXPECT_EQ(pipes->numrow, 0) << table;
  }
}

}  // namespace
