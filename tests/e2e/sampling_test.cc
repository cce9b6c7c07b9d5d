// Samples of every collector table, taken by the agent's code in this
// process against a real kzqcoll replaying rows, or against no collector.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "framework/agent.h"
#include "framework/request.h"
#include "framework/situation.h"
#include "framework/trace.h"
#include "kvc/channel_entry.h"
#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"
#include "kvc/agent_config.h"
#include "kvc/collector_channel.h"
#include "kzq/agent_data_paths.h"
#include "kzq/agent_loader.h"
#include "kzq/catalogue.h"
#include "kzq/sample_rows.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"
#include "platform/service_probe.h"
#include "tests/support/binaries.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;
using testing::Not;

// Keeps the rows a sample delivered.
class Rows : public framework::RowConsumer {
 public:
  int Deliver(const framework::tavra& table) override {
    for (int i = 0; i < table.NumDataItems(); ++i)
      rows.emplace_back(reinterpret_cast<const char*>(table.Data()) + static_cast<size_t>(i) * table.RowSize(),
                        static_cast<size_t>(table.RowSize()));
    return 0;
  }
  std::vector<std::string> rows;
};

std::string FieldOf(const kzq::TableSpec& spec, const std::string& row, const char* name) {
  const int i = spec.IndexOf(name);
  return row.substr(spec.offsets[i], spec.attributes[i].width);
}

int32_t IntOf(const kzq::TableSpec& spec, const std::string& row, const char* name) {
  int32_t value = 0;
  memcpy(&value, row.data() + spec.offsets[spec.IndexOf(name)], sizeof value);
  return value;
}

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
  return text;
}

// Distinct values for every collector attribute of a table, as JSON lines
// and as the collector bytes they must arrive as.
struct ReplayRows {
  std::string jsonl;
  std::vector<std::string> collector_bytes;
};

ReplayRows MakeRows(const kzq::TableSpec& spec, int count) {
  ReplayRows out;
  for (int r = 0; r < count; ++r) {
    std::string bytes(static_cast<size_t>(kzq::CollectorRowLength(spec)), '\0');
    std::string json = "{";
    for (int i = 0; i < spec.attribute_count; ++i) {
      if (spec.offsets[i] < spec.CollectorOffset()) continue;
      char* field = bytes.data() + (spec.offsets[i] - spec.CollectorOffset());
      const char* name = spec.attributes[i].name;
      if (json.size() > 1) json += ", ";
      if (spec.attributes[i].type == kzq::kTypeInt32) {
        const int32_t value = 1000 * (r + 1) + i;
        memcpy(field, &value, sizeof value);
        json += "\"" + std::string(name) + "\": " + std::to_string(value);
      } else {
        std::string text = std::string(name).substr(0, 3) + std::to_string(r) + std::to_string(i);
        text = text.substr(0, spec.attributes[i].width);
        memset(field, ' ', spec.attributes[i].width);
        memcpy(field, text.data(), text.size());
        json += "\"" + std::string(name) + "\": \"" + text + "\"";
      }
    }
    out.jsonl += json + "}\n";
    out.collector_bytes.push_back(bytes);
  }
  return out;
}

class Sampling : public testing::Test {
 protected:
  // The agent's own data paths, as its start makes them; registered tables
  // live as long as the process, and so do their sources.
  static void SetUpTestSuite() {
    static auto* paths = new kzq::AgentDataPaths(kvc::SharedChannel());
    kzq::RegisterAllTables(*paths);
  }
  void SetUp() override {
    // One prefix for the process: the agent's configuration is read once.
    prefix_first_ = "kzqs" + std::to_string(platform::CurrentProcessId());
    platform::SetEnv("COLL_VERSION", prefix_first_);
    platform::SetEnv("COLL_SERVERID", "SQLT");
    platform::SetEnv("COLL_HOSTNAME", "dbhost7");
    platform::SetEnv("COLL_SERVICENUMBER", "61");
    platform::SetEnv("KZQ_NAMED_INSTANCE", "");
    platform::SetEnv("KZQ_RUNTIME_DIR", runtime_.Path());
    platform::SetEnv("KZQ_SERVICE_UNITS", "NONE=none");
    platform::SetEnv("WAIT_TIMEOUT", "2");
    platform::SetEnv("COLL_DBVERSION", "16.0.4135.4");
    kvc::ReadAgentEnvironment(kvc::TheAgentConfig());
    KVCCOMM("initsm");
  }
  void TearDown() override {
    StopCollector();
    KVCCOMM("shut", nullptr);
    for (const std::string& name : kvc::ChannelObjectNames(prefix_first_ + "_SQLT")) {
      platform::RemoveSharedArea(name);
      platform::RemoveSemaphore(name);
    }
    framework::SetTraceLevel(0);
    framework::SetTraceStream(nullptr);
  }

  void StartCollector() {
    int error = 0;
    collector_ = platform::StartProcess({kzq_test::BuiltProgram("collector", "kzqcoll"), "--replay", replay_.Path()},
                                        &error);
    ASSERT_NE(collector_, nullptr) << error;
    ASSERT_TRUE(CollectorAnswers()) << "kzqcoll did not answer its heartbeat";
  }
  // Process start under Wine can outlast an answer's wait: the samples
  // begin once the collector has answered a heartbeat.
  static bool CollectorAnswers() {
    auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
    bool answered = false;
    for (int tries = 0; tries < 15 && !answered; ++tries) {
      auto* heart = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, "HART4"));
      answered = heart != nullptr && heart->numrow == 1;
    }
    KVCCOMM("term", anchor);
    return answered;
  }
  void StopCollector() {
    if (collector_ == nullptr) return;
    collector_->Kill();
    collector_->Wait();
    collector_.reset();
  }
  std::vector<std::string> Sample(const kzq::TableSpec& spec, const char* filter_text = nullptr) {
    Rows rows;
    framework::RequestDetail detail;
    detail.table = spec.key;
    detail.consumer = &rows;
    std::optional<framework::SituationFilter> filter;
    if (filter_text != nullptr) {
      std::string error;
      filter = framework::SituationFilter::Parse(filter_text, LookupFor(spec), &error);
      EXPECT_TRUE(filter.has_value()) << error;
      detail.filter = filter ? &*filter : nullptr;
    }
    EXPECT_EQ(framework::RunReportSample(detail, nullptr, nullptr), framework::kRequestOk);
    return rows.rows;
  }
  static framework::AttributeKindLookup LookupFor(const kzq::TableSpec& spec) {
    return [&spec](std::string_view name) -> std::optional<framework::AttributeKind> {
      const int i = spec.IndexOf(name);
      if (i < 0) return std::nullopt;
      return spec.attributes[i].type == kzq::kTypeText ? framework::AttributeKind::kText
                                                       : framework::AttributeKind::kInteger;
    };
  }
  void MarkServiceRunning(const char* service) {
    kzq_test::WriteFile(platform::PidFilePath(service), std::to_string(platform::CurrentProcessId()));
  }

  std::string prefix_first_;
  kzq_test::TempDir replay_, runtime_;
  std::unique_ptr<platform::ChildProcess> collector_;
};

TEST_F(Sampling, EveryCollectorTableReturnsItsReplayedRowsCompletedByTheAgent) {
  std::vector<const kzq::TableSpec*> tables;
  for (const kzq::TableSpec* spec : kzq::kCatalogue)
    if (spec->form != kzq::SampleForm::kPushed) tables.push_back(spec);
  ASSERT_EQ(tables.size(), 32u);
  std::vector<ReplayRows> expected;
  for (const kzq::TableSpec* spec : tables) {
    expected.push_back(MakeRows(*spec, 2));
    kzq_test::WriteFile(replay_.File(std::string(spec->name) + ".jsonl"), expected.back().jsonl);
  }
  StartCollector();
  char host[64];
  DetermineLocalHost(host, sizeof host);
  std::string origin = host;
  origin.resize(64, ' ');
  for (size_t t = 0; t < tables.size(); ++t) {
    const kzq::TableSpec& spec = *tables[t];
    SCOPED_TRACE(spec.name);
    const std::vector<std::string> rows = Sample(spec);
    ASSERT_EQ(rows.size(), 2u);
    for (int r = 0; r < 2; ++r) {
      EXPECT_EQ(FieldOf(spec, rows[r], "ORIGINNODE"), origin);
      const std::string stamp = FieldOf(spec, rows[r], "TIMESTAMP");
      EXPECT_EQ(stamp.find_first_not_of("0123456789"), std::string::npos) << stamp;
      if (spec.IndexOf("ROWNO") >= 0) {
        EXPECT_EQ(IntOf(spec, rows[r], "SAMPLENO"), 1);
        EXPECT_EQ(IntOf(spec, rows[r], "ROWNO"), r + 1);
      }
      EXPECT_EQ(rows[r].substr(static_cast<size_t>(spec.CollectorOffset())), expected[t].collector_bytes[r]);
    }
  }
}

TEST_F(Sampling, AFilterKeepsOnlyTheMatchingRows) {
  kzq_test::WriteFile(replay_.File("kzqdbd.jsonl"),
                      "{\"DBNAME\": \"master\", \"DBSIZE\": 512}\n{\"DBNAME\": \"tempdb\", \"DBSIZE\": 64}\n");
  StartCollector();
  const auto rows = Sample(kzq::kzqdbd_spec, "DBSIZE LT 100");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Trimmed(FieldOf(kzq::kzqdbd_spec, rows[0], "DBNAME")), "tempdb");
  // The row number is its place among the collector's rows, before the filter.
  EXPECT_EQ(IntOf(kzq::kzqdbd_spec, rows[0], "ROWNO"), 2);
}

// The collector sends texts in the server's code page (1252 by default);
// consumers and filters see UTF-8, and a text that grows past its field is
// cut at a character, never inside one.
TEST_F(Sampling, TextsInTheServersCodePageReachConsumersAsUtf8) {
  const std::string long_name(29, 'x');  // with the e: 30 bytes sent, 31 in UTF-8
  kzq_test::WriteFile(replay_.File("kzqdbd.jsonl"), "{\"DBNAME\": \"Caf\u00e9 Z\u00fcrich\"}\n{\"DBNAME\": \"" +
                                                        long_name + "\u00e9\"}\n");
  StartCollector();
  const auto rows = Sample(kzq::kzqdbd_spec, "DBNAME EQ 'Caf\u00e9 Z\u00fcrich'");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Trimmed(FieldOf(kzq::kzqdbd_spec, rows[0], "DBNAME")), "Caf\u00e9 Z\u00fcrich");
  const auto all = Sample(kzq::kzqdbd_spec);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(Trimmed(FieldOf(kzq::kzqdbd_spec, all[1], "DBNAME")), long_name);
}

TEST_F(Sampling, WithoutACollectorServerTablesSayWhyAndOthersAreEmpty) {
  std::string trace_path = runtime_.File("trace.txt");
  FILE* trace = fopen(trace_path.c_str(), "w");
  framework::SetTraceStream(trace);
  framework::SetTraceLevel(framework::kTraceFlow);
  kzq::SetAgentStartTime(platform::NowUnixSeconds() - 500);
  const auto srvre = Sample(kzq::kzqsrvre_spec);
  kzq::SetAgentStartTime(platform::NowUnixSeconds() - 600);
  const auto srvd = Sample(kzq::kzqsrvd_spec);
  EXPECT_EQ(Sample(kzq::kzqsrvr_spec).size(), 1u);
  EXPECT_EQ(Sample(kzq::kzqsrvs_spec).size(), 1u);
  const auto dbd = Sample(kzq::kzqdbd_spec);
  framework::SetTraceStream(nullptr);
  fclose(trace);
  const std::string traced = kzq_test::ReadFile(trace_path);

  EXPECT_TRUE(dbd.empty());
  ASSERT_EQ(srvre.size(), 1u);
  ASSERT_EQ(srvd.size(), 1u);
  const kzq::TableSpec& spec = kzq::kzqsrvre_spec;
  EXPECT_EQ(Trimmed(FieldOf(spec, srvre[0], "SERVERID")), "SQLT");
  EXPECT_EQ(Trimmed(FieldOf(spec, srvre[0], "HOSTNAME")), "dbhost7");
  EXPECT_EQ(FieldOf(spec, srvre[0], "COLLSTATUS"), std::string("Inactive  \0\0", 12));
  EXPECT_EQ(FieldOf(spec, srvre[0], "SAMPTIME"), FieldOf(spec, srvre[0], "TIMESTAMP"));
  EXPECT_EQ(IntOf(spec, srvre[0], "ROWNO"), 1);
  // Everything the collector would have sent stays 0xFF.
  EXPECT_EQ(FieldOf(spec, srvre[0], "SRVSTATUS"), std::string(12, '\xFF'));
  EXPECT_EQ(IntOf(spec, srvre[0], "NUMDBS"), -1);
  EXPECT_THAT(traced, HasSubstr("Collector Inactive, Collector Initializing"));
  EXPECT_THAT(traced, HasSubstr("Collector Inactive, Data Collector Timeout"));
  EXPECT_THAT(traced, HasSubstr("Collector service : <KZQCOLL61> is down.(kvcsampl)"));
  EXPECT_THAT(traced, HasSubstr("(SQL server service [MSSQLSERVER] down) tblname = [KZQSRVRE]"));
}

TEST_F(Sampling, RepeatedFailuresAreLoggedOnEverySecondSample) {
  kzq_test::LogCapture log;
  // The toggle is shared by all tables and outlives each test: whichever
  // sample it starts on, reports come on alternate samples.
  std::vector<int> reported;
  size_t seen = 0;
  for (int i = 0; i < 4; ++i) {
    Sample(i % 2 == 1 ? kzq::kzqdbs_spec : kzq::kzqdbd_spec);
    const std::string text = log.Text();
    int reports = 0;
    for (size_t at = text.find("AIC0003W", seen); at != std::string::npos; at = text.find("AIC0003W", at + 1))
      ++reports;
    seen = text.size();
    reported.push_back(reports);
  }
  EXPECT_TRUE(reported == (std::vector<int>{1, 0, 1, 0}) || reported == (std::vector<int>{0, 1, 0, 1}))
      << testing::PrintToString(reported);
  // A time-out (status 20 and above) comes without the details of AIC0004.
  EXPECT_THAT(log.Text(), Not(HasSubstr("AIC0004")));
}

TEST_F(Sampling, TheSummaryTableReportsBothServicesThroughTheHeartbeat) {
  kzq_test::WriteFile(replay_.File("kzqsrvs.jsonl"), "");
  StartCollector();
  const kzq::TableSpec& spec = kzq::kzqsrvs_spec;
  auto rows = Sample(spec);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "SRVTYPE")), "SQL Server");
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "SQLVER")), "16.0.4135.4");
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "SRVVERSN")), "16.0.413");
#ifdef _WIN32
  // Neither runs as a service of the service manager here.
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "SRVSTATUS")), "Unknown");
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "COLLSTATUS")), "Inactive");
#else
  // The collector's pid file says it runs; SQL Server has none yet.
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "SRVSTATUS")), "Inactive");
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "COLLSTATUS")), "Active");

  MarkServiceRunning("MSSQLSERVER");
  rows = Sample(spec);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "SRVSTATUS")), "Active");

  // A named instance is its own service.
  platform::SetEnv("KZQ_NAMED_INSTANCE", "1");
  rows = Sample(spec);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(Trimmed(FieldOf(spec, rows[0], "SRVSTATUS")), "Inactive");
  MarkServiceRunning("MSSQL$SQLT");
  rows = Sample(spec);
  EXPECT_EQ(Trimmed(FieldOf(spec, rows.at(0), "SRVSTATUS")), "Active");
#endif
}

// A collector whose answers do not match what it claims.
class GarbageCollector : public Sampling {
 protected:
  void Answer(const std::vector<std::string>& args) {
    std::vector<std::string> argv{kzq_test::BuiltProgram("tests", "kvc_channel_peer"), prefix_first_, "SQLT"};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::string ready = runtime_.File("peer.ready");
    std::remove(ready.c_str());  // left by the peer before
    platform::SetEnv("KVC_PEER_READY_FILE", ready);
    int error = 0;
    peer_ = platform::StartProcess(argv, &error);
    platform::SetEnv("KVC_PEER_READY_FILE", "");
    ASSERT_NE(peer_, nullptr) << error;
    platform::FileStatus st;
    const uint64_t deadline = platform::MonotonicMillis() + 30000;
    while (platform::StatPath(ready, &st) != 0 && platform::MonotonicMillis() < deadline) platform::SleepMillis(20);
  }
  void TearDown() override {
    if (peer_ != nullptr) peer_->Wait();
    Sampling::TearDown();
  }
  std::unique_ptr<platform::ChildProcess> peer_;
};

// Each answer is refused with a line naming the table and the numbers, and
// the sample goes on without its rows.
TEST_F(GarbageCollector, AnswersThatDoNotAddUpAreRefused) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"answer", "3", "100"}, "Rows of KZQDBD refused: 3 rows of 100 bytes sent, rows of 2619 bytes expected"},
      // counts the bytes do not cover, and a negative count
      {{"die", "1073741824", "1073741824"}, "Answer to KZQDBD refused: 1073741824 rows of 1073741824 bytes claimed"},
      {{"die", "-5", "2619"}, "Answer to KZQDBD refused: -5 rows of 2619 bytes claimed"},
      {{"short", "30", "2619", "5238"}, "Answer to KZQDBD refused: 30 rows of 2619 bytes claimed, 5238 bytes received"},
  };
  for (const auto& [args, refusal] : cases) {
    kzq_test::LogCapture log;
    ASSERT_NO_FATAL_FAILURE(Answer(args));
    EXPECT_TRUE(Sample(kzq::kzqdbd_spec).empty()) << refusal;
    EXPECT_THAT(log.Text(), HasSubstr(refusal));
    peer_->Wait();
    peer_.reset();
  }
}

}  // namespace
