// The errorlog monitor against real UTF-16 logs written as the database
// server writes them: live errors, the resume point across restarts, the
// start-up scan over the log's generations and the report sample.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kvc/kvcenv.h"
#include "framework/table_manager.h"
#include "kzq/agent_loader.h"
#include "kzq/catalogue.h"
#include "kzq/errorlog_monitor.h"
#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_queue.h"
#include "kzq/tables.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "tests/support/errorlog_writer.h"
#include "tests/support/temp_dir.h"

namespace {

// The rows the monitor emits, as a listener would see them.
std::mutex g_rows_lock;
std::vector<std::string> g_rows;

void CollectRow(const std::string& row) {
  std::lock_guard<std::mutex> guard(g_rows_lock);
  g_rows.push_back(row);
}

std::string Field(const std::string& row, const char* name) {
  const kzq::TableSpec& spec = kzq::kzqerror_spec;
  const int i = spec.IndexOf(name);
  std::string text = row.substr(spec.offsets[i], spec.attributes[i].width);
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

int32_t IntField(const std::string& row, const char* name) {
  int32_t value = 0;
  memcpy(&value, row.data() + kzq::kzqerror_spec.offsets[kzq::kzqerror_spec.IndexOf(name)], sizeof value);
  return value;
}

class Errorlog : public testing::Test {
 protected:
  // The agent reads its configuration once per process, so every test of
  // the process uses the same log and home directories, emptied first.
  static void SetUpTestSuite() {
    log_ = new kzq_test::TempDir;
    home_ = new kzq_test::TempDir;
  }
  static void TearDownTestSuite() {
    delete log_;
    delete home_;
  }
  void SetUp() override {
    for (const kzq_test::TempDir* dir : {log_, home_})
      for (const auto& entry : std::filesystem::directory_iterator(dir->Path())) std::filesystem::remove_all(entry);
    platform::SetEnv("COLL_ERRORLOG", log_->File("ERRORLOG"));
    platform::SetEnv("COLL_HOME", home_->Path());
    platform::SetEnv("COLL_VERSION", "kvc");
    platform::SetEnv("COLL_SERVERID", "SQL1");
    platform::SetEnv("COLL_ALERT_SEV", "");
    platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_TIME", "");
    platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_EVENT_ROW", "");
    kzq::TheErrorEventQueue().Clear();
    std::lock_guard<std::mutex> guard(g_rows_lock);
    g_rows.clear();
  }
  // A monitor that has taken its resume point and watches the log.
  std::unique_ptr<kzq::ErrorlogMonitor> StartMonitor() {
    auto monitor = std::make_unique<kzq::ErrorlogMonitor>(CollectRow, platform::NowUnixSeconds);
    monitor->RequestStarted();
    const uint64_t deadline = platform::MonotonicMillis() + 10000;
    while (!monitor->Watching() && platform::MonotonicMillis() < deadline) platform::SleepMillis(5);
    EXPECT_TRUE(monitor->Watching());
    return monitor;
  }
  // The rows emitted so far, once `count` have come (or 10 s passed).
  static std::vector<std::string> RowsWhen(size_t count) {
    const uint64_t deadline = platform::MonotonicMillis() + 10000;
    for (;;) {
      {
        std::lock_guard<std::mutex> guard(g_rows_lock);
        if (g_rows.size() >= count || platform::MonotonicMillis() > deadline) return g_rows;
      }
      platform::SleepMillis(10);
    }
  }

  static inline kzq_test::TempDir* log_ = nullptr;
  static inline kzq_test::TempDir* home_ = nullptr;
  kzq_test::LogClock clock_;
};

TEST_F(Errorlog, LiveErrorsAtOrAboveTheMinimumSeverityBecomeRows) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  writer.Error("spid51", 18456, 14, 8, "Login failed for user 'sa'.");
  auto monitor = StartMonitor();
  writer.Error("Logon", 18456, 14, 8, "Login failed for user 'app'.")
      .Error("spid52", 823, 17, 2, "I/O error 1117 detected.")
      .SymptomDump("spid53", "Stack Signature for the dump is 0x1. create symptom dump", 3)
      .Error("spid54", 9002, 24, 4, kzq_test::kGermanText);
  const auto rows = RowsWhen(3);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(Field(rows[0], "ERRORID"), "823");
  EXPECT_EQ(IntField(rows[0], "SEVERITY"), 17);
  EXPECT_EQ(IntField(rows[0], "SQLSTATE"), 2);
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "I/O error 1117 detected.");
  EXPECT_EQ(Field(rows[0], "ERRSPID"), "spid52");
  EXPECT_EQ(Field(rows[0], "SERVERID"), "SQL1");
  EXPECT_EQ(IntField(rows[1], "SEVERITY"), 17);  // the symptom dump
  EXPECT_EQ(Field(rows[1], "ERRORID"), "0");
  EXPECT_EQ(Field(rows[2], "UMSGTEXT"), kzq_test::kGermanText);
  EXPECT_EQ(kzq::TheErrorEventQueue().Size(), 3);

  // The last listener leaving parks the monitor and empties the queue.
  monitor->RequestEnded();
  EXPECT_EQ(kzq::TheErrorEventQueue().Size(), 0);
}

TEST_F(Errorlog, AMinimumSeverityFromTheEnvironmentIsHonoured) {
  platform::SetEnv("COLL_ALERT_SEV", "14");
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  auto monitor = StartMonitor();
  writer.Error("Logon", 18456, 13, 8, "below").Error("Logon", 18456, 14, 8, "at the minimum");
  const auto rows = RowsWhen(1);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "at the minimum");
}

// The monitor may start before the server has created its log, which on
// Linux it names "errorlog" while COLL_ERRORLOG says "ERRORLOG".
TEST_F(Errorlog, ALogCreatedAfterTheMonitorStartedIsFoundInAnyCase) {
  auto monitor = StartMonitor();
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("errorlog"), clock_);
  writer.Error("spid52", 823, 17, 2, "I/O error 1117 detected.");
  const auto rows = RowsWhen(1);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "I/O error 1117 detected.");
}

TEST_F(Errorlog, ARestartedMonitorResumesWhereTheLastOneStopped) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  {
    auto monitor = StartMonitor();
      writer.Error("spid51", 601, 19, 1, "first");
    ASSERT_EQ(RowsWhen(1).size(), 1u);
  }
  // The agent is gone, and its queue with it.
  kzq::TheErrorEventQueue().Clear();
  // Written while no agent ran: it must be reported, the first must not.
  writer.Advance(5).Error("spid51", 602, 20, 1, "while down");
  auto monitor = StartMonitor();
  writer.Advance(5).Error("spid51", 603, 21, 1, "after");
  const auto rows = RowsWhen(3);
  std::string texts;
  for (const auto& row : rows) texts += Field(row, "UMSGTEXT") + "|";
  ASSERT_EQ(rows.size(), 3u) << texts;
  EXPECT_EQ(Field(rows[1], "UMSGTEXT"), "while down");
  EXPECT_EQ(Field(rows[2], "UMSGTEXT"), "after");
}

TEST_F(Errorlog, AnErrorWhoseMessageIsNotYetWrittenIsReadWhenItIs) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  auto monitor = StartMonitor();
  writer.Bytes(kzq_test::Utf16Bytes(kzq_test::LogLineText(clock_, "spid60", "Error: 5, Severity: 18, State: 1.") +
                                    "\r\n" + kzq_test::LogLineText(clock_, "spid60", "half a mess")));
  platform::SleepMillis(500);
  writer.Bytes(kzq_test::Utf16Bytes("age\r\n"));
  const auto rows = RowsWhen(1);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "half a message");
}

TEST_F(Errorlog, AReadPastTheEndOfAShrunkenLogFindsNothingAndKeepsItsPlace) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  writer.Error("spid51", 601, 19, 1, "before the offset");
  kzq::ErrorlogContext context;
  context.log_path = log_->File("ERRORLOG");
  context.offset = 1 << 20;
  int emitted = 0;
  EXPECT_EQ(kzq::ParseNewLogText(context, [&emitted](const std::string&) { ++emitted; }, platform::NowUnixSeconds), 0);
  EXPECT_EQ(emitted, 0);
  EXPECT_EQ(context.offset, 1 << 20);
  // From the start (offset 0) the header is skipped and the error found;
  // a second run in the same call, asked for by a change during the first,
  // finds nothing new.
  context.offset = 0;
  context.more_changes = true;
  EXPECT_EQ(kzq::ParseNewLogText(context, [&emitted](const std::string&) { ++emitted; }, platform::NowUnixSeconds), 1);
  EXPECT_FALSE(context.more_changes);
}

TEST_F(Errorlog, TheStartUpScanQueuesOlderErrorsAcrossGenerations) {
  platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_TIME", "1");
  platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_EVENT_ROW", "1");
  // Each generation: a head the scan never reads, then an error, then
  // enough text behind it that the error lies in a whole 2048-byte step.
  for (const char* name : {"ERRORLOG.2", "ERRORLOG.1", "ERRORLOG"}) {
    auto writer = kzq_test::ErrorlogWriter::Create(log_->File(name), clock_);
    writer.InfoLines(40).Error("spid70", 50000, 18, 1, name).Error("spid70", 50001, 17, 1, "at the minimum");
    writer.InfoLines(40);
  }
  auto monitor = StartMonitor();
  const auto rows = RowsWhen(3);
  ASSERT_EQ(rows.size(), 3u);
  // Only strictly above the minimum; the newest file first.
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "ERRORLOG");
  EXPECT_EQ(Field(rows[1], "UMSGTEXT"), "ERRORLOG.1");
  EXPECT_EQ(Field(rows[2], "UMSGTEXT"), "ERRORLOG.2");
}

TEST_F(Errorlog, TheStartUpScanStopsAtItsTimeSpanAndRowBudget) {
  platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_TIME", "60");
  platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_EVENT_ROW", "3");
  // Three hours ago, then within the last hour: only the recent ones count.
  platform::LocalTime now;
  platform::ToLocal(platform::NowUnixSeconds() - 3 * 3600, &now);
  kzq_test::LogClock old{now.year, now.month, now.day, now.hour, now.minute, now.second, 0};
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), old);
  writer.InfoLines(40).Error("spid90", 801, 20, 1, "too old").Advance(2 * 3600 + 1800);
  for (int i = 1; i <= 4; ++i) writer.Advance(60).InfoLines(20).Error("spid90", 810 + i, 20, 1, "recent " + std::to_string(i));
  writer.InfoLines(40);
  auto monitor = StartMonitor();
  std::vector<std::string> texts;
  for (const std::string& row : RowsWhen(3)) texts.push_back(Field(row, "UMSGTEXT"));
  // The newest three, oldest first within a step.
  EXPECT_EQ(texts, (std::vector<std::string>{"recent 4", "recent 3", "recent 2"}));
}

TEST_F(Errorlog, AReportSampleAnswersTheNewestErrorsOnce) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  writer.InfoLines(40).Error("spid80", 701, 20, 3, "one").Error("spid80", 702, 22, 3, "two").InfoLines(40);
  framework::RequestDetail detail;
  detail.table = "KZQERROR";
  framework::ContextInfo context;
  for (int sample = 0; sample < 2; ++sample) {
    kzq::kzq_kzqerror_agent object(&detail, &context, nullptr);
    kzq::ErrorlogReportSample(object);
    ASSERT_EQ(object.NumDataItems(), 2) << "sample " << sample;
    const std::string first(reinterpret_cast<const char*>(object.Data()), object.RowSize());
    EXPECT_EQ(Field(first, "UMSGTEXT"), "one");
  }
}

// Through the framework, as the agent runs it: an event request on the
// error table starts the agent's own monitor and receives each error.
class Listener : public framework::RowConsumer {
 public:
  int Deliver(const framework::tavra& table) override {
    std::lock_guard<std::mutex> guard(lock);
    for (int i = 0; i < table.NumDataItems(); ++i)
      rows.emplace_back(reinterpret_cast<const char*>(table.Data()) + static_cast<size_t>(i) * table.RowSize(),
                        static_cast<size_t>(table.RowSize()));
    return 0;
  }
  std::mutex lock;
  std::vector<std::string> rows;
};

TEST_F(Errorlog, AnEventRequestOnTheErrorTableReceivesEachErrorAtOnce) {
  platform::SetEnv("KVCLOGDIR", home_->Path());
  kzq::AgentLoader();
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  Listener listener;
  framework::RequestDetail detail;
  detail.table = "KZQERROR";
  detail.type = framework::kSampleEvent;
  detail.consumer = &listener;
  const framework::ContextInfo context;
  framework::TableManager* manager = framework::TableManager::Find("KZQERROR");
  ASSERT_NE(manager, nullptr);
  framework::tavra* request = manager->OpenRequest(&detail, &context);
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(kzq::TheErrorlogMonitor().RequestCount(), 1);
  const uint64_t deadline = platform::MonotonicMillis() + 10000;
  while (!kzq::TheErrorlogMonitor().Watching() && platform::MonotonicMillis() < deadline) platform::SleepMillis(5);
  writer.Error("spid99", 9001, 21, 1, "The log for database 'sales' is not available.");
  size_t received = 0;
  while (received == 0 && platform::MonotonicMillis() < deadline) {
    platform::SleepMillis(5);
    std::lock_guard<std::mutex> guard(listener.lock);
    received = listener.rows.size();
  }
  manager->CloseRequest(request);
  EXPECT_EQ(kzq::TheErrorlogMonitor().RequestCount(), 0);
  std::lock_guard<std::mutex> guard(listener.lock);
  ASSERT_EQ(listener.rows.size(), 1u);
  EXPECT_EQ(Field(listener.rows[0], "ERRORID"), "9001");
  EXPECT_EQ(Field(listener.rows[0], "UMSGTEXT"), "The log for database 'sales' is not available.");
}

}  // namespace
