// The errorlog monitor against real UTF-16 logs written as the database
// server writes them: live errors, the resume point across restarts, the
// start-up scan over the log's generations and the report sample.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "framework/table_manager.h"
#include "framework/trace.h"
#include "kvc/agent_config.h"
#include "kvc/collector_channel.h"
#include "kzq/agent_data_paths.h"
#include "kzq/agent_loader.h"
#include "kzq/catalogue.h"
#include "kzq/error_event.h"
#include "kzq/errorlog_monitor.h"
#include "kzq/errorlog_queue.h"
#include "kzq/errorlog_state.h"
#include "kzq/tables.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "tests/support/errorlog_writer.h"
#include "tests/support/eventually.h"
#include "tests/support/table_rows.h"
#include "tests/support/temp_dir.h"
#include "tests/support/trace_capture.h"

namespace {

// The rows the monitor emits, as a listener would see them.
class CollectingSink final : public kzq::ErrorEventSink {
 public:
  void Emit(const std::string& row, const std::string&) override {
    std::lock_guard<std::mutex> guard(lock);
    rows.push_back(row);
  }
  std::mutex lock;
  std::vector<std::string> rows;
};

std::string Field(const std::string& row, const char* name) {
  return kzq_test::FieldText(kzq::kzqerror_spec, row, name);
}
int32_t IntField(const std::string& row, const char* name) {
  return kzq_test::FieldInt(kzq::kzqerror_spec, row, name);
}

// A counter of the monitor's that has no labels.
uint64_t Counted(const kzq::ErrorlogMonitor& monitor, const std::string& family) {
  for (const framework::CounterFamily& f : monitor.Counters())
    if (f.name == family) return f.samples.at(0).second;
  ADD_FAILURE() << "no counter " << family;
  return 0;
}

// Ten seconds of patience for what the monitor's thread does.
template <typename F>
bool Soon(F done) {
  return kzq_test::Eventually(done, 10000, 5);
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
    queue_.Clear();
    std::lock_guard<std::mutex> guard(sink_.lock);
    sink_.rows.clear();
  }
  // A monitor that has taken its resume point and watches the log, started
  // as a new agent is: with an empty queue.
  std::unique_ptr<kzq::ErrorlogMonitor> StartMonitor() {
    queue_.Clear();
    auto monitor = std::make_unique<kzq::ErrorlogMonitor>(sink_, queue_, platform::NowUnixSeconds);
    monitor->RequestStarted();
    EXPECT_TRUE(Soon([&] { return monitor->Watching(); }));
    return monitor;
  }
  // The rows emitted so far, once `count` have come (or 10 s passed).
  std::vector<std::string> RowsWhen(size_t count) {
    std::vector<std::string> rows;
    Soon([&] {
      std::lock_guard<std::mutex> guard(sink_.lock);
      rows = sink_.rows;
      return rows.size() >= count;
    });
    return rows;
  }
  // The rows of the events the start-up scan queued for report samples.
  std::vector<std::string> QueuedRows() {
    std::vector<std::string> rows;
    for (const std::string& event : queue_.Snapshot())
      rows.push_back(kzq::BuildErrorRow(event, "", nullptr, nullptr, ""));
    return rows;
  }
  // The messages of those rows. A test ends with an error written last, so
  // that a row reported twice or invented would show before it.
  std::vector<std::string> TextsWhen(size_t count) {
    std::vector<std::string> texts;
    for (const std::string& row : RowsWhen(count)) texts.push_back(Field(row, "UMSGTEXT"));
    return texts;
  }
  // The monitor's failure lines go to a file of the test's own.
  void TraceFailures() { trace_.emplace(framework::kTraceError); }
  // How many traced lines hold `text`, once at least one does (or 10 s passed).
  int TracedLines(const std::string& text) {
    int lines = 0;
    Soon([&] {
      std::istringstream traced(trace_->Text());
      lines = 0;
      for (std::string line; std::getline(traced, line);) lines += line.find(text) != std::string::npos ? 1 : 0;
      return lines > 0;
    });
    return lines;
  }

  // ERRORLOG.1 as an older generation: its error lies beyond every offset
  // read here, so a read of it in place of the log would invent an event.
  void WriteOlderGeneration() {
    kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG.1"), clock_).InfoLines(200).Error("spid40", 40, 20, 1, "old");
  }

  static inline kzq_test::TempDir* log_ = nullptr;
  static inline kzq_test::TempDir* home_ = nullptr;
  kzq_test::LogClock clock_;
  CollectingSink sink_;
  kzq::ErrorEventQueue queue_;
  std::optional<kzq_test::TraceCapture> trace_;
};

TEST_F(Errorlog, LiveErrorsAtOrAboveTheMinimumSeverityBecomeRows) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  writer.Error("spid51", 18456, 14, 8, "Login failed for user 'sa'.");
  auto monitor = StartMonitor();
  writer.Error("Logon", 18456, 14, 8, "Login failed for user 'app'.")
      .Error("spid52", 823, 17, 2, "I/O error 1117 detected.")
      .SymptomDump("spid53", "Stack Signature for the dump is 0x1. create symptom dump", 3)
      .Bytes(std::string(4096, '\0'))  // a file grown ahead of its text: the date still counts
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
  EXPECT_EQ(Field(rows[2], "MSGTIME"), Field(rows[0], "MSGTIME"));
  EXPECT_EQ(queue_.Size(), 3);

  // The last listener leaving parks the monitor and empties the queue.
  monitor->RequestEnded();
  EXPECT_EQ(queue_.Size(), 0);
}

// The monitor may start before the server has created its log, which on
// Linux it names "errorlog" while COLL_ERRORLOG says "ERRORLOG". A minimum
// severity from the environment is honoured.
TEST_F(Errorlog, ALogCreatedAfterTheMonitorStartedIsFoundInAnyCase) {
  platform::SetEnv("COLL_ALERT_SEV", "14");
  auto monitor = StartMonitor();
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("errorlog"), clock_);
  writer.Error("Logon", 18456, 13, 8, "below").Error("Logon", 18456, 14, 8, "at the minimum");
  EXPECT_EQ(TextsWhen(1), std::vector<std::string>{"at the minimum"});
}

#ifndef _WIN32
// More changes than the system keeps (many files made in the log's
// directory while the monitor was parked and did not read them): the
// monitor reads the log again and keeps watching, so the error written
// meanwhile still arrives, and so does the next.
TEST_F(Errorlog, ChangesBeyondWhatTheSystemKeepsDoNotStopTheWatch) {
  TraceFailures();
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  auto monitor = StartMonitor();
  monitor->RequestEnded();
  platform::SleepMillis(500);  // parked: the system keeps the changes alone
  for (int i = 0; i < 20000; ++i) std::ofstream(log_->File("f" + std::to_string(i)));
  writer.Error("spid52", 823, 17, 2, "amid the crowd");
  monitor->RequestStarted();
  EXPECT_EQ(TextsWhen(1), std::vector<std::string>{"amid the crowd"});
  writer.Advance(1).Error("spid52", 824, 17, 2, "after the crowd");
  EXPECT_EQ(TextsWhen(2), (std::vector<std::string>{"amid the crowd", "after the crowd"}));
  EXPECT_GE(TracedLines("came faster than they could be told"), 1);
  EXPECT_GE(Counted(*monitor, "kzq_errorlog_watch_overflows_total"), 1u);
}
#endif

TEST_F(Errorlog, ARestartedMonitorResumesWhereTheLastOneStopped) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  {
    auto monitor = StartMonitor();
    writer.Error("spid51", 601, 19, 1, "first");
    // The last thing read before the stop: a restart reads its last line
    // again, which must not start the dump over.
    writer.Advance(1).SymptomDump("spid52", "create symptom dump", 2);
    ASSERT_EQ(RowsWhen(2).size(), 2u);
  }
  // Written while no agent ran: it must be reported, the first must not.
  writer.Advance(5).Error("spid51", 602, 20, 1, "while down");
  auto monitor = StartMonitor();
  writer.Advance(5).Error("spid51", 603, 21, 1, "after");
  const std::vector<std::string> texts = TextsWhen(4);
  ASSERT_EQ(texts.size(), 4u);
  EXPECT_EQ(texts[2], "while down");
  EXPECT_EQ(texts[3], "after");
}

TEST_F(Errorlog, AnErrorWhoseMessageIsNotYetWrittenIsReadWhenItIs) {
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  auto monitor = StartMonitor();
  const uint64_t reads = Counted(*monitor, "kzq_errorlog_reads_total");
  writer.Bytes(kzq_test::Utf16Bytes(kzq_test::LogLineText(clock_, "spid60", "Error: 5, Severity: 18, State: 1.") +
                                    "\r\n" + kzq_test::LogLineText(clock_, "spid60", "half a mess")));
  ASSERT_TRUE(Soon([&] { return Counted(*monitor, "kzq_errorlog_reads_total") > reads; }));
  writer.Bytes(kzq_test::Utf16Bytes("age\r\n"));
  const auto rows = RowsWhen(1);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "half a message");
}

// The server cycles its log: ERRORLOG.1 moves up to ERRORLOG.2, ERRORLOG
// becomes ERRORLOG.1 and a new, shorter ERRORLOG starts with its header.
TEST_F(Errorlog, ACycledLogIsFinishedInItsOldGenerationThenReadFromTheNewStart) {
  WriteOlderGeneration();
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  writer.InfoLines(40);
  {
    auto monitor = StartMonitor();
    writer.Advance(1).Error("spid51", 601, 19, 1, "before the cycle");
    ASSERT_EQ(RowsWhen(1).size(), 1u);
    // Written as the server cycles the log: read in ERRORLOG.1 unless the
    // monitor got to it first.
    writer.Advance(1).Error("spid52", 602, 19, 1, "last of the old log");
    writer = kzq_test::ErrorlogWriter::Cycle(log_->File("ERRORLOG"), writer.Advance(1).Clock());
    writer.Error("spid53", 603, 19, 1, "first of the new log");
    ASSERT_EQ(TextsWhen(3),
              (std::vector<std::string>{"before the cycle", "last of the old log", "first of the new log"}));
  }
  // The state file followed the log into its new generation.
  auto monitor = StartMonitor();
  writer.Advance(1).Error("spid54", 604, 19, 1, "after a restart");
  EXPECT_EQ(TextsWhen(4), (std::vector<std::string>{"before the cycle", "last of the old log", "first of the new log",
                                                    "after a restart"}));
}

// What happened to the log while the agent was down, and what a restarted
// monitor must report before the error written after its restart: what
// was written meanwhile, wherever the server put it, and nothing twice -
// but for a state file that no longer means anything, which reads the log
// from its start again.
TEST_F(Errorlog, WhateverHappenedWhileTheAgentWasDownIsReadOnce) {
  using Writer = kzq_test::ErrorlogWriter;
  const std::string log = log_->File("ERRORLOG");
  const struct {
    const char* name;
    std::function<void(Writer&)> while_down;
    std::vector<std::string> expected;
  } scenarios[] = {
      {"cycled once",
       [&](Writer& w) {
         w.Advance(1).Error("spid52", 602, 19, 1, "old log");
         w = Writer::Cycle(log, w.Advance(1).Clock());
         w.Error("spid53", 603, 19, 1, "new log");
       },
       {"before", "old log", "new log"}},
      {"cycled twice",
       [&](Writer& w) {
         w.Advance(1).Error("spid52", 602, 19, 1, "old log");
         w = Writer::Cycle(log, w.Advance(1).Clock());
         w.Error("spid53", 603, 19, 1, "middle log");
         w = Writer::Cycle(log, w.Advance(1).Clock());
         w.Error("spid54", 604, 19, 1, "new log");
       },
       {"before", "old log", "middle log", "new log"}},
      {"replaced by a longer log",
       [&](Writer& w) {
         w = Writer::Create(log, w.Advance(1).Clock());
         w.Error("spid52", 602, 19, 1, "early in the new log").InfoLines(80);
       },
       {"before", "early in the new log"}},
      {"state file damaged",
       [&](Writer&) {
         kzq::WriteResumePoint(kzq::ErrorStateFilePath(home_->Path(), "kvc", "SQL1"),
                               {u"2026-01-01", u"00:00:00.00", 12345, 3});
       },
       {"before", "before"}},
  };
  for (const auto& scenario : scenarios) {
    SCOPED_TRACE(scenario.name);
    SetUp();
    auto writer = Writer::Create(log, clock_);
    writer.InfoLines(40);
    {
      auto monitor = StartMonitor();
      writer.Advance(1).Error("spid51", 601, 19, 1, "before");
      ASSERT_EQ(RowsWhen(1).size(), 1u);
    }
    scenario.while_down(writer);
    auto monitor = StartMonitor();
    writer.Advance(1).Error("spid59", 609, 19, 1, "after the restart");
    std::vector<std::string> expected = scenario.expected;
    expected.push_back("after the restart");
    EXPECT_EQ(TextsWhen(expected.size()), expected);
  }
}

// Truncated in place and written afresh, then removed and made again: each
// time the new text is read from its start, and ERRORLOG.1, which is not
// the log that was read, is left alone.
TEST_F(Errorlog, ATruncatedOrRemovedLogIsReadFromItsNewStart) {
  WriteOlderGeneration();
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  writer.InfoLines(40);
  TraceFailures();
  auto monitor = StartMonitor();
  writer.Advance(1).Error("spid51", 601, 19, 1, "before");
  ASSERT_EQ(RowsWhen(1).size(), 1u);
  writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), writer.Advance(1).Clock());
  writer.Error("spid52", 602, 19, 1, "after the truncation");
  ASSERT_EQ(RowsWhen(2).size(), 2u);
  EXPECT_GE(TracedLines("no longer holds what was read"), 1);
  EXPECT_EQ(Counted(*monitor, "kzq_errorlog_truncations_total"), 1u);

  kzq_test::ErrorlogWriter::Remove(log_->File("ERRORLOG"));
  EXPECT_GE(TracedLines("cannot be opened"), 1);
  writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), writer.Advance(1).Clock());
  writer.Error("spid53", 603, 19, 1, "made again");
  EXPECT_EQ(TextsWhen(3), (std::vector<std::string>{"before", "after the truncation", "made again"}));
  // Waiting for the log to come back reads nothing on its own.
  EXPECT_LE(TracedLines("cannot be opened"), 3);
}

// The state file cannot be made (a file stands where its directory
// belongs): events still flow, the failure is traced once, and the resume
// point is saved again once the way is clear.
TEST_F(Errorlog, EventsFlowWhileTheStateFileCannotBeWritten) {
  const std::filesystem::path state = kzq::ErrorStateFilePath(home_->Path(), "kvc", "SQL1");
  std::filesystem::create_directories(state.parent_path().parent_path());
  kzq_test::WriteFile(state.parent_path().string(), "in the way");
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  TraceFailures();
  {
    auto monitor = StartMonitor();
    writer.Advance(1).Error("spid51", 601, 19, 1, "one");
    writer.Advance(1).Error("spid52", 602, 19, 1, "two");
    ASSERT_EQ(RowsWhen(2).size(), 2u);
    writer.Advance(1).Error("spid53", 603, 19, 1, "three");
    ASSERT_EQ(RowsWhen(3).size(), 3u);
    EXPECT_EQ(TracedLines("Resume point cannot be written to"), 1);
    EXPECT_GE(Counted(*monitor, "kzq_errorlog_state_write_failures_total"), 2u);  // one per event at least
    std::filesystem::remove(state.parent_path());
    writer.Advance(1).Error("spid54", 604, 19, 1, "four");
    ASSERT_EQ(RowsWhen(4).size(), 4u);
    EXPECT_EQ(TracedLines("Resume point written to"), 1);
  }
  auto monitor = StartMonitor();
  writer.Advance(1).Error("spid55", 605, 19, 1, "after a restart");
  EXPECT_EQ(TextsWhen(5), (std::vector<std::string>{"one", "two", "three", "four", "after a restart"}));
}

TEST_F(Errorlog, TheStartUpScanQueuesOlderErrorsAcrossGenerations) {
  platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_TIME", "1");
  platform::SetEnv("COLL_ERRORLOG_STARTUP_MAX_EVENT_ROW", "1");
  // Each generation: a head the scan never reads, then an error, then
  // enough text behind it that the error lies in a whole 2048-byte step.
  std::optional<kzq_test::ErrorlogWriter> writer;
  for (const char* name : {"ERRORLOG.2", "ERRORLOG.1", "ERRORLOG"}) {
    writer = kzq_test::ErrorlogWriter::Create(log_->File(name), clock_);
    writer->InfoLines(40).Error("spid70", 50000, 18, 1, name).Error("spid70", 50001, 17, 1, "at the minimum");
    // Undated continuation lines neither qualify nor end the scan.
    writer->Bytes(kzq_test::Utf16Bytes("    a continuation line without a date\r\n")).InfoLines(40);
  }
  auto monitor = StartMonitor();
  const auto rows = QueuedRows();
  ASSERT_EQ(rows.size(), 3u);
  // Only strictly above the minimum; the newest file first.
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "ERRORLOG");
  EXPECT_EQ(Field(rows[1], "UMSGTEXT"), "ERRORLOG.1");
  EXPECT_EQ(Field(rows[2], "UMSGTEXT"), "ERRORLOG.2");
  // The past is for report samples: a listener gets only what comes next.
  writer->Advance(1).Error("spid71", 50002, 20, 1, "after the start");
  EXPECT_EQ(TextsWhen(1), std::vector<std::string>{"after the start"});
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
  for (const std::string& row : QueuedRows()) texts.push_back(Field(row, "UMSGTEXT"));
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
    kzq::ErrorlogReportSample(object, queue_, false);
    ASSERT_EQ(object.NumDataItems(), 2) << "sample " << sample;
    const std::string first(reinterpret_cast<const char*>(object.Data()), object.RowSize());
    EXPECT_EQ(Field(first, "UMSGTEXT"), "one");
  }
  // MAXREADSZ_ERRORLOG bounds how far back from the end a scan reads.
  kvc::AgentConfig& config = kvc::TheAgentConfig();
  const int32_t configured = config.maxReadErrorLog;
  config.maxReadErrorLog = 2048;
  kzq::kzq_kzqerror_agent bounded(&detail, &context, nullptr);
  kzq::ErrorlogReportSample(bounded, queue_, false);
  config.maxReadErrorLog = configured;
  EXPECT_EQ(bounded.NumDataItems(), 0);
}

// Through the framework, as the agent runs it: an event request on the
// error table starts the agent's own monitor and receives each error.
TEST_F(Errorlog, AnEventRequestOnTheErrorTableReceivesEachErrorAtOnce) {
  // Registered tables live as long as the process, and so do their sources.
  static auto* paths = new kzq::AgentDataPaths(kvc::SharedChannel());
  kzq::RegisterAllTables(*paths);
  kzq::ErrorlogMonitor& monitor = paths->Monitor();
  auto writer = kzq_test::ErrorlogWriter::Create(log_->File("ERRORLOG"), clock_);
  kzq_test::CollectedRows listener;
  framework::RequestDetail detail;
  detail.table = "KZQERROR";
  detail.type = framework::kSampleEvent;
  detail.consumer = &listener;
  const framework::ContextInfo context;
  framework::TableManager* manager = framework::TableManager::Find("KZQERROR");
  ASSERT_NE(manager, nullptr);
  framework::tavra* request = manager->OpenRequest(&detail, &context);
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(monitor.RequestCount(), 1);
  EXPECT_TRUE(Soon([&] { return monitor.Watching(); }));
  writer.Error("spid99", 9001, 21, 1, "The log for database 'sales' is not available.");
  EXPECT_TRUE(Soon([&] { return !listener.Rows().empty(); }));
  manager->CloseRequest(request);
  EXPECT_EQ(monitor.RequestCount(), 0);
  const std::vector<std::string> rows = listener.Rows();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Field(rows[0], "ERRORID"), "9001");
  EXPECT_EQ(Field(rows[0], "UMSGTEXT"), "The log for database 'sales' is not available.");
}

}  // namespace
