#include <gtest/gtest.h>

#include <string>

#include "framework/situation.h"
#include "kzq/collector_text.h"
#include "kzq/sample_rows.h"
#include "kzq/sql_filter_walk.h"
#include "kzq/tables.h"
#include "tests/support/table_rows.h"

namespace {

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
  return text;
}

kzq::StatusInputs Inputs(bool collector_up, bool database_up) {
  kzq::StatusInputs in;
  in.collector_up = collector_up;
  in.database_up = database_up;
  in.origin_node = "agent01";
  in.server_id = "SQL1";
  in.host_name = "db01";
  in.time_stamp = "1261123101500000";
  in.db_version = "16.0.4135.4";
  return in;
}

TEST(StatusRow, NoDataRowNamesEveryCollectorTextAndTheServerState) {
  kzq::RowBuilder row(kzq::kzqsrvre_spec);
  kzq::BuildNoDataRow(row, Inputs(true, false), true);
  for (const char* name : {"SRVVERSN", "MAXLOCK", "MAXBLOCK", "TBMXLOCK", "MAXSEVTIME", "UMAXLOCK", "UMAXBLOCK",
                           "UTBMXLOCK", "SQLVER"})
    EXPECT_EQ(Trimmed(row.Text(name)), "nodata") << name;
  EXPECT_EQ(Trimmed(row.Text("MAXSEV")), "no");
  EXPECT_EQ(Trimmed(row.Text("SRVSTATUS")), "Inactive");
  EXPECT_EQ(row.Text("COLLSTATUS"), std::string("Active  \0\0\0\0", 12));
  EXPECT_EQ(row.Text("ORIGINNODE"), "agent01" + std::string(57, ' '));
  EXPECT_EQ(row.Int("SAMPLENO"), 1);
  EXPECT_EQ(row.Int("ROWNO"), 1);
  EXPECT_EQ(row.Int("NUMDBS"), 0);
  EXPECT_EQ(row.Text("SAMPTIME"), "1261123101500000");
  EXPECT_EQ(Trimmed(row.Text("SERVERID")), "SQL1");

  // Without the zero fill the integers keep 0xFF, and the services decide
  // the server state.
  kzq::BuildNoDataRow(row, Inputs(false, false), false);
  EXPECT_EQ(row.Int("NUMDBS"), -1);
  EXPECT_EQ(Trimmed(row.Text("SRVSTATUS")), "Unknown");
  kzq::BuildNoDataRow(row, Inputs(false, true), false);
  EXPECT_EQ(Trimmed(row.Text("SRVSTATUS")), "Active");
}

TEST(StatusRow, SummaryTableWritesItsOwnFieldsInsteadOfNoData) {
  kzq::RowBuilder row(kzq::kzqsrvs_spec);
  kzq::BuildInactiveRow(row, Inputs(false, false));
  EXPECT_EQ(Trimmed(row.Text("SRVTYPE")), "SQL Server");
  EXPECT_EQ(row.Text("PMDESC"), " ");
  EXPECT_EQ(Trimmed(row.Text("SQLVER")), "16.0.4135.4");
  EXPECT_EQ(row.Text("SRVVERSN"), "16.0.413");
  EXPECT_EQ(row.Text("SRVSTATUS"), std::string(12, '\xFF'));
}

TEST(StatusRow, ReasonFollowsTheTimeSinceStartThenTheStatusCode) {
  EXPECT_STREQ(kzq::InactiveReason(539.9, 1), "Collector Initializing");
  EXPECT_STREQ(kzq::InactiveReason(540.0, 1), "Data Collector Timeout");
  EXPECT_STREQ(kzq::InactiveReason(540.0, 20), "Data Collector Timeout");
  EXPECT_STREQ(kzq::InactiveReason(9999, 3), "Open Pipe Error");
  EXPECT_STREQ(kzq::InactiveReason(9999, 4), "Pipe Create Error");
  EXPECT_STREQ(kzq::InactiveReason(9999, 21), "Data Collector Error");
}

// The SQL text table takes the session to ask for from a PID comparison.
std::string SessionFor(const char* filter_text) {
  const auto filter = kzq_test::FilterFor(kzq::kzqsql_spec, filter_text);
  framework::RequestDetail detail;
  detail.table = "KZQSQL";
  detail.filter = &*filter;
  framework::ContextInfo context;
  kzq::kzq_kzqsql_agent object(&detail, &context, nullptr);
  const std::string session = kzq::SessionIdFromFilter(object);
  framework::FilterInfo info;
  EXPECT_EQ(object.GetFilterInfo(&info), 0) << "the walk is rewound";
  return session;
}

// A collector row of KZQDBD as a collector sends it: texts blank-padded,
// OWNER without a value (0xFF).
std::string CollectorRow(const std::string& name, const std::string& id) {
  const kzq::TableSpec& spec = kzq::kzqdbd_spec;
  std::string row(static_cast<size_t>(kzq::CollectorRowLength(spec)), ' ');
  auto put = [&](const char* attribute, const std::string& value) {
    row.replace(static_cast<size_t>(spec.offsets[spec.IndexOf(attribute)] - spec.CollectorOffset()), value.size(),
                value);
  };
  put("DBNAME", name);
  put("DBID", id);
  put("OWNER", std::string(8, '\xFF'));
  return row;
}

TEST(CollectorText, TextsInTheCodePageBecomeUtf8WithinTheirWidth) {
  kzq::RowBuilder row(kzq::kzqdbd_spec);
  kzq::CollectorText western(1252);
  row.CopyCollectorPart(CollectorRow("Caf\xe9 Z\xfcrich", std::string(12, '\xe9')).data(), western);
  EXPECT_EQ(Trimmed(row.Text("DBNAME")), "Caf\u00e9 Z\u00fcrich");
  EXPECT_EQ(row.Text("DBID"), "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9");  // 12 bytes: cut after six
  EXPECT_EQ(row.Text("OWNER"), std::string(8, '\xFF'));
  kzq::CollectorText central(1250);
  row.CopyCollectorPart(CollectorRow("\x8a\xe9", "1").data(), central);
  EXPECT_EQ(Trimmed(row.Text("DBNAME")), "\u0160\u00e9");
  EXPECT_EQ(row.Text("DBID"), "1" + std::string(11, ' '));
  EXPECT_EQ(western.Encode("Caf\u00e9 \u4e2d"), "Caf\xe9 ?");
}

TEST(SqlFilterWalk, SessionComesFromThePidComparisonOnly) {
  EXPECT_EQ(SessionFor("SERVERID EQ 'SQL1' AND PID EQ 53"), "53");
  EXPECT_EQ(SessionFor("SERVERID EQ 'SQL1'"), "");
}

}  // namespace
