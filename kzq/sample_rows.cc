#include "kzq/sample_rows.h"

#include <cstring>

namespace kzq {
namespace {

// The attributes that are the agent's or the status row's own; every
// other text of a server table is the collector's.
bool IsOwnText(const char* name) {
  for (const char* own : {"ORIGINNODE", "TIMESTAMP", "SERVERID", "HOSTNAME", "COLLSTATUS", "SAMPTIME", "SRVSTATUS"})
    if (strcmp(name, own) == 0) return true;
  return false;
}

}  // namespace

bool IsSummaryTable(const TableSpec& spec) { return strcmp(spec.name, "kzqsrvs") == 0; }

RowBuilder::RowBuilder(const TableSpec& spec) : spec_(spec), row_(static_cast<size_t>(spec.row_size), 0) {}

void RowBuilder::Fill(unsigned char byte) { memset(row_.data(), byte, row_.size()); }

unsigned char* RowBuilder::Field(const char* upper_name, int* width) {
  const int index = spec_.IndexOf(upper_name);
  if (index < 0) return nullptr;
  *width = spec_.attributes[index].width;
  return row_.data() + spec_.offsets[index];
}

void RowBuilder::SetText(const char* upper_name, const std::string& text, char pad) {
  int width = 0;
  unsigned char* field = Field(upper_name, &width);
  if (field == nullptr) return;
  const size_t n = text.size() < static_cast<size_t>(width) ? text.size() : static_cast<size_t>(width);
  memcpy(field, text.data(), n);
  memset(field + n, pad, static_cast<size_t>(width) - n);
}

void RowBuilder::SetInt(const char* upper_name, int32_t value) {
  int width = 0;
  unsigned char* field = Field(upper_name, &width);
  if (field != nullptr) memcpy(field, &value, sizeof value);
}

void RowBuilder::SetLeading(const std::string& origin_node, int32_t row_number, const std::string& time_stamp) {
  SetText("ORIGINNODE", origin_node, ' ');
  SetInt("SAMPLENO", 1);
  SetInt("ROWNO", row_number);
  SetText("TIMESTAMP", time_stamp, ' ');
}

void RowBuilder::CopyCollectorPart(const char* collector_row, CollectorText& text) {
  memcpy(row_.data() + spec_.CollectorOffset(), collector_row, static_cast<size_t>(CollectorRowLength(spec_)));
  text.DecodeRow(spec_, row_.data());
}

std::string RowBuilder::Text(const char* upper_name) const {
  const int index = spec_.IndexOf(upper_name);
  if (index < 0) return {};
  return std::string(reinterpret_cast<const char*>(row_.data() + spec_.offsets[index]), spec_.attributes[index].width);
}

int32_t RowBuilder::Int(const char* upper_name) const {
  const int index = spec_.IndexOf(upper_name);
  int32_t value = 0;
  if (index >= 0) memcpy(&value, row_.data() + spec_.offsets[index], sizeof value);
  return value;
}

const char* CollectorStatusText(bool collector_up) { return collector_up ? "Active  " : "Inactive  "; }

const char* ServerStatusText(bool database_up, bool collector_up) {
  if (database_up) return "Active";
  return collector_up ? "Inactive" : "Unknown";
}

// The status texts are C strings in their fields: the rest of the field
// is zeros, as a bounded string copy leaves it.
void BuildInactiveRow(RowBuilder& row, const StatusInputs& in) {
  row.Fill(0xFF);
  if (IsSummaryTable(row.Spec())) SetSummaryFields(row, in);
  row.SetText("COLLSTATUS", CollectorStatusText(in.collector_up), '\0');
  row.SetLeading(in.origin_node, 1, in.time_stamp);
  row.SetText("SERVERID", in.server_id, ' ');
  row.SetText("HOSTNAME", in.host_name, ' ');
  row.SetText("SAMPTIME", in.time_stamp, ' ');
}

void SetSummaryFields(RowBuilder& row, const StatusInputs& in) {
  row.SetText("SRVTYPE", "SQL Server ", '\0');
  row.SetText("PMDESC", " ", '\0');
  row.SetText("PMVALUE", " ", '\0');
  row.SetText("SQLVER", in.db_version, '\0');
  row.SetText("SRVVERSN", in.db_version, '\0');
}

void BuildNoDataRow(RowBuilder& row, const StatusInputs& in, bool zero_fill) {
  row.Fill(0xFF);
  if (zero_fill) row.Fill(0);
  const TableSpec& spec = row.Spec();
  if (IsSummaryTable(spec)) {
    SetSummaryFields(row, in);
  } else {
    for (int i = spec.IndexOf("SERVERID"); i < spec.attribute_count; ++i) {
      const Attribute& a = spec.attributes[i];
      if (a.type == kTypeText && !IsOwnText(a.name)) row.SetText(a.name, "nodata", '\0');
    }
    row.SetText("MAXSEV", "no", '\0');
  }
  row.SetText("SRVSTATUS", ServerStatusText(in.database_up, in.collector_up), '\0');
  row.SetLeading(in.origin_node, 1, in.time_stamp);
  row.SetText("SERVERID", in.server_id, ' ');
  row.SetText("HOSTNAME", in.host_name, ' ');
  row.SetText("SAMPTIME", in.time_stamp, ' ');
  row.SetText("COLLSTATUS", CollectorStatusText(in.collector_up), '\0');
}

const char* InactiveReason(double seconds_since_start, uint32_t status_code) {
  if (seconds_since_start < 540.0) return "Collector Initializing";
  switch (status_code) {
    case 1:
    case 20: return "Data Collector Timeout";
    case 3: return "Open Pipe Error";
    case 4: return "Pipe Create Error";
    default: return "Data Collector Error";
  }
}

}  // namespace kzq
