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
#include "tests/e2e/channel_peer_process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/log_capture.h"
#include "tests/support/started_programs.h"
#include "tests/support/table_rows.h"
#include "tests/support/temp_dir.h"
#include "tests/support/trace_capture.h"

namespace {

using testing::HasSubstr;
using testing::Not;

using kzq_test::FieldBytes;
using kzq_test::FieldInt;
using kzq_test::FieldText;

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
    kzq_test::Stop(collector_);
    KVCCOMM("shut", nullptr);
    for (const std::string& name : kvc::ChannelObjectNames(prefix_first_ + "_SQLT")) {
      platform::RemoveSharedArea(name);
      platform::RemoveSemaphore(name);
    }
  }

  void StartCollector() {
    collector_ = kzq_test::StartReplayCollector(replay_.Path());
    ASSERT_NE(collector_, nullptr);
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
  std::vector<std::string> Sample(const kzq::TableSpec& spec, const char* filter_text = nullptr) {
    kzq_test::CollectedRows rows;
    framework::RequestDetail detail;
    detail.table = spec.key;
    detail.consumer = &rows;
    const auto filter = filter_text ? kzq_test::FilterFor(spec, filter_text) : std::nullopt;
    detail.filter = filter ? &*filter : nullptr;
    EXPECT_EQ(framework::RunReportSample(detail, nullptr, nullptr), framework::kRequestOk);
    return rows.Rows();
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
      EXPECT_EQ(FieldBytes(spec, rows[r], "ORIGINNODE"), origin);
      const std::string stamp = FieldBytes(spec, rows[r], "TIMESTAMP");
      EXPECT_EQ(stamp.find_first_not_of("0123456789"), std::string::npos) << stamp;
      if (spec.IndexOf("ROWNO") >= 0) {
        EXPECT_EQ(FieldInt(spec, rows[r], "SAMPLENO"), 1);
        EXPECT_EQ(FieldInt(spec, rows[r], "ROWNO"), r + 1);
      }
      EXPECT_EQ(rows[r].substr(static_cast<size_t>(spec.CollectorOffset())), expected[t].collector_bytes[r]);
    }
  }
}

// A filter keeps only the matching rows. The collector sends texts in the
// server's code page (1252 by default); consumers and filters see UTF-8,
// and a text that grows past its field is cut at a character, never inside
// one.
TEST_F(Sampling, AFilterKeepsTheMatchingRowsAndTextsReachItAsUtf8) {
  const std::string long_name(29, 'x');  // with the e: 30 bytes sent, 31 in UTF-8
  kzq_test::WriteFile(replay_.File("kzqdbd.jsonl"), "{\"DBNAME\": \"master\", \"DBSIZE\": 512}\n"
                                                    "{\"DBNAME\": \"tempdb\", \"DBSIZE\": 64}\n"
                                                    "{\"DBNAME\": \"Caf\u00e9 Z\u00fcrich\", \"DBSIZE\": 512}\n"
                                                    "{\"DBNAME\": \"" + long_name + "\u00e9\", \"DBSIZE\": 512}\n");
  StartCollector();
  auto rows = Sample(kzq::kzqdbd_spec, "DBSIZE LT 100");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(FieldText(kzq::kzqdbd_spec, rows[0], "DBNAME"), "tempdb");
  // The row number is its place among the collector's rows, before the filter.
  EXPECT_EQ(FieldInt(kzq::kzqdbd_spec, rows[0], "ROWNO"), 2);
  rows = Sample(kzq::kzqdbd_spec, "DBNAME EQ 'Caf\u00e9 Z\u00fcrich'");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(FieldText(kzq::kzqdbd_spec, rows[0], "DBNAME"), "Caf\u00e9 Z\u00fcrich");
  rows = Sample(kzq::kzqdbd_spec);
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(FieldText(kzq::kzqdbd_spec, rows[3], "DBNAME"), long_name);
}

TEST_F(Sampling, WithoutACollectorServerTablesSayWhyAndOthersAreEmpty) {
  kzq_test::TraceCapture trace(framework::kTraceFlow);
  kzq::SetAgentStartTime(platform::NowUnixSeconds() - 500);
  const auto srvre = Sample(kzq::kzqsrvre_spec);
  kzq::SetAgentStartTime(platform::NowUnixSeconds() - 600);
  const auto srvd = Sample(kzq::kzqsrvd_spec);
  EXPECT_EQ(Sample(kzq::kzqsrvr_spec).size(), 1u);
  EXPECT_EQ(Sample(kzq::kzqsrvs_spec).size(), 1u);
  const auto dbd = Sample(kzq::kzqdbd_spec);
  const std::string traced = trace.Text();

  EXPECT_TRUE(dbd.empty());
  ASSERT_EQ(srvre.size(), 1u);
  ASSERT_EQ(srvd.size(), 1u);
  const kzq::TableSpec& spec = kzq::kzqsrvre_spec;
  EXPECT_EQ(FieldText(spec, srvre[0], "SERVERID"), "SQLT");
  EXPECT_EQ(FieldText(spec, srvre[0], "HOSTNAME"), "dbhost7");
  EXPECT_EQ(FieldBytes(spec, srvre[0], "COLLSTATUS"), std::string("Inactive  \0\0", 12));
  EXPECT_EQ(FieldBytes(spec, srvre[0], "SAMPTIME"), FieldBytes(spec, srvre[0], "TIMESTAMP"));
  EXPECT_EQ(FieldInt(spec, srvre[0], "ROWNO"), 1);
  // Everything the collector would have sent stays 0xFF.
  EXPECT_EQ(FieldBytes(spec, srvre[0], "SRVSTATUS"), std::string(12, '\xFF'));
  EXPECT_EQ(FieldInt(spec, srvre[0], "NUMDBS"), -1);
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
  EXPECT_EQ(FieldText(spec, rows[0], "SRVTYPE"), "SQL Server");
  EXPECT_EQ(FieldText(spec, rows[0], "SQLVER"), "16.0.4135.4");
  EXPECT_EQ(FieldText(spec, rows[0], "SRVVERSN"), "16.0.413");
#ifdef _WIN32
  // Neither runs as a service of the service manager here.
  EXPECT_EQ(FieldText(spec, rows[0], "SRVSTATUS"), "Unknown");
  EXPECT_EQ(FieldText(spec, rows[0], "COLLSTATUS"), "Inactive");
#else
  // The collector's pid file says it runs; SQL Server has none yet.
  EXPECT_EQ(FieldText(spec, rows[0], "SRVSTATUS"), "Inactive");
  EXPECT_EQ(FieldText(spec, rows[0], "COLLSTATUS"), "Active");

  MarkServiceRunning("MSSQLSERVER");
  rows = Sample(spec);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(FieldText(spec, rows[0], "SRVSTATUS"), "Active");

  // A named instance is its own service.
  platform::SetEnv("KZQ_NAMED_INSTANCE", "1");
  rows = Sample(spec);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(FieldText(spec, rows[0], "SRVSTATUS"), "Inactive");
  MarkServiceRunning("MSSQL$SQLT");
  rows = Sample(spec);
  EXPECT_EQ(FieldText(spec, rows.at(0), "SRVSTATUS"), "Active");
#endif
}

// A collector whose answers do not match what it claims.
class GarbageCollector : public Sampling {
 protected:
  void Answer(const std::vector<std::string>& args) {
    peer_ = kzq_test::StartChannelPeer(prefix_first_, "SQLT", args, true);
    ASSERT_NE(peer_, nullptr);
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
