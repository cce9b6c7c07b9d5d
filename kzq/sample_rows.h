// Building the rows a sample hands to its table object: the leading
// attributes the agent fills in every row, the copy of a collector row, and
// the one status row a server table returns when the collector cannot
// answer. Pure functions over a row buffer of the table's layout.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kzq/catalogue.h"
#include "kzq/collector_text.h"

namespace kzq {

// Where a row is being built: the table's layout over a buffer of exactly
// its row size.
class RowBuilder {
 public:
  explicit RowBuilder(const TableSpec& spec);

  void Fill(unsigned char byte);
  // Copies `text` into the attribute and pads the rest with `pad`; does
  // nothing for an attribute the table does not have.
  void SetText(const char* upper_name, const std::string& text, char pad);
  void SetInt(const char* upper_name, int32_t value);
  // ORIGINNODE blank-padded, SAMPLENO 1, ROWNO and TIMESTAMP.
  void SetLeading(const std::string& origin_node, int32_t row_number, const std::string& time_stamp);
  // The collector's part of the row: everything after the leading
  // attributes, its texts decoded into UTF-8.
  void CopyCollectorPart(const char* collector_row, CollectorText& text);

  const TableSpec& Spec() const { return spec_; }
  const unsigned char* Data() const { return row_.data(); }
  std::string Text(const char* upper_name) const;  // the field as stored
  int32_t Int(const char* upper_name) const;

 private:
  unsigned char* Field(const char* upper_name, int* width);

  const TableSpec& spec_;
  std::vector<unsigned char> row_;
};

// The server summary table, whose status rows carry its own fields.
bool IsSummaryTable(const TableSpec& spec);

// The bytes of one collector row for the table.
inline int CollectorRowLength(const TableSpec& spec) { return spec.row_size - spec.CollectorOffset(); }

// What a status row says and where its values come from.
struct StatusInputs {
  bool collector_up = false;
  bool database_up = false;
  std::string origin_node;  // the local host name, unpadded
  std::string server_id;    // the collector identity
  std::string host_name;
  std::string time_stamp;   // one fresh stamp for TIMESTAMP and SAMPTIME
  std::string db_version;   // COLL_DBVERSION, for the server summary table
};

// "Active  " or "Inactive  ": the collector's state as status rows show it.
const char* CollectorStatusText(bool collector_up);
// The database server's state: "Active", "Inactive" (collector up) or "Unknown".
const char* ServerStatusText(bool database_up, bool collector_up);
// SRVSTATUS of a server whose service runs but which the collector cannot reach.
inline constexpr const char* kServerUnreachable = "Unreachable";

// The collector is inactive (the exchange failed): everything 0xFF except
// the leading attributes, the identity, the time stamps and COLLSTATUS.
void BuildInactiveRow(RowBuilder& row, const StatusInputs& in);

// No data came: 0xFF, then zeros when `zero_fill`, "nodata" in every text the
// collector would fill ("no" in MAXSEV), SRVSTATUS by the services, and the
// fields of the inactive row. The server summary table writes its summary
// fields instead of "nodata".
void BuildNoDataRow(RowBuilder& row, const StatusInputs& in, bool zero_fill);

// The server summary table's fields of a status row: SRVTYPE, a blank in
// PMDESC and PMVALUE, SQLVER and SRVVERSN from the configured version.
void SetSummaryFields(RowBuilder& row, const StatusInputs& in);

// Why the collector is inactive: "Collector Initializing" within 540 seconds
// of the agent's start, else by the channel's status code.
const char* InactiveReason(double seconds_since_start, uint32_t status_code);

}  // namespace kzq
