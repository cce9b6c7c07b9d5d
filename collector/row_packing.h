// Turns a query's result set into collector rows of a table: columns are
// matched to attributes by name (any case), and each value is converted to
// the attribute's field. The same packing serves live results and recorded
// ones, and can write what it packed as replay lines.
//
// Rules:
// - a column naming no attribute of the table, one the agent fills itself,
//   or one named twice makes the whole result unusable (an error, no rows);
// - an attribute with no column, or a NULL, is sent without a value (0xFF);
// - integers are 32-bit: fractions are cut, a value outside the range is
//   sent without a value and reported;
// - texts are encoded in the server's code page and cut, at a character,
//   to their width; a date or time becomes the 16-character time stamp;
// - SERVERID and SAMPTIME, when the query leaves them out, are the
//   configured server id and the time of the sample;
// - rate attributes carry a cumulative counter in the result and are sent
//   as its increase per second since the previous sample of the same row
//   (rows told apart by the table's identifying attributes); the first
//   sample, and a counter that went down, send no value.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "collector/result_set.h"
#include "kzq/catalogue.h"
#include "kzq/collector_text.h"

namespace collector {

struct PackContext {
  std::string server_id;
  platform::LocalTime sample_time;
  uint64_t sample_millis = 0;  // monotonic, for rates
};

// One collector thread at a time (it keeps the previous counters).
class RowPacker {
 public:
  explicit RowPacker(int code_page);

  // Appends the result's rows to *bytes and, when `replay` is not null, one
  // replay line per row to it. Returns the rows packed, or -1 with *error
  // when the columns do not fit the table. Values that cannot be sent are
  // reported in *problems (one text each, the same text for the same
  // column each time).
  int32_t Pack(const kzq::TableSpec& table, const ResultSet& result, const std::vector<std::string>& rates,
               const PackContext& context, std::string* bytes, std::string* replay,
               std::vector<std::string>* problems, std::string* error);

 private:
  struct Counter {
    double value = 0;
    uint64_t millis = 0;
  };
  using Counters = std::map<std::string, Counter>;  // by row key and attribute

  kzq::CollectorText encoder_;
  std::map<std::string, Counters> counters_;  // by table
};

}  // namespace collector
