#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "framework/request.h"
#include "framework/situation.h"
#include "kvc/string_time.h"
#include "framework/serve/catalogue_json.h"
#include "framework/serve/row_json.h"
#include "kzq/table_descriptions.h"
#include "kzq/sample_rows.h"
#include "kzq/tables.h"
#include "tests/support/table_rows.h"
#include "tests/support/trace_capture.h"

namespace {

using framework::AttributeDescriptor;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// Builds a row of a table's layout field by field.
class RowBuilder {
 public:
  explicit RowBuilder(const kzq::TableSpec& spec) : spec_(spec), bytes_(spec.row_size, ' ') {}
  RowBuilder& Set(const char* name, const std::string& text) {
    const int i = Index(name);
    kvc::CopyFixed(&bytes_[spec_.offsets[i]], spec_.attributes[i].width, text);
    return *this;
  }
  RowBuilder& Set(const char* name, int32_t value) {
    memcpy(&bytes_[spec_.offsets[Index(name)]], &value, sizeof value);
    return *this;
  }
  const std::vector<char>& Bytes() const { return bytes_; }

 private:
  int Index(const char* name) const {
    const int i = spec_.IndexOf(name);
    EXPECT_GE(i, 0) << name;
    return i;
  }
  const kzq::TableSpec& spec_;
  std::vector<char> bytes_;
};

using CollectingConsumer = kzq_test::CollectedRows;
using kzq_test::FilterFor;

// Stands in for the collector: the rows a test gives it.
class GivenRows final : public kzq::RowSource {
 public:
  int Sample(framework::tavra& object, const kzq::TableSpec&) override {
    return object.AddRows(rows.data(), static_cast<int32_t>(rows.size() / object.RowSize()));
  }
  std::vector<char> rows;
};

// Counts the event requests of the pushed table.
class CountingListener final : public kzq::EventRequestListener {
 public:
  void RequestStarted() override { ++started; }
  void RequestEnded() override { ++ended; }
  int started = 0;
  int ended = 0;
};

// Every table is registered once per test process, with sources that live
// as long as it.
class Tables : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    static const bool registered = [] {
      EXPECT_EQ(kzq::kzqsrvr_init(source_), 0u);
      EXPECT_EQ(kzq::kzqdbd_init(source_), 0u);
      EXPECT_EQ(kzq::kzqerror_init(source_, &listener_), 0u);
      EXPECT_EQ(kzq::kzqbtchs_init(source_), 0u);
      return true;
    }();
    (void)registered;
  }
  static inline GivenRows source_;
  static inline CountingListener listener_;
};

// Tables with fields of their own before the server id have the collector
// send them: its part of the row starts there.
TEST(Catalogue, PublishedPlacesOfOddLayouts) {
  EXPECT_EQ(kzq::CollectorRowLength(kzq::kzqsrvre_spec), 1516);
  EXPECT_EQ(kzq::CollectorRowLength(kzq::kzqlserr_spec), 1154 - 80);
  EXPECT_EQ(kzq::CollectorRowLength(kzq::kzqsrvcd_spec), 512);
  EXPECT_EQ(kzq::kzqbtchs_spec.CollectorOffset(), kzq::kzqbtchs_spec.offsets[kzq::kzqbtchs_spec.IndexOf("APARAMSEC")]);
  EXPECT_EQ(kzq::kzqsrvre_spec.offsets[kzq::kzqsrvre_spec.IndexOf("SQLVER")], 1588);
  EXPECT_EQ(kzq::kzqbtchs_spec.offsets[kzq::kzqbtchs_spec.IndexOf("SERVERID")], 124);
  EXPECT_EQ(kzq::kzqdevd_spec.offsets[kzq::kzqdevd_spec.IndexOf("SRVVERSN")], 120);
  EXPECT_EQ(kzq::kzqdevd_spec.offsets[kzq::kzqdevd_spec.IndexOf("HOSTNAME")], 128);
  EXPECT_EQ(kzq::kzqsrvcd_spec.offsets[kzq::kzqsrvcd_spec.IndexOf("SERVERID")], 80);
  EXPECT_EQ(kzq::kzqlserr_spec.offsets[kzq::kzqlserr_spec.IndexOf("SERVERID")], 84);
  EXPECT_EQ(kzq::kzqerror_spec.offsets[kzq::kzqerror_spec.IndexOf("UMSGTEXT")], 248);
  EXPECT_EQ(kzq::kzqerror_spec.offsets[kzq::kzqerror_spec.IndexOf("ERRSPID")], 608);
  EXPECT_EQ(kzq::FindTable("KZQSQL"), &kzq::kzqsql_spec);
  EXPECT_EQ(kzq::FindTable("kzqsql"), &kzq::kzqsql_spec);
  EXPECT_EQ(kzq::FindTable("kzqsq"), nullptr);
}

// What GET /tables sends, to the byte: consumers parse it.
TEST(Catalogue, OnTheWireEveryTableWithItsLayout) {
  const std::string wire = framework::WireText(framework::CatalogueJson(kzq::TableDescriptions()));
  EXPECT_THAT(wire, StartsWith(R"([{"name":"kzqsrvre","key":"KZQSRVRE","row_size":1604,"sampling":"full",)"
                               R"("attributes":[{"name":"originnode","offset":0,"length":64,"type":9,"identifies":false},)"));
  EXPECT_THAT(wire, HasSubstr(R"({"name":"collstatus","offset":184,"length":12,"type":9,"identifies":false})"));
  EXPECT_THAT(wire, HasSubstr(R"({"name":"kzqdbd","key":"KZQDBD","row_size":)"));
  EXPECT_THAT(wire, HasSubstr(R"({"name":"dbname","offset":)"));
  EXPECT_THAT(wire, HasSubstr(R"("type":9,"identifies":true})"));
  EXPECT_THAT(wire, HasSubstr(R"({"name":"kzqerror","key":"KZQERROR","row_size":)"));
  EXPECT_THAT(wire, HasSubstr(R"("sampling":"pushed")"));
  const auto tables = kzq::TableDescriptions();
  ASSERT_EQ(tables.size(), 33u);
  EXPECT_EQ(tables[32].Attribute("severity")->type, 3);  // an integer here
}

TEST_F(Tables, DescriptorsWalkTheLayoutAndKeepTheIndexQuirk) {
  kzq::kzq_kzqsrvre_agent object(nullptr, nullptr, nullptr);
  ASSERT_EQ(object.NumAttributes(), 41);
  AttributeDescriptor d;
  ASSERT_EQ(object.GetAttributeDescriptor(6, &d), 0);
  EXPECT_STREQ(d.name, "collstatus");
  EXPECT_EQ(d.offset, 184);
  AttributeDescriptor untouched{"marker", 1, 2, 3};
  EXPECT_EQ(object.GetAttributeDescriptor(41, &untouched), 0);
  EXPECT_STREQ(untouched.name, "marker");
  EXPECT_EQ(untouched.offset, 1);
  EXPECT_EQ(object.GetAttributeDescriptor(42, &d), 0x21060007);
  EXPECT_EQ(object.GetAttributeDescriptor(-1, &d), 0x21060007);
}

TEST_F(Tables, AttributeTestComparesFieldsByUpperCaseName) {
  kzq::kzq_kzqdbd_agent object(nullptr, nullptr, nullptr);
  const auto row = RowBuilder(kzq::kzqdbd_spec).Set("DBNAME", "master").Set("PCTDBFREE", 7).Bytes();
  EXPECT_EQ(object.TestAttribute(row.data(), "DBNAME", framework::kOpEQ, "master"), 1);
  EXPECT_EQ(object.TestAttribute(row.data(), "DBNAME", framework::kOpEQ, "maste"), 0);
  EXPECT_EQ(object.TestAttribute(row.data(), "PCTDBFREE", framework::kOpLT, "10"), 1);
  EXPECT_EQ(object.TestAttribute(row.data(), "PCTDBFREE", framework::kOpGT, "10"), 0);
  EXPECT_EQ(object.TestAttribute(row.data(), "NOSUCH", framework::kOpNE, "x"), 0);
  EXPECT_EQ(object.TestAttribute(row.data(), "dbname", framework::kOpEQ, "master"), 0);
}

TEST_F(Tables, AddRowsSkipsRefusedRowsAndStopsAtTheFirstFailedInsert) {
  const auto filter = FilterFor(kzq::kzqbtchs_spec, "BATCHSEC GE 0");
  framework::RequestDetail detail;
  detail.table = "KZQBTCHS";
  detail.filter = &*filter;
  kzq::kzq_kzqbtchs_agent object(&detail, nullptr, nullptr);
  std::vector<char> rows;
  for (int32_t batches : {5, -1, 6, 7}) {
    const auto row = RowBuilder(kzq::kzqbtchs_spec).Set("BATCHSEC", batches).Bytes();
    rows.insert(rows.end(), row.begin(), row.end());
  }
  EXPECT_EQ(object.AddRows(rows.data(), 4), 0);
  EXPECT_EQ(object.NumDataItems(), 3);  // the -1 row was refused by the filter
  EXPECT_EQ(object.IntAt(1, kzq::kzqbtchs_spec.IndexOf("BATCHSEC")), 6);

  // Fill up to the per-sample limit: the next insert fails and no row
  // after it is offered.
  const auto one = RowBuilder(kzq::kzqbtchs_spec).Bytes();
  while (object.NumDataItems() < framework::tavra::kMaxRowsPerSample - 1) object.InsertRow(one.data());
  kzq_test::TraceCapture trace(framework::kTraceDetail);
  const int rc = object.AddRows(rows.data(), 4);
  trace.Stop();
  EXPECT_NE(rc, 0);
  EXPECT_EQ(object.NumDataItems(), framework::tavra::kMaxRowsPerSample);
  EXPECT_EQ(trace.Text(), "Passing row 0 to InsertRow().Passing row 2 to InsertRow().");
}

TEST_F(Tables, DumpWritesTheObjectAndEveryField) {
  framework::RequestDetail detail;
  detail.table = "KZQSRVR";
  detail.interval = 60;
  kzq::kzq_kzqsrvr_agent object(&detail, nullptr, nullptr);
  const auto row = RowBuilder(kzq::kzqsrvr_spec)
                       .Set("ORIGINNODE", "node1")
                       .Set("SAMPLENO", 1)
                       .Set("ROWNO", 2)
                       .Set("RSRVNAME", "remote")
                       .Set("CURRINTL", -3)
                       .Bytes();
  object.InsertRow(row.data());
  kzq_test::TraceCapture trace(0);
  object.Dump();
  const std::string text = trace.Text();
  char head[64];
  snprintf(head, sizeof head, "kzq_kzqsrvr_base @%p <0,1>\n", static_cast<void*>(&object));
  const std::string expected = std::string(head) +
      "\t::appl=KZQ,table=KZQSRVR,interval=60,samptype=1\n"
      "\t_data {\n"
      "\t\tcount=1, allocated=1, allocSize=1\n"
      "\t\t{\n"
      "\t\toriginnode=\"node1" + std::string(59, ' ') + "\"\n"
      "\t\tsampleno=1\n"
      "\t\trowno=2\n"
      "\t\ttimestamp=\"" + std::string(16, ' ') + "\"\n"
      "\t\tserverid=\"" + std::string(32, ' ') + "\"\n"
      "\t\thostname=\"" + std::string(64, ' ') + "\"\n"
      "\t\trsrvid=\"" + std::string(12, ' ') + "\"\n"
      "\t\trsrvstatus=\"" + std::string(8, ' ') + "\"\n"
      "\t\trsrvname=\"remote      \"\n"
      "\t\trsrvnetnm=\"" + std::string(16, ' ') + "\"\n"
      "\t\trsrvconnlv=538976288\n"  // four blanks read as an integer
      "\t\tcurrintl=-3\n"
      "\t\tsamptime=\"" + std::string(16, ' ') + "\"\n"
      "\t\t}\n";
  EXPECT_EQ(text, expected);
}

// The framework's sample reaches the source the table's manager was made
// with, and the request's filter decides what the consumer gets.
TEST_F(Tables, ReportSampleThroughTheFrameworkAppliesTheFilter) {
  source_.rows.clear();
  for (const char* name : {"master", "model", "tempdb"}) {
    const auto row = RowBuilder(kzq::kzqdbd_spec).Set("DBNAME", name).Bytes();
    source_.rows.insert(source_.rows.end(), row.begin(), row.end());
  }
  const auto filter = FilterFor(kzq::kzqdbd_spec, "DBNAME EQ 'master' OR DBNAME LIKE 'temp%'");
  CollectingConsumer consumer;
  framework::RequestDetail detail;
  detail.table = "kzqdbd";
  detail.filter = &*filter;
  detail.consumer = &consumer;
  int sampled = -1;
  ASSERT_EQ(framework::RunReportSample(detail, &sampled, nullptr), framework::kRequestOk);
  source_.rows.clear();
  EXPECT_EQ(sampled, 0);
  ASSERT_EQ(consumer.Rows().size(), 2u);
  const int at = kzq::kzqdbd_spec.offsets[kzq::kzqdbd_spec.IndexOf("DBNAME")];
  EXPECT_EQ(consumer.Rows()[0].substr(at, 6), "master");
  EXPECT_EQ(consumer.Rows()[1].substr(at, 6), "tempdb");
  EXPECT_EQ(kzq::kzqdbd_manager()->OpenObjects(), 0u);

  detail.table = "KZQNOPE";
  EXPECT_EQ(framework::RunReportSample(detail, nullptr, nullptr), framework::kRequestUnknownTable);
}

// Pushed rows go to the event requests only: a report sample of the table
// open at that moment is its own thread's to fill. The table's producer
// hears of each event request, and of nothing else.
TEST_F(Tables, PushReachesEveryOpenEventRequestThroughItsOwnFilter) {
  const auto severe = FilterFor(kzq::kzqerror_spec, "SEVERITY GE 17");
  CollectingConsumer all, only_severe;
  framework::RequestDetail everything;
  everything.table = "KZQERROR";
  everything.type = framework::kSampleEvent;
  everything.consumer = &all;
  framework::RequestDetail filtered = everything;
  filtered.filter = &*severe;
  filtered.consumer = &only_severe;
  auto* manager = kzq::kzqerror_manager();
  ASSERT_NE(manager, nullptr);
  framework::tavra* a = manager->OpenRequest(&everything, nullptr);
  framework::tavra* b = manager->OpenRequest(&filtered, nullptr);
  CollectingConsumer sampled;
  framework::RequestDetail report;
  report.table = "KZQERROR";
  report.consumer = &sampled;
  framework::tavra* c = manager->OpenRequest(&report, nullptr);
  EXPECT_EQ(listener_.started, 2);

  std::vector<char> rows;
  for (int32_t severity : {16, 20}) {
    const auto row = RowBuilder(kzq::kzqerror_spec).Set("SEVERITY", severity).Bytes();
    rows.insert(rows.end(), row.begin(), row.end());
  }
  only_severe.result = 7;
  EXPECT_EQ(kzq::kzqerror_push(rows.data(), 2), 7);
  EXPECT_EQ(all.Rows().size(), 2u);
  ASSERT_EQ(only_severe.Rows().size(), 1u);
  EXPECT_EQ(a->NumDataItems(), 0);  // cleared after each push
  EXPECT_EQ(b->NumDataItems(), 0);
  EXPECT_TRUE(sampled.Rows().empty());
  manager->CloseRequest(c);

  manager->CloseRequest(a);
  only_severe.result = 0;
  EXPECT_EQ(kzq::kzqerror_push(rows.data(), 2), 0);
  EXPECT_EQ(all.Rows().size(), 2u);  // closed: no more rows
  EXPECT_EQ(only_severe.Rows().size(), 2u);
  manager->CloseRequest(b);
  EXPECT_EQ(listener_.ended, 2);
}

TEST_F(Tables, FilterInfoYieldsEachComparisonWithItsConnective) {
  const auto filter =
      FilterFor(kzq::kzqdbd_spec, "DBNAME EQ 'master' AND NOT PCTDBFREE LT 10 OR DBSIZE GT 5");
  framework::RequestDetail detail;
  detail.filter = &*filter;
  kzq::kzq_kzqdbd_agent object(&detail, nullptr, nullptr);
  framework::FilterInfo info;
  ASSERT_EQ(object.GetFilterInfo(&info), 0);
  EXPECT_EQ(info.logical_op, framework::kLogicalNone);
  EXPECT_EQ(info.compare_op, framework::kOpEQ);
  EXPECT_STREQ(info.column, "DBNAME");
  EXPECT_EQ(info.data_type, framework::kFilterText);
  EXPECT_EQ(info.value_length, 6);
  EXPECT_STREQ(info.value, "master");
  ASSERT_EQ(object.GetFilterInfo(&info), 0);
  EXPECT_EQ(info.logical_op, framework::kLogicalAnd);
  EXPECT_EQ(info.compare_op, framework::kOpLT);
  EXPECT_EQ(info.data_type, framework::kFilterInteger);
  EXPECT_TRUE(info.negated);
  ASSERT_EQ(object.GetFilterInfo(&info), 0);
  EXPECT_EQ(info.logical_op, framework::kLogicalOr);
  EXPECT_STREQ(info.column, "DBSIZE");
  EXPECT_FALSE(info.negated);
  EXPECT_NE(object.GetFilterInfo(&info), 0);
  object.ResetFilterIndex();
  ASSERT_EQ(object.GetFilterInfo(&info), 0);
  EXPECT_STREQ(info.column, "DBNAME");
}

TEST_F(Tables, SecondInitialiserOfATableIsRefused) {
  EXPECT_EQ(kzq::kzqsrvr_init(source_), framework::kErrDuplicateTable);
  EXPECT_EQ(framework::TableManager::Find("kzqsrvr")->Table(), "KZQSRVR");
}

}  // namespace
