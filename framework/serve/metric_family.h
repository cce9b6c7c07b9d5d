// A metric family the agent publishes from its tables: which attribute of
// which table it reads, how that value becomes the family's base unit, and
// which attributes label its series. The agent describes its families as
// data; the framework renders them without knowing what they mean.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace framework {

enum class MetricKind { kGauge, kCounter };

// How a field's value becomes the family's value.
enum class UnitConversion {
  kAsIs,
  kMegabytes,      // MB to bytes
  kKilobytes,      // KB to bytes
  kPercent,        // a whole percentage to a ratio 0-1
  kMilliseconds,   // to seconds
  kMinutes,        // to seconds
  kTimeStamp,      // the agent's local CYYMMDDHHMMSSmmm stamp to Unix seconds
  kTimeStampAge,   // seconds from that stamp to now
  kDateAge,        // seconds from the local midnight of an mm/dd/yy date to now
  kEquals,         // 1 when the value is `equals`, else 0
};

// Which series a family has: one per row, or one for the whole sample.
enum class RowAggregate {
  kEachRow,
  kMaximum,       // the highest value of the chosen rows; 0 when none
  kHeadBlockers,  // rows that block another row (the attribute is their id,
                  // `blocker` the id of whoever blocks a row; 0 for none)
                  // and are not blocked themselves
};

struct MetricLabel {
  std::string name;
  // The first of these attributes that has a value gives the label's
  // value; with none, the label is the constant `constant`.
  std::vector<std::string> attributes;
  std::string constant;
  std::map<int64_t, std::string> words;  // code -> word; empty: the value as it stands
};

// Rows whose attribute's value (texts trimmed, integers in decimal) is, or
// is not, `value`. No attribute: every row.
struct RowCondition {
  std::string attribute;
  std::string value;
  bool equal = true;
};

struct MetricFamilyDescription {
  std::string name;
  MetricKind kind = MetricKind::kGauge;
  std::string help;
  std::string table;      // upper-case key
  std::string attribute;  // upper case
  UnitConversion conversion = UnitConversion::kAsIs;
  int64_t equals = 0;
  RowAggregate aggregate = RowAggregate::kEachRow;
  std::string blocker;  // kHeadBlockers only
  RowCondition rows;
  std::vector<MetricLabel> labels;  // a series over all rows takes the constant ones only
};

}  // namespace framework
