// The metrics map: its entries fit the catalogue, bad ones are refused with
// the reason, and the demo's recorded rows of every table render as
// families in base units that promtool accepts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "collector/replay_source.h"
#include "framework/serve/metrics_text.h"
#include "kzq/catalogue.h"
#include "kzq/metrics_map.h"
#include "kzq/table_descriptions.h"
#include "platform/clock.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;

std::string Refusal(const kzq::MetricEntry& entry, const kzq::MetricEntry& before = {}) {
  std::vector<kzq::MetricEntry> entries;
  if (before.name != nullptr) entries.push_back(before);
  entries.push_back(entry);
  std::string error;
  const auto map = kzq::BuildMetricsMap(entries, kzq::TableDescriptions(), &error);
  return map ? "accepted" : error;
}

TEST(MetricsMap, EveryEntryFitsTheCatalogueAndBadOnesAreRefused) {
  std::string error;
  const auto map = kzq::BuildMetricsMap(kzq::MetricEntries(), kzq::TableDescriptions(), &error);
  ASSERT_TRUE(map) << error;
  EXPECT_EQ(map->size(), kzq::MetricEntries().size());

  const kzq::MetricEntry good = {"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "MB", "", "database=UDBNAME|DBNAME", "X."};
  EXPECT_EQ(Refusal(good), "accepted");
  struct Case {
    kzq::MetricEntry entry;
    const char* reason;
  };
  const Case cases[] = {
      {{"kzq_x_bytes", "gauge", "KZQNOPE.DBSIZE", "MB", "", "", "X."}, "no table KZQNOPE"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.NOPE", "MB", "", "", "X."}, "table KZQDBD has no attribute NOPE"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "MB", "", "database=UDBNAME|NOPE", "X."}, "no attribute NOPE"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "MB", "NOPE=1", "", "X."}, "no attribute NOPE"},
      {{"kzq_x", "counter", "KZQSTATD.STATCUM", "", "", "", "X."}, "a counter's name ends in _total"},
      {{"kzq_x_total", "gauge", "KZQSTATD.STATCUM", "", "", "", "X."}, "a counter's name ends in _total"},
      {{"kzq_X", "gauge", "KZQDBD.DBSIZE", "", "", "", "X."}, "a name is kzq_"},
      {{"x_bytes", "gauge", "KZQDBD.DBSIZE", "", "", "", "X."}, "a name is kzq_"},
      {{"kzq_kzqdbd_dbsize", "gauge", "KZQDBD.DBSIZE", "", "", "", "X."}, "names starting kzq_kzq are the agent's own"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "GB", "", "", "X."}, "unknown conversion 'GB'"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "=up", "", "", "X."}, "is = and an integer"},
      {{"kzq_x_seconds", "gauge", "KZQDBD.DBSIZE", "stamp", "", "", "X."}, "reads a text attribute"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "", "", "instance=DBNAME", "X."}, "bad label 'instance=DBNAME'"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "", "", "a=DBNAME a=OWNER", "X."}, "label a twice"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "", "", "s=DBSTAT{0:online,x}", "X."}, "'x' is not code:word"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "", "max", "database=DBNAME", "X."}, "constant labels only"},
      {{"kzq_x_bytes", "gauge", "KZQDBD.DBSIZE", "", "", "", ""}, "the help is one line"},
  };
  for (const Case& c : cases) EXPECT_THAT(Refusal(c.entry), HasSubstr(c.reason)) << c.entry.name;
  // Entries of one name are one family, their series apart by a constant label.
  const kzq::MetricEntry busy = {"kzq_y_total", "counter", "KZQSTATD.STATCUM", "", "STATNAME=cpu_busy", "mode='busy'", "Y."};
  kzq::MetricEntry idle = busy;
  idle.series = "STATNAME=idle";
  idle.labels = "mode='idle'";
  EXPECT_EQ(Refusal(idle, busy), "accepted");
  idle.labels = "mode='busy'";
  EXPECT_THAT(Refusal(idle, busy), HasSubstr("the same series"));
  idle.help = "Other.";
  EXPECT_THAT(Refusal(idle, busy), HasSubstr("differ in kind, help or label names"));
}

int64_t LocalSeconds(int hour) {
  platform::LocalTime time{2026, 11, 23, hour, 0, 0};
  return platform::FromLocal(&time);
}

// The demo's recorded rows of every collector table, as the cache holds
// their samples: the collector's part of each row, taken at `taken_at`.
std::map<std::string, framework::CachedTable> DemoSamples(int64_t taken_at) {
  std::map<std::string, framework::CachedTable> tables;
  for (const kzq::TableSpec* spec : kzq::kCatalogue) {
    const std::string path = std::string(KZQ_SOURCE_DIR) + "/demo/replay/" + spec->name + ".jsonl";
    if (!std::filesystem::exists(path)) continue;
    auto sample = std::make_shared<framework::CapturedSample>();
    std::string error;
    EXPECT_TRUE(collector::ReplaySource::ParseRows(*spec, kzq_test::ReadFile(path), path, kzq::kDefaultCodePage,
                                                   &sample->rows, &sample->count, &error))
        << error;
    const int skipped = spec->CollectorOffset();
    for (int i = 0; i < spec->attribute_count; ++i)
      if (spec->offsets[i] >= skipped)
        sample->attributes.push_back({spec->lower_names[i].data(), static_cast<uint16_t>(spec->offsets[i] - skipped),
                                      spec->attributes[i].width, spec->attributes[i].type});
    sample->table = spec->key;
    sample->row_size = spec->row_size - skipped;
    sample->taken_at = taken_at;
    tables[spec->key] = {sample, sample, 1, 0};
  }
  return tables;
}

TEST(MetricsMap, TheDemosRecordedRowsRenderInBaseUnitsAndPassPromtool) {
  std::string error;
  const auto map = kzq::BuildMetricsMap(kzq::MetricEntries(), kzq::TableDescriptions(), &error);
  ASSERT_TRUE(map) << error;
  const int64_t now = LocalSeconds(8);  // when the demo's rows were taken
  framework::MetricsContext context{"DEMO", "demo-db01", now, 0, 60, {}, false};
  const std::string text = framework::MetricsText(DemoSamples(now), kzq::TableDescriptions(), *map, {}, context);

  std::set<std::string> missing;
  for (const framework::MetricFamilyDescription& family : *map)
    if (text.find("# TYPE " + family.name + " ") == std::string::npos) missing.insert(family.name);
  EXPECT_THAT(missing, testing::IsEmpty()) << "families without a series in the demo's rows";
  const std::string base = "{server_id=\"DEMO\",host=\"demo-db01\"";
  EXPECT_THAT(text, HasSubstr("kzq_database_data_size_bytes" + base + ",database=\"master\"} 7340032\n"));
  EXPECT_THAT(text, HasSubstr("kzq_database_data_used_ratio" + base + ",database=\"master\"} 0.72\n"));
  EXPECT_THAT(text, HasSubstr("kzq_job_last_run_success" + base + ",job_name=\"DatabaseBackup - USER_DATABASES - FULL\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("kzq_job_last_run_timestamp_seconds" + base +
                              ",job_name=\"DatabaseBackup - USER_DATABASES - FULL\"} " + std::to_string(LocalSeconds(1)) + "\n"));
  EXPECT_THAT(text, HasSubstr("# TYPE kzq_cpu_seconds_total counter\n"));
  EXPECT_THAT(text, testing::Not(HasSubstr("kzq_kzqdbd_")));
#ifndef _WIN32
  kzq_test::TempDir dir;
  kzq_test::WriteFile(dir.File("metrics.txt"), text);
  EXPECT_EQ(system(("promtool check metrics < " + dir.File("metrics.txt")).c_str()), 0) << text;
#endif
}

}  // namespace
