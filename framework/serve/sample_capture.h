// A report sample kept as plain bytes with its row layout, so it can be
// rendered (JSON, metrics) after the table object that took it is gone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "framework/serve/agent_description.h"
#include "framework/situation.h"
#include "framework/tavra.h"

namespace framework {

struct CapturedSample {
  std::string table;  // upper-case key
  std::vector<AttributeDescriptor> attributes;
  int row_size = 0;
  int count = 0;
  std::string rows;  // count * row_size bytes
  int sample_result = 0;
  std::string failure;   // why the table could not get its data; empty when it could
  int64_t taken_at = 0;  // Unix seconds

  const unsigned char* Row(int i) const {
    return reinterpret_cast<const unsigned char*>(rows.data()) + static_cast<size_t>(i) * row_size;
  }
};

// Keeps every row it is given, with the layout of the table that sent them.
class CapturingConsumer final : public RowConsumer {
 public:
  explicit CapturingConsumer(CapturedSample* sample) : sample_(sample) {}
  int Deliver(const tavra& table) override;

 private:
  CapturedSample* sample_;
};

// Copies the layout and the buffered rows of a table object.
void CaptureRows(const tavra& table, CapturedSample* sample);

// Parses a filter against the table's attributes; std::nullopt with a
// reason when it does not parse.
std::optional<SituationFilter> ParseTableFilter(const TableDescription& table, const std::string& text,
                                                std::string* error);

// Takes a fresh report sample of the table (any case) through its
// manager; the framework's request result (kRequestOk, ...).
int CaptureReportSample(const std::string& table, const SituationFilter* filter, CapturedSample* out);

}  // namespace framework
