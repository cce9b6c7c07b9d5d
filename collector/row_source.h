// Where the collector's rows come from. A source answers a table with rows
// in the table's collector layout: the row after the leading attributes
// the agent fills (ORIGINNODE, SAMPLENO, ROWNO, TIMESTAMP).
#pragma once

#include <cstdint>
#include <string>

#include "kzq/catalogue.h"

namespace collector {

class RowSource {
 public:
  virtual ~RowSource() = default;
  // Appends the table's rows to *bytes and returns how many; 0 when the
  // source has none for it. `statement` is what came with the request
  // ("SPID=<n>" for the SQL text of one session, or empty).
  virtual int32_t Rows(const kzq::TableSpec& table, const std::string& statement, std::string* bytes) = 0;
  // Whether the database behind the source can be reached now (the
  // heartbeat's second number).
  virtual bool DatabaseReachable() { return true; }
};

// Bytes of one collector row of `table`.
inline int CollectorRowLength(const kzq::TableSpec& table) {
  return table.row_size - table.CollectorOffset();
}

}  // namespace collector
