// A row source that reads SQL Server itself: each table's query runs on one
// ODBC connection and its result is packed into the table's rows. When the
// server cannot be reached, a query fails or runs out of time, the table
// answers no rows, the reason is logged once per change, and the
// connection is made again with a growing pause (1 s doubling to 60 s).
// With a record directory, each table's last sample is also written there
// as a replay file.
//
// Only the collector's serving thread calls it.
#pragma once

#include <map>
#include <set>
#include <string>

#include "collector/odbc_client.h"
#include "collector/row_packing.h"
#include "collector/row_source.h"
#include "collector/sql_queries.h"
#include "collector/sql_server_settings.h"

namespace collector {

class SqlServerSource final : public RowSource {
 public:
  SqlServerSource(SqlServerSettings settings, SqlQueries queries, int code_page, std::string record_directory);

  int32_t Rows(const kzq::TableSpec& table, const std::string& statement, std::string* bytes) override;
  bool DatabaseReachable() override;

 private:
  // Connected now, or connects when the pause since the last failure is over.
  bool Connected();
  void ConnectionFailed(const std::string& reason);
  void TableAnswered(const kzq::TableSpec& table, const std::string& problem);
  void Record(const kzq::TableSpec& table, const std::string& lines);

  const SqlServerSettings settings_;
  const SqlQueries queries_;
  const std::string record_directory_;
  OdbcConnection connection_;
  RowPacker packer_;
  uint64_t next_attempt_ = 0;  // monotonic ms
  uint32_t pause_ = 0;         // ms
  std::string unreachable_;    // why, as last logged; empty while reachable
  bool ever_connected_ = false;
  std::map<std::string, std::string> table_problems_;  // as last logged, by table
  std::set<std::string> value_problems_;               // each logged once
};

}  // namespace collector
