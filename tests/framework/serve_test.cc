// What consumers read: the endpoint's settings, rows rendered as JSON and
// the Prometheus exposition of cached samples.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "framework/serve/agent_description.h"
#include "framework/serve/http_settings.h"
#include "framework/serve/metric_values.h"
#include "framework/serve/metrics_text.h"
#include "framework/serve/row_json.h"
#include "framework/serve/time_stamp.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace {

using testing::HasSubstr;
using testing::Not;

TEST(HttpSettings, ListenAddressesTokensAndIntervals) {
  struct Case {
    const char* listen;
    const char* token;
    const char* interval;
    const char* raw;
    bool accepted;
    const char* host_or_error;
  };
  const Case cases[] = {
      {"", "", "", "", true, "127.0.0.1"},
      {"127.0.0.2:80", "", "5", "", true, "127.0.0.2"},
      {"[::1]:9000", "", "", "", true, "::1"},
      {"localhost:0", "", "", "", true, "localhost"},
      {"0.0.0.0:9433", "", "", "", false, "without KZQ_HTTP_TOKEN"},
      {"0.0.0.0:9433", "s3cret", "", "", true, "0.0.0.0"},
      {"127.0.0.1", "", "", "", false, "is not host:port"},
      {"127.0.0.1:65536", "", "", "", false, "no port"},
      {"[::1:9000", "", "", "", false, "unclosed"},
      {"127.0.0.1:9433", "", "0", "", false, "KZQ_SAMPLE_INTERVAL='0'"},
      {"127.0.0.1:9433", "", "10s", "", false, "KZQ_SAMPLE_INTERVAL='10s'"},
      {"127.0.0.1:9433", "", "", "1", true, "127.0.0.1"},
      {"127.0.0.1:9433", "", "", "yes", false, "KZQ_METRICS_RAW='yes' is neither 0 nor 1"},
  };
  for (const Case& c : cases) {
    platform::SetEnv("KZQ_HTTP_LISTEN", c.listen);
    platform::SetEnv("KZQ_HTTP_TOKEN", c.token);
    platform::SetEnv("KZQ_SAMPLE_INTERVAL", c.interval);
    platform::SetEnv("KZQ_METRICS_RAW", c.raw);
    std::string error;
    const auto settings = framework::ReadHttpSettings(&error);
    ASSERT_EQ(settings.has_value(), c.accepted) << c.listen << " " << error;
    if (c.accepted) {
      EXPECT_EQ(settings->host, c.host_or_error);
      EXPECT_EQ(settings->raw_metrics, std::string(c.raw) == "1");
    } else {
      EXPECT_THAT(error, HasSubstr(c.host_or_error)) << c.listen;
    }
  }
  platform::SetEnv("KZQ_HTTP_LISTEN", "off");
  platform::SetEnv("KZQ_SAMPLE_INTERVAL", "");
  platform::SetEnv("KZQ_METRICS_RAW", "");
  std::string error;
  const auto off = framework::ReadHttpSettings(&error);
  ASSERT_TRUE(off.has_value()) << error;
  EXPECT_FALSE(off->enabled);
  for (const char* name : {"KZQ_HTTP_LISTEN", "KZQ_HTTP_TOKEN", "KZQ_SAMPLE_INTERVAL"}) platform::SetEnv(name, "");
}

// A small table: a key text, a plain text, an integer, a 64-bit integer.
framework::CapturedSample MakeSample(const std::string& table) {
  framework::CapturedSample s;
  s.table = table;
  s.attributes = {{"dbname", 0, 8, framework::kTextType},
                  {"owner", 8, 6, framework::kTextType},
                  {"rowno", 14, 4, framework::kInt32Type},
                  {"dbsize", 18, 4, framework::kInt32Type},
                  {"pages", 22, 8, framework::kInt64Type}};
  s.row_size = 30;
  return s;
}

void AddRow(framework::CapturedSample* s, const char* name, const char* owner, int32_t size, int64_t pages) {
  std::string row(static_cast<size_t>(s->row_size), ' ');
  memcpy(row.data(), name, strlen(name));
  memcpy(row.data() + 8, owner, strlen(owner));
  const int32_t rowno = s->count + 1;
  memcpy(row.data() + 14, &rowno, 4);
  memcpy(row.data() + 18, &size, 4);
  memcpy(row.data() + 22, &pages, 8);
  s->rows += row;
  ++s->count;
}

TEST(RowJson, TrimsTextsKeepsNumbersAndNullsFieldsWithoutValue) {
  framework::CapturedSample s = MakeSample("KZQT");
  AddRow(&s, "master", "sa", 512, int64_t{1} << 40);
  AddRow(&s, "sales", "x", 0, 0);
  memset(s.rows.data() + s.row_size + 8, 0xFF, 6);   // owner of row 2
  memset(s.rows.data() + s.row_size + 18, 0xFF, 4);  // dbsize of row 2
  const auto json = framework::SampleJson(s);
  EXPECT_EQ(framework::WireText(json["rows"][0]),
            R"({"DBNAME":"master","OWNER":"sa","ROWNO":1,"DBSIZE":512,"PAGES":1099511627776})");
  EXPECT_EQ(framework::WireText(json["rows"][1]), R"({"DBNAME":"sales","OWNER":null,"ROWNO":2,"DBSIZE":null,"PAGES":0})");

  // A collector may send bytes that are not UTF-8: the answer still goes out.
  memcpy(s.rows.data(), "\xC3(bad", 5);
  EXPECT_THAT(framework::WireText(framework::RowJson(s, 0)), HasSubstr("\"DBNAME\":\"\xEF\xBF\xBD(bad"));
}

TEST(MetricValues, FieldsBecomeBaseUnits) {
  using C = framework::UnitConversion;
  EXPECT_EQ(framework::ConvertNumber(C::kMegabytes, 0, 20480), 21474836480.0);  // past 32 bits
  EXPECT_EQ(framework::ConvertNumber(C::kKilobytes, 0, 3), 3072.0);
  EXPECT_EQ(framework::ConvertNumber(C::kPercent, 0, 72), 0.72);
  EXPECT_EQ(framework::ConvertNumber(C::kMilliseconds, 0, 1500), 1.5);
  EXPECT_EQ(framework::ConvertNumber(C::kMinutes, 0, 2), 120.0);
  EXPECT_EQ(framework::ConvertNumber(C::kAsIs, 0, -5), -5.0);
  EXPECT_EQ(framework::ConvertNumber(C::kEquals, 4, 4), 1.0);
  EXPECT_EQ(framework::ConvertNumber(C::kEquals, 4, 1), 0.0);
  EXPECT_FALSE(framework::ConvertNumber(C::kTimeStamp, 0, 1));

  // Time stamps and dates are the agent's local time.
  platform::LocalTime eight{2026, 11, 23, 8, 0, 0};
  platform::LocalTime midnight{2026, 11, 23, 0, 0, 0};
  const int64_t at = platform::FromLocal(&eight), day = platform::FromLocal(&midnight);
  EXPECT_EQ(framework::ConvertTime(C::kTimeStamp, "1261123080000000", 0), static_cast<double>(at));
  EXPECT_EQ(framework::ConvertTime(C::kTimeStampAge, "1261123080000000", at + 90), 90.0);
  EXPECT_EQ(framework::ConvertTime(C::kTimeStampAge, "1261123080000000", at - 5), 0.0);  // server clock ahead
  EXPECT_EQ(framework::ConvertTime(C::kDateAge, "11/23/26", at), static_cast<double>(at - day));
  for (const char* bad : {"1261323080000000", "126112308000000", "12611230800000x0", "", "11-23-26", "13/01/26"})
    EXPECT_FALSE(framework::ConvertTime(C::kTimeStamp, bad, at) || framework::ConvertTime(C::kDateAge, bad, at)) << bad;
  EXPECT_FALSE(framework::ConvertTime(C::kPercent, "1261123080000000", at));

  EXPECT_EQ(framework::ValueText(21474836480.0), "21474836480");
  EXPECT_EQ(framework::ValueText(1e8), "100000000");
  EXPECT_EQ(framework::ValueText(0.72), "0.72");
  EXPECT_EQ(framework::ValueText(-1.5), "-1.5");
}

class Metrics : public testing::Test {
 protected:
  // The identifying attributes of the small table.
  static framework::TableDescription Described(const std::string& key, std::vector<std::string> identifying) {
    framework::TableDescription table;
    table.key = key;
    for (const framework::AttributeDescriptor& a : MakeSample(key).attributes)
      table.attributes.push_back({a.name, a.offset, a.length, a.type,
                                  std::find(identifying.begin(), identifying.end(), a.name) != identifying.end()});
    return table;
  }
  std::vector<framework::TableDescription> catalogue_ = {Described("KZQT", {"dbname"})};

  // The table's last good sample was taken at 1000.
  std::string Render(framework::CapturedSample s, int64_t now = 1012, bool raw = true) {
    s.taken_at = 1000;
    std::map<std::string, framework::CachedTable> tables;
    const auto sample = std::make_shared<framework::CapturedSample>(s);
    tables[s.table] = {sample, sample, 7, 2};
    const std::vector<framework::ServiceState> services = {{"collector", "KZQCOLL1", true},
                                                           {"sqlserver", "MSSQLSERVER", false}};
    return framework::MetricsText(tables, catalogue_, families_, services, {"SQL\"1", "db01", now, 5, 60, {}, raw});
  }

  static framework::MetricFamilyDescription Family(const std::string& name, const std::string& attribute,
                                                   framework::UnitConversion conversion) {
    framework::MetricFamilyDescription family;
    family.name = name;
    family.help = "Help of " + name + ".";
    family.table = "KZQT";
    family.attribute = attribute;
    family.conversion = conversion;
    return family;
  }
  std::vector<framework::MetricFamilyDescription> families_;
};

TEST_F(Metrics, IntegerAttributesBecomeGaugesLabelledByTheIdentifyingTextsOrThePosition) {
  framework::CapturedSample s = MakeSample("KZQT");
  AddRow(&s, "master", "sa", 512, 9);
  AddRow(&s, "sales", "bob", 20480, 10);
  memset(s.rows.data() + s.row_size + 22, 0xFF, 8);  // no page count for sales
  const std::string text = Render(s);
  EXPECT_THAT(text, HasSubstr("# TYPE kzq_kzqt_dbsize gauge\n"));
  EXPECT_THAT(text, HasSubstr("kzq_kzqt_dbsize{server_id=\"SQL\\\"1\",host=\"db01\",dbname=\"master\"} 512\n"));
  EXPECT_THAT(text, HasSubstr("kzq_kzqt_dbsize{server_id=\"SQL\\\"1\",host=\"db01\",dbname=\"sales\"} 20480\n"));
  EXPECT_THAT(text, HasSubstr("kzq_kzqt_pages{server_id=\"SQL\\\"1\",host=\"db01\",dbname=\"master\"} 9\n"));
  EXPECT_THAT(text, Not(HasSubstr("dbname=\"sales\"} 10")));  // 0xFF-filled: left out
  EXPECT_THAT(text, Not(HasSubstr("kzq_kzqt_owner")));         // texts are no gauges
  EXPECT_THAT(text, Not(HasSubstr("kzq_kzqt_rowno")));         // bookkeeping
  EXPECT_THAT(text, Not(HasSubstr("row=")));
  // Rows their labels cannot tell apart get their position.
  framework::CapturedSample same = MakeSample("KZQT");
  AddRow(&same, "same", "a", 1, 1);
  AddRow(&same, "same", "b", 2, 2);
  EXPECT_THAT(Render(same), HasSubstr("dbname=\"same\",row=\"1\"} 1\n"));
  EXPECT_THAT(Render(same), HasSubstr("dbname=\"same\",row=\"2\"} 2\n"));
}

// The agent's families carry their own names, units and labels; the raw
// per-table gauges come only when asked for.
TEST_F(Metrics, MappedFamiliesTakeTheirNamesUnitsAndLabelsAndRawGaugesComeOnRequest) {
  framework::CapturedSample s = MakeSample("KZQT");
  AddRow(&s, "master", "sa", 512, 0);
  AddRow(&s, "sales", "bob", 20480, 512);  // blocked by the row whose dbsize is 512
  AddRow(&s, "hr", "bob", 64, 20480);
  memset(s.rows.data() + 2 * s.row_size + 8, 0xFF, 6);  // hr has no owner
  framework::MetricFamilyDescription size = Family("kzq_data_size_bytes", "DBSIZE", framework::UnitConversion::kMegabytes);
  size.labels = {{"database", {"DBNAME"}, "", {}}, {"owner", {"OWNER", "DBNAME"}, "", {}}, {"kind", {}, "data", {}}};
  framework::MetricFamilyDescription biggest = Family("kzq_biggest_bytes", "DBSIZE", framework::UnitConversion::kKilobytes);
  biggest.aggregate = framework::RowAggregate::kMaximum;
  biggest.rows = {"OWNER", "bob", true};
  framework::MetricFamilyDescription heads = Family("kzq_heads", "DBSIZE", framework::UnitConversion::kAsIs);
  heads.aggregate = framework::RowAggregate::kHeadBlockers;
  heads.blocker = "PAGES";
  framework::MetricFamilyDescription absent = Family("kzq_absent", "DBSIZE", framework::UnitConversion::kAsIs);
  absent.table = "KZQNONE";
  families_ = {size, biggest, heads, absent};

  const std::string text = Render(s, 1012, false);
  const std::string base = "{server_id=\"SQL\\\"1\",host=\"db01\"";
  EXPECT_THAT(text, HasSubstr("# HELP kzq_data_size_bytes Help of kzq_data_size_bytes.\n"
                              "# TYPE kzq_data_size_bytes gauge\n"
                              "kzq_data_size_bytes" + base + ",database=\"master\",owner=\"sa\",kind=\"data\"} 536870912\n"));
  EXPECT_THAT(text, HasSubstr(",database=\"hr\",owner=\"hr\",kind=\"data\"} 67108864\n"));  // the next attribute
  EXPECT_THAT(text, HasSubstr("kzq_biggest_bytes" + base + "} 20971520\n"));  // of bob's rows
  EXPECT_THAT(text, HasSubstr("kzq_heads" + base + "} 1\n"));  // master blocks sales, which blocks hr
  EXPECT_THAT(text, Not(HasSubstr("kzq_absent")));
  EXPECT_THAT(text, Not(HasSubstr("kzq_kzqt_")));
  EXPECT_THAT(Render(s, 1012, true), HasSubstr("kzq_kzqt_dbsize" + base + ",dbname=\"master\"} 512\n"));
  EXPECT_THAT(Render(s, 1061, false), Not(HasSubstr("kzq_data_size_bytes")));  // stale
}

// Several tables are keyed by numbers (a session id, a lock resource type):
// their labels are the numbers in decimal, never the field's raw bytes.
TEST_F(Metrics, IntegerKeysAreLabelledInDecimal) {
  catalogue_ = {Described("KZQK", {"dbname", "pages"})};
  framework::CapturedSample s = MakeSample("KZQK");
  AddRow(&s, "master", "sa", 512, 12);
  AddRow(&s, "sales", "bob", 64, 2);
  memset(s.rows.data() + s.row_size + 22, 0xFF, 8);
  const std::string text = Render(s);
  EXPECT_THAT(text, HasSubstr("kzq_kzqk_dbsize{server_id=\"SQL\\\"1\",host=\"db01\",dbname=\"master\",pages=\"12\"} 512\n"));
  EXPECT_THAT(text, HasSubstr("dbname=\"sales\",pages=\"\"} 64\n"));
}

// A table whose data could not be had for two intervals loses its series
// (they would show old values as current); its health series stay.
TEST_F(Metrics, TheAgentsOwnHealthIsAlwaysThereAndAStaleTableLosesItsSeries) {
  framework::CapturedSample s = MakeSample("KZQT");
  AddRow(&s, "master", "sa", 512, 9);
  EXPECT_THAT(Render(s, 1060), HasSubstr("kzq_kzqt_dbsize{"));
  const std::string text = Render(s, 1061);
  EXPECT_THAT(text, Not(HasSubstr("kzq_kzqt_dbsize")));
  EXPECT_THAT(text, HasSubstr("kzq_collector_up{server_id=\"SQL\\\"1\",host=\"db01\",service=\"KZQCOLL1\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("kzq_sqlserver_up{server_id=\"SQL\\\"1\",host=\"db01\",service=\"MSSQLSERVER\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("kzq_sample_age_seconds{server_id=\"SQL\\\"1\",host=\"db01\",table=\"KZQT\"} 61\n"));
  EXPECT_THAT(text, HasSubstr("kzq_samples_total{server_id=\"SQL\\\"1\",host=\"db01\",table=\"KZQT\"} 7\n"));
  EXPECT_THAT(text, HasSubstr("kzq_sample_errors_total{server_id=\"SQL\\\"1\",host=\"db01\",table=\"KZQT\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("kzq_error_events_total{server_id=\"SQL\\\"1\",host=\"db01\"} 5\n"));
  EXPECT_EQ(framework::EscapeLabelValue("a\\b\nc"), "a\\\\b\\nc");
  EXPECT_EQ(framework::EscapeLabelValue("J\xC3\xBCrgen \xC3("), "J\xC3\xBCrgen \xEF\xBF\xBD(");
}

// Stamps are read only when they name a real moment; the offset is that
// of the local time they were written in.
TEST(TimeStamps, ReadAsMomentsAndWrittenAsIso8601) {
  const auto moment = framework::ReadTimeStamp("1261123182947512");
  ASSERT_TRUE(moment.has_value());
  platform::LocalTime local;
  ASSERT_TRUE(platform::ToLocal(moment->unix_seconds, &local));
  EXPECT_EQ(local.hour, 18);
  EXPECT_EQ(local.day, 23);
  const std::string iso = framework::Iso8601(*moment);
  EXPECT_EQ(iso.substr(0, 23), "2026-11-23T18:29:47.512");
  EXPECT_THAT(iso.substr(23), testing::MatchesRegex("...:.."));
  EXPECT_EQ(framework::Iso8601(*framework::ReadTimeStamp("0991231235959000")).substr(0, 19), "1999-12-31T23:59:59");
  EXPECT_TRUE(framework::ReadTimeStamp("1240229000000000").has_value());  // a leap day
  // Which texts are stamps is the stamp reader's to say; these pass its refusal on.
  for (const char* bad : {"1250229000000000", "SQLSERVER 2022  "}) EXPECT_FALSE(framework::ReadTimeStamp(bad)) << bad;
}

}  // namespace
