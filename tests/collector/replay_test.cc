#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "collector/replay_source.h"
#include "kzq/catalogue.h"
#include "tests/support/table_rows.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;

struct Parsed {
  bool ok;
  std::string rows;
  int32_t count = 0;
  std::string error;
};

Parsed Parse(const kzq::TableSpec& table, const std::string& text) {
  Parsed p;
  p.ok = collector::ReplaySource::ParseRows(table, text, "rows.jsonl", kzq::kDefaultCodePage, &p.rows, &p.count, &p.error);
  return p;
}

// A field of row `row` of the collector's rows.
std::string TextAt(const kzq::TableSpec& table, const std::string& rows, int row, const char* name) {
  const size_t length = static_cast<size_t>(table.row_size - table.CollectorOffset());
  return kzq_test::FieldBytes(table, rows.substr(row * length, length), name, table.CollectorOffset());
}
int32_t IntAt(const kzq::TableSpec& table, const std::string& rows, int row, const char* name) {
  int32_t value = 0;
  memcpy(&value, TextAt(table, rows, row, name).data(), sizeof value);
  return value;
}

TEST(ReplayRows, PacksNamedValuesIntoTheCollectorLayout) {
  const Parsed p = Parse(kzq::kzqdbd_spec,
                         "# comment\n"
                         "{\"SERVERID\": \"SQL1\", \"DBNAME\": \"master\", \"DBSIZE\": 512}\r\n"
                         "\n"
                         "{\"dbname\": \"tempdb\", \"pctdbfree\": -7}\n");
  ASSERT_TRUE(p.ok) << p.error;
  ASSERT_EQ(p.count, 2);
  ASSERT_EQ(p.rows.size(), 2u * (2707 - 88));
  EXPECT_EQ(TextAt(kzq::kzqdbd_spec, p.rows, 0, "SERVERID"), "SQL1" + std::string(28, ' '));
  EXPECT_EQ(TextAt(kzq::kzqdbd_spec, p.rows, 0, "DBNAME"), "master" + std::string(24, ' '));
  EXPECT_EQ(IntAt(kzq::kzqdbd_spec, p.rows, 0, "DBSIZE"), 512);
  EXPECT_EQ(IntAt(kzq::kzqdbd_spec, p.rows, 0, "PCTDBFREE"), 0);  // left out: 0
  EXPECT_EQ(TextAt(kzq::kzqdbd_spec, p.rows, 1, "HOSTNAME"), std::string(64, ' '));
  EXPECT_EQ(IntAt(kzq::kzqdbd_spec, p.rows, 1, "PCTDBFREE"), -7);
}

TEST(ReplayRows, EveryProblemNamesItsLine) {
  const std::string good = "{\"DBNAME\": \"master\"}\n";
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, good + good + "{\"DBNAME\": \"x\"\n").error,
              "rows.jsonl:3: not valid JSON");
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, good + "{\"NOPE\": 1}\n").error,
              "rows.jsonl:2: unknown attribute 'NOPE' of kzqdbd");
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, "{\"DBNAME\": \"" + std::string(31, 'x') + "\"}\n").error,
              "rows.jsonl:1: DBNAME holds at most 30 bytes, got 31");
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, "{\"DBSIZE\": 2147483648}\n").error,
              "rows.jsonl:1: DBSIZE value 2147483648 does not fit in 32 bits");
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, "{\"DBSIZE\": \"512\"}\n").error, "rows.jsonl:1: DBSIZE needs an integer");
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, "{\"DBNAME\": 5}\n").error, "rows.jsonl:1: DBNAME needs a text in quotes");
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, "[1, 2]\n").error, "rows.jsonl:1: a row must be a JSON object");
  EXPECT_THAT(Parse(kzq::kzqdbd_spec, "{\"SAMPLENO\": 3}\n").error,
              "rows.jsonl:1: attribute SAMPLENO of kzqdbd is filled by the agent, not sent by a collector");
  // A table's own fields before SERVERID are the collector's to send.
  EXPECT_THAT(Parse(kzq::kzqbtchs_spec, "{\"BATCHSEC\": 3}\n").error, "");
}

TEST(ReplayRows, LoadReadsEachTableFileAndRefusesStrangeNames) {
  kzq_test::TempDir dir;
  kzq_test::WriteFile(dir.File("kzqscfg.jsonl"), "{\"CONFIGNAME\": \"max memory\"}\n");
  kzq_test::WriteFile(dir.File("notes.txt"), "ignored");
  std::string error;
  auto source = collector::ReplaySource::Load(dir.Path(), kzq::kDefaultCodePage, &error);
  ASSERT_NE(source, nullptr) << error;
  std::string rows;
  EXPECT_EQ(source->Rows(kzq::kzqscfg_spec, "", &rows), 1);
  EXPECT_EQ(TextAt(kzq::kzqscfg_spec, rows, 0, "CONFIGNAME"), "max memory" + std::string(20, ' '));
  EXPECT_EQ(source->Rows(kzq::kzqdbd_spec, "", &rows), 0);

  kzq_test::WriteFile(dir.File("kzqnope.jsonl"), "");
  EXPECT_EQ(collector::ReplaySource::Load(dir.Path(), kzq::kDefaultCodePage, &error), nullptr);
  EXPECT_THAT(error, HasSubstr("no table named kzqnope"));
  EXPECT_EQ(collector::ReplaySource::Load(dir.File("missing"), kzq::kDefaultCodePage, &error), nullptr);
}

// The demo replays every collector table: a catalogue change that breaks
// one of its files, or a table left without rows, fails here first.
TEST(ReplayRows, DemoDataLoadsAndFillsEveryCollectorTable) {
  std::string error;
  auto source = collector::ReplaySource::Load(std::string(KZQ_SOURCE_DIR) + "/demo/replay", kzq::kDefaultCodePage, &error);
  ASSERT_NE(source, nullptr) << error;
  for (const kzq::TableSpec* table : kzq::kCatalogue) {
    if (table->form == kzq::SampleForm::kPushed) continue;
    std::string rows;
    EXPECT_GT(source->Rows(*table, "", &rows), 0) << table->name;
  }
}

}  // namespace
