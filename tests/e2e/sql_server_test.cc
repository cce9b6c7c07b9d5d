// The collector reading SQL Server, end to end: a real kzqcoll whose
// settings point it at a server, through the real ODBC driver manager and
// FreeTDS driver, to the SQL Server test double (tests/support/
// tds_test_server.py), and a real kzqagent serving what it read over HTTP.
#include <httplib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <memory>
#include <regex>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/environment.h"
#include "platform/process.h"
#include "platform/service_probe.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/free_port.h"
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"

namespace {

using Json = nlohmann::json;
using kzq_test::Eventually;
using testing::HasSubstr;

const char* kLogin = R"("login": {"user": "kzqmon", "password": "s3cr;et"})";

class SqlServer : public testing::Test {
 protected:
  void SetUp() override {
    for (const auto& [name, value] : std::vector<std::pair<const char*, std::string>>{
             {"COLL_HOME", home_.Path()}, {"KVCLOGDIR", home_.Path()}, {"KZQ_RUNTIME_DIR", runtime_.Path()},
             {"COLL_VERSION", "kzs" + std::to_string(platform::CurrentProcessId()) + "_" + std::to_string(++tests_)},
             {"COLL_SERVERID", "SQL1"},
             {"KZQ_HTTP_LISTEN", "127.0.0.1:0"}, {"KZQ_SAMPLE_INTERVAL", "1"}, {"COLL_CODEPAGE", "65001"},
             {"KZQ_COLLECTOR_SOURCE", "sql"}, {"COLL_SQL_SERVER", "127.0.0.1"},
             {"COLL_SQL_PORT", std::to_string(port_)}, {"COLL_LOGON", "kzqmon"}, {"COLL_PASSWORD", "s3cr;et"},
             {"COLL_SQL_QUERY_TIMEOUT", "2"}, {"COLL_SQL_LOGIN_TIMEOUT", "2"}})
      platform::SetEnv(name, value);
    // This process stands in for SQL Server's service, as the demo's writer does.
    std::ofstream(platform::PidFilePath("MSSQLSERVER")) << platform::CurrentProcessId() << "\n";
  }
  void TearDown() override {
    for (auto* process : {&agent_, &collector_, &server_}) kzq_test::Stop(*process);
  }

  // The test double on the test's port, answering as `script` says.
  void StartServer(const std::string& script) {
    kzq_test::Stop(server_);
    kzq_test::WriteFile(home_.File("script.json"), script);
    std::remove(home_.File("port").c_str());
    server_ = kzq_test::Start({"/usr/bin/python3", KZQ_SOURCE_DIR "/tests/support/tds_test_server.py", "--script",
                               home_.File("script.json"), "--port", std::to_string(port_), "--port-file",
                               home_.File("port"), "--log", home_.File("server.log")},
                              home_.File("server.out"));
    ASSERT_NE(server_, nullptr);
    ASSERT_TRUE(Eventually([&] { return !kzq_test::ReadFile(home_.File("port")).empty(); }))
        << kzq_test::ReadFile(home_.File("server.out"));
  }

  // kzqcoll as the service starts it (its source from the settings), and
  // kzqagent -console with its endpoint's port.
  void StartCollectorAndAgent(std::vector<std::string> collector_options = {}) {
    collector_options.insert(collector_options.begin(), kzq_test::BuiltProgram("collector", "kzqcoll"));
    collector_ = kzq_test::Start(collector_options, home_.File("kzqcoll.out"));
    agent_ = kzq_test::Start({kzq_test::BuiltProgram("kzq", "kzqagent"), "-console"}, home_.File("agent.out"));
    ASSERT_TRUE(collector_ && agent_);
    agent_port_ = kzq_test::EndpointPort(home_.File("agent.out"));
    ASSERT_GT(agent_port_, 0) << kzq_test::ReadFile(home_.File("agent.out"));
  }

  std::string Get(const std::string& path) {
    httplib::Client client("127.0.0.1", agent_port_);
    client.set_read_timeout(60);
    const auto result = client.Get(path);
    return result ? result->body : std::string();
  }
  Json Rows(const std::string& path) {
    const Json sample = Json::parse(Get(path), nullptr, false);
    return sample.is_object() ? sample["rows"] : Json::array();
  }
  // kzq_sqlserver_reachable's value, or "" while it has none.
  std::string Reachable() {
    std::smatch m;
    const std::string metrics = Get("/metrics");
    return std::regex_search(metrics, m, std::regex(R"(\nkzq_sqlserver_reachable\{[^}]*\} (\d))")) ? m[1].str() : "";
  }
  std::string ServerStatusRow() {
    const Json rows = Rows("/tables/KZQSRVS");
    return rows.size() == 1 && rows[0]["SRVSTATUS"].is_string() ? rows[0]["SRVSTATUS"].get<std::string>() : "";
  }
  size_t CollectorLogLines(const std::string& text) {
    const std::string log = kzq_test::ReadFile(home_.File("col.log"));
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }

  static inline int tests_ = 0;  // each test's channel is its own
  kzq_test::TempDir home_, runtime_, record_;
  const int port_ = kzq_test::FreePort();
  std::unique_ptr<platform::ChildProcess> server_, collector_, agent_;
  int agent_port_ = 0;
};

TEST_F(SqlServer, TheAgentServesWhatTheCollectorReadsFromTheServer) {
  StartServer(std::string("{") + kLogin + R"js(, "results": [
      {"match": "-- kzqdbd:", "columns": [{"name": "DBNAME", "type": "nvarchar(128)"}, {"name": "dbsize", "type": "int"},
          {"name": "LOGSIZE", "type": "bigint"}, {"name": "PCTLOGUSED", "type": "decimal(5,2)"},
          {"name": "UDBNAME", "type": "nvarchar(max)"}, {"name": "SAMPTIME", "type": "datetime2(7)"}],
       "rows": [["master", 6, 2147483648, 37.5, "Café Zürich 中文", "2026-11-26T08:30:01.250"],
                ["sales", null, 10, null, "sales", null]]},
      {"match": "-- kzqsql:", "columns": [{"name": "PID", "type": "smallint"}, {"name": "SQLTEXT", "type": "nvarchar(max)"}],
       "rows": [[57, "SELECT * FROM orders"]]},
      {"match": "-- kzqjobd:", "error": {"number": 229, "severity": 14, "state": 5,
          "message": "The SELECT permission was denied on the object 'sysjobs'."}}]})js");
  StartCollectorAndAgent({"--record", record_.Path()});

  Json rows;
  ASSERT_TRUE(Eventually([&] { return (rows = Rows("/tables/KZQDBD")).size() == 2; }))
      << Get("/tables/KZQDBD") << kzq_test::ReadFile(home_.File("col.log"));
  EXPECT_EQ(rows[0]["DBNAME"], "master");
  EXPECT_EQ(rows[0]["DBSIZE"], 6);
  EXPECT_TRUE(rows[0]["LOGSIZE"].is_null());  // over 32 bits: no value rather than a wrong one
  EXPECT_EQ(rows[0]["PCTLOGUSED"], 37);
  EXPECT_EQ(rows[0]["UDBNAME"], "Café Zürich 中文");
  EXPECT_EQ(rows[0]["SAMPTIME"], "1261126083001250");
  EXPECT_EQ(rows[0]["SERVERID"], "SQL1");
  EXPECT_TRUE(rows[1]["DBSIZE"].is_null());
  EXPECT_EQ(rows[1]["LOGSIZE"], 10);
  EXPECT_TRUE(rows[1]["SAMPTIME"].is_null());  // a NULL, not the collector's time
  rows = Rows("/tables/KZQSQL?filter=PID%20EQ%2057");
  ASSERT_EQ(rows.size(), 1u) << Get("/tables/KZQSQL?filter=PID%20EQ%2057");
  EXPECT_EQ(rows[0]["SQLTEXT"], "SELECT * FROM orders");
  EXPECT_EQ(Rows("/tables/KZQJOBD").size(), 0u);
  EXPECT_TRUE(Eventually([&] { return Reachable() == "1"; })) << Get("/metrics");

  // What reached the server: every batch reads uncommitted data and names
  // its row cap; the SQL text table's batch names the session asked for.
  const std::string batches = kzq_test::ReadFile(home_.File("server.log"));
  EXPECT_THAT(batches, HasSubstr("DECLARE @spid int = 57;"));
  std::istringstream lines(batches);
  for (std::string line; std::getline(lines, line);) {
    if (line[0] != '"') continue;  // a login
    EXPECT_THAT(line, HasSubstr("SET TRANSACTION ISOLATION LEVEL READ UNCOMMITTED")) << line;
  }
  // A table whose query the server refuses is logged once, by name; the
  // password is written nowhere.
  EXPECT_EQ(CollectorLogLines("The query of KZQJOBD failed"), 1u) << kzq_test::ReadFile(home_.File("col.log"));
  EXPECT_THAT(kzq_test::ReadFile(home_.File("col.log")), HasSubstr("permission was denied"));
  for (const char* file : {"col.log", "kzqcoll.out", "agent.out", "server.log"})
    EXPECT_THAT(kzq_test::ReadFile(home_.File(file)), testing::Not(HasSubstr("s3cr;et"))) << file;
  EXPECT_THAT(kzq_test::ReadFile(record_.File("kzqdbd.jsonl")), HasSubstr(R"("UDBNAME":"Café Zürich 中文")"));
}

// Nothing listening, a refused login, a query that never answers and a
// connection dropped mid-result: each is data (no rows, the summary table's
// status row and the reachability metric say why), logged once, and
// followed by recovery without restarting anything.
TEST_F(SqlServer, FailuresAreDataAndEachIsFollowedByRecovery) {
  StartCollectorAndAgent();
  ASSERT_TRUE(Eventually([&] { return Reachable() == "0"; })) << Get("/metrics");
  EXPECT_EQ(ServerStatusRow(), "Unreachable");
  const Json status = Json::parse(Get("/status"), nullptr, false);
  EXPECT_THAT(status["services"].dump(), HasSubstr(R"("reachable":false)"));
  EXPECT_EQ(CollectorLogLines("COL0030E"), 1u) << kzq_test::ReadFile(home_.File("col.log"));

  StartServer(R"({"login": {"user": "kzqmon", "password": "another"}})");
  ASSERT_TRUE(Eventually([&] { return CollectorLogLines("Login failed for user 'kzqmon'") == 1; }))
      << kzq_test::ReadFile(home_.File("col.log"));
  EXPECT_EQ(Reachable(), "0");

  StartServer(std::string("{") + kLogin + R"js(, "results": [
      {"match": "-- kzqdbd:", "hang": true},
      {"match": "-- kzqprcd:", "columns": [{"name": "PROCESSID", "type": "int"}], "rows": [[51], [52]],
       "close_after_rows": 1},
      {"match": "-- kzqscfg:", "columns": [{"name": "CONFIGNAME", "type": "nvarchar(35)"}], "rows": [["max degree"]]}]})js");
  ASSERT_TRUE(Eventually([&] { return Reachable() == "1"; })) << kzq_test::ReadFile(home_.File("col.log"));
  // The batches that hang or drop the connection run beside it, so a
  // sample may meet a connection being made anew: wait for one that answers.
  EXPECT_TRUE(Eventually([&] {
    const Json rows = Rows("/tables/KZQSCFG");
    return rows.size() == 1 && rows[0]["CONFIGNAME"] == "max degree";
  }));
  EXPECT_EQ(Rows("/tables/KZQDBD").size(), 0u);
  EXPECT_TRUE(Eventually([&] { return CollectorLogLines("The query of KZQDBD failed: no answer within") == 1; }));
  EXPECT_EQ(Rows("/tables/KZQPRCD").size(), 0u);
  EXPECT_TRUE(Eventually([&] { return CollectorLogLines("connection lost") >= 1; }));
  EXPECT_TRUE(Eventually([&] { return CollectorLogLines("SQL Server reached") >= 2; }))
      << kzq_test::ReadFile(home_.File("col.log"));
}

}  // namespace
