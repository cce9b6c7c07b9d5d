#include "collector/sql_queries.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "kzq/catalogue.h"

namespace {

// The result columns a batch names: its upper-case aliases ("AS DBNAME").
// Helper names inside the batches are lower case by convention, so every
// upper-case alias is a column the packer will meet.
std::set<std::string> UpperCaseAliases(const std::string& text) {
  static const std::regex alias(R"(\bAS\s+\[?([A-Z][A-Z0-9]*)\]?(?![A-Za-z0-9_]))");
  std::set<std::string> names;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), alias); it != std::sregex_iterator(); ++it)
    names.insert((*it)[1]);
  return names;
}

// Statements that would change the server, outside comments and names in
// quotes (a quoted text holding statements, run by the batch, is looked
// at); a table variable of the batch's own is the one thing it may write.
bool ChangesTheServer(const std::string& text, std::string* word) {
  static const std::regex comment(R"(--[^\n]*|/\*[\s\S]*?\*/|N?'(?:[^';]|'')*')");
  static const std::regex change(
      R"(\b(UPDATE|DELETE|DROP|ALTER|CREATE|TRUNCATE|GRANT|REVOKE|DBCC|MERGE|RECONFIGURE|SHUTDOWN|KILL|xp_cmdshell|sp_configure)\s|\bINSERT\s+(?!INTO\s+@|@))",
      std::regex::icase);
  const std::string code = std::regex_replace(text, comment, " ");
  std::smatch m;
  if (!std::regex_search(code, m, change)) return false;
  *word = m.str();
  return true;
}

TEST(SqlQueries, EveryCollectorTableHasAQueryWhoseColumnsAreItsAttributes) {
  const collector::SqlQueries queries = collector::BuiltInSqlQueries();
  for (const kzq::TableSpec* table : kzq::kCatalogue) {
    SCOPED_TRACE(table->name);
    const auto found = queries.find(table->name);
    if (table->form == kzq::SampleForm::kPushed) {
      EXPECT_EQ(found, queries.end());
      continue;
    }
    ASSERT_NE(found, queries.end());
    const std::string& text = found->second.text;
    const std::set<std::string> columns = UpperCaseAliases(text);
    EXPECT_FALSE(columns.empty());
    for (const std::string& column : columns) {
      const int index = table->IndexOf(column);
      EXPECT_GE(index, 0) << column << " is no attribute";
      if (index >= 0) {
        EXPECT_GE(table->offsets[index], table->CollectorOffset()) << column << " is the agent's";
      }
    }
    for (const std::string& rate : found->second.rates) {
      const int index = table->IndexOf(rate);
      EXPECT_TRUE(index >= 0 && table->attributes[index].type == kzq::kTypeInt32) << rate << " is no integer";
      EXPECT_EQ(columns.count(rate), 1u) << rate << " is not returned";
    }
    std::string word;
    EXPECT_FALSE(ChangesTheServer(text, &word)) << word;
  }
}

TEST(SqlQueries, AQueryDirectoryReplacesTheBuiltInOnes) {
  collector::SqlQueries queries;
  std::string error;
  ASSERT_TRUE(collector::LoadSqlQueries(KZQ_SOURCE_DIR "/collector/queries", &queries, &error)) << error;
  const collector::SqlQueries built_in = collector::BuiltInSqlQueries();
  ASSERT_EQ(queries.size(), built_in.size());
  for (const auto& [table, query] : built_in) EXPECT_EQ(queries[table].text, query.text) << table;
  const collector::SqlQuery parsed = collector::ParseSqlQuery("kzqbtchs", "-- rate: batchsec , CMPLSEC\n-- rate:X\nSELECT 1");
  EXPECT_EQ(parsed.rates, (std::vector<std::string>{"BATCHSEC", "CMPLSEC", "X"}));
}

}  // namespace
