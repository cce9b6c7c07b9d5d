#include "collector/row_packing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "collector/replay_source.h"
#include "kzq/catalogue.h"

namespace {

using collector::Cell;
using collector::CellKind;
using collector::ResultSet;
using testing::HasSubstr;

Cell Int(int64_t v) {
  Cell c;
  c.kind = CellKind::kInteger;
  c.integer = v;
  return c;
}
Cell Real(double v) {
  Cell c;
  c.kind = CellKind::kReal;
  c.real = v;
  return c;
}
Cell Text(const std::string& v) {
  Cell c;
  c.kind = CellKind::kText;
  c.text = v;
  return c;
}
Cell Time(int year, int month, int day, int hour, int minute, int second, int ms) {
  Cell c;
  c.kind = CellKind::kTime;
  c.time = {year, month, day, hour, minute, second, ms};
  return c;
}
Cell Null() { return Cell{}; }

std::string Field(const kzq::TableSpec& table, const std::string& rows, int row, const char* name) {
  const int i = table.IndexOf(name);
  const size_t at = static_cast<size_t>(row) * static_cast<size_t>(table.row_size - table.CollectorOffset()) +
                    static_cast<size_t>(table.offsets[i] - table.CollectorOffset());
  return rows.substr(at, table.attributes[i].width);
}

int32_t IntField(const kzq::TableSpec& table, const std::string& rows, int row, const char* name) {
  int32_t v;
  memcpy(&v, Field(table, rows, row, name).data(), sizeof v);
  return v;
}

const std::string kNoInt(4, '\xFF');

struct Packed {
  int32_t count;
  std::string rows, replay, error;
  std::vector<std::string> problems;
};

Packed Pack(collector::RowPacker& packer, const kzq::TableSpec& table, const ResultSet& result,
            const std::vector<std::string>& rates = {}, uint64_t millis = 1000) {
  Packed p;
  collector::PackContext context{"SQL1", {2026, 11, 26, 8, 30, 0, 250}, millis};
  p.count = packer.Pack(table, result, rates, context, &p.rows, &p.replay, &p.problems, &p.error);
  return p;
}

// A recorded result set with every kind of cell, as the client hands it
// over, packed and written as replay lines that pack back to the same bytes.
TEST(RowPacking, ARecordedResultBecomesRowsAndReplaysToTheSameBytes) {
  const kzq::TableSpec& t = kzq::kzqdbd_spec;
  ResultSet result;
  result.columns = {"DbName", "DBSIZE", "LOGSIZE", "PCTDBFREE", "DBFREE", "DBSTATE", "DUMPTRDATE", "UDBNAME",
                    "HOSTNAME", "TABLECNT"};
  result.rows = {
      {Text("master"), Int(6), Int(2147483648LL), Real(37.9), Null(), Text("ONLINE"), Time(2026, 11, 25, 23, 5, 9, 120),
       Text("Café Zürich 数据"), Text("db01"), Text("12")},
      {Text("tempdb"), Int(-2147483648LL), Real(1e12), Real(-0.5), Int(3), Null(), Null(), Text(std::string(500, 'x')),
       Text("db01"), Text("twelve")},
  };
  collector::RowPacker packer(kzq::kDefaultCodePage);
  const Packed p = Pack(packer, t, result);
  ASSERT_EQ(p.count, 2) << p.error;
  EXPECT_EQ(Field(t, p.rows, 0, "DBNAME"), "master" + std::string(24, ' '));
  EXPECT_EQ(IntField(t, p.rows, 0, "DBSIZE"), 6);
  EXPECT_EQ(Field(t, p.rows, 0, "LOGSIZE"), kNoInt);  // over 32 bits
  EXPECT_EQ(IntField(t, p.rows, 0, "PCTDBFREE"), 37);
  EXPECT_EQ(Field(t, p.rows, 0, "DBFREE"), kNoInt);             // NULL
  EXPECT_EQ(Field(t, p.rows, 0, "PCTLOGFREE"), kNoInt);         // no column
  EXPECT_EQ(Field(t, p.rows, 0, "DUMPTRDATE"), "12611252");     // time stamp, cut to the field
  EXPECT_EQ(Field(t, p.rows, 0, "SAMPTIME"), "1261126083000250");  // the sample's time, query left it out
  EXPECT_EQ(Field(t, p.rows, 0, "SERVERID"), "SQL1" + std::string(28, ' '));
  EXPECT_EQ(Field(t, p.rows, 0, "UDBNAME").substr(0, 16), "Caf\xE9 Z\xFCrich ??  ");  // code page 1252
  EXPECT_EQ(IntField(t, p.rows, 0, "TABLECNT"), 12);
  EXPECT_EQ(IntField(t, p.rows, 1, "DBSIZE"), INT32_MIN);
  EXPECT_EQ(Field(t, p.rows, 1, "LOGSIZE"), kNoInt);
  EXPECT_EQ(IntField(t, p.rows, 1, "PCTDBFREE"), 0);  // fractions are cut toward zero
  EXPECT_EQ(Field(t, p.rows, 1, "DBSTATE"), std::string(32, '\xFF'));
  EXPECT_EQ(Field(t, p.rows, 1, "UDBNAME"), std::string(384, 'x'));
  EXPECT_EQ(Field(t, p.rows, 1, "TABLECNT"), kNoInt);
  EXPECT_THAT(p.problems, testing::ElementsAre("KZQDBD.LOGSIZE holds a value outside 32 bits",
                                               "KZQDBD.LOGSIZE holds a value outside 32 bits",
                                               "KZQDBD.TABLECNT holds a text that is not a number"));

  std::string replayed, error;
  int32_t count = 0;
  ASSERT_TRUE(collector::ReplaySource::ParseRows(t, p.replay, "recorded", kzq::kDefaultCodePage, &replayed, &count,
                                                 &error))
      << error;
  EXPECT_EQ(count, 2);
  EXPECT_EQ(replayed, p.rows);
}

TEST(RowPacking, ATextIsCutAtACharacterOfTheCodePage) {
  const kzq::TableSpec& t = kzq::kzqscfg_spec;  // CONFIGNAME is 30 bytes
  ResultSet result;
  result.columns = {"CONFIGNAME"};
  result.rows = {{Text(std::string(29, 'a') + "é")}, {Text(std::string(28, 'a') + "€€")}};
  collector::RowPacker utf8(kzq::kUtf8CodePage);
  const Packed p = Pack(utf8, t, result);
  ASSERT_EQ(p.count, 2) << p.error;
  EXPECT_EQ(Field(t, p.rows, 0, "CONFIGNAME"), std::string(29, 'a') + " ");  // é needs two bytes: left out
  EXPECT_EQ(Field(t, p.rows, 1, "CONFIGNAME"), std::string(28, 'a') + "  ");
  collector::RowPacker western(kzq::kDefaultCodePage);
  EXPECT_EQ(Field(t, Pack(western, t, result).rows, 1, "CONFIGNAME"), std::string(28, 'a') + "\x80\x80");
}

TEST(RowPacking, ColumnsThatDoNotBelongInTheRowsRefuseTheResult) {
  struct Case {
    std::vector<std::string> columns;
    const char* error;
  } cases[] = {
      {{"DBNAME", "DBSIZ"}, "column 'DBSIZ' names no attribute of KZQDBD"},
      {{"TIMESTAMP"}, "column 'TIMESTAMP' is filled by the agent in KZQDBD"},
      {{"DBNAME", "dbname"}, "column 'dbname' comes twice in KZQDBD"},
  };
  for (const Case& c : cases) {
    ResultSet result;
    result.columns = c.columns;
    result.rows = {std::vector<Cell>(c.columns.size(), Text("x"))};
    collector::RowPacker packer(kzq::kDefaultCodePage);
    const Packed p = Pack(packer, kzq::kzqdbd_spec, result);
    EXPECT_EQ(p.count, -1);
    EXPECT_EQ(p.error, c.error);
    EXPECT_TRUE(p.rows.empty());
  }
}

// Rates per row, told apart by the table's key; a row's first sample and a
// counter that went down (a restarted server) have no rate.
TEST(RowPacking, RatesAreTheIncreasePerSecondOfEachRowsCounter) {
  const kzq::TableSpec& t = kzq::kzqdbd_spec;
  collector::RowPacker packer(kzq::kDefaultCodePage);
  auto sample = [&](std::vector<std::pair<std::string, int64_t>> rows, uint64_t millis) {
    ResultSet result;
    result.columns = {"DBNAME", "TRANSSEC"};
    for (auto& [name, counter] : rows) result.rows.push_back({Text(name), Int(counter)});
    return Pack(packer, t, result, {"TRANSSEC"}, millis);
  };
  Packed p = sample({{"a", 100}, {"b", 5000}}, 10000);
  EXPECT_EQ(Field(t, p.rows, 0, "TRANSSEC"), kNoInt);
  EXPECT_EQ(Field(t, p.rows, 1, "TRANSSEC"), kNoInt);
  p = sample({{"b", 5600}, {"a", 400}, {"c", 1}}, 12000);
  EXPECT_EQ(IntField(t, p.rows, 0, "TRANSSEC"), 300);
  EXPECT_EQ(IntField(t, p.rows, 1, "TRANSSEC"), 150);
  EXPECT_EQ(Field(t, p.rows, 2, "TRANSSEC"), kNoInt);
  p = sample({{"a", 10}, {"c", 31}}, 14000);
  EXPECT_EQ(Field(t, p.rows, 0, "TRANSSEC"), kNoInt);
  EXPECT_EQ(IntField(t, p.rows, 1, "TRANSSEC"), 15);
  EXPECT_THAT(p.replay, HasSubstr("\"TRANSSEC\":null"));
}

}  // namespace
