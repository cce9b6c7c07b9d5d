// The collector's queries, as data: one T-SQL batch per table whose result
// columns are named after the table's attributes. A line
//   -- rate: BATCHSEC, CMPLSEC
// names the attributes whose column holds a cumulative counter to be sent
// as a rate. The queries are built into the program from
// collector/queries/<table>.sql; a directory of such files can replace them.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace collector {

struct SqlQuery {
  std::string table;  // lower case, as the file is named
  std::string text;
  std::vector<std::string> rates;  // upper case
};

using SqlQueries = std::map<std::string, SqlQuery>;  // by table

// One query file's text; its rate lines read.
SqlQuery ParseSqlQuery(const std::string& table, std::string_view text);

// The queries built into the program.
SqlQueries BuiltInSqlQueries();

// Every <table>.sql of `directory`; false with *error when it cannot be
// read or a file names no collector table.
bool LoadSqlQueries(const std::string& directory, SqlQueries* queries, std::string* error);

}  // namespace collector
