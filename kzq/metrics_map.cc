#include "kzq/metrics_map.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <set>
#include <string_view>

#include "framework/serve/metric_values.h"

namespace kzq {
namespace {

using framework::MetricFamilyDescription;
using framework::MetricLabel;
using framework::TableDescription;
using framework::UnitConversion;

constexpr MetricEntry kEntries[] = {
#define KZQ_METRIC(name, kind, source, conversion, series, labels, help) {name, kind, source, conversion, series, labels, help},
#include "kzq/metrics_map.def"
#undef KZQ_METRIC
};

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  size_t at = 0;
  while (at <= text.size()) {
    const size_t end = std::min(text.find(separator, at), text.size());
    if (end > at) parts.emplace_back(text.substr(at, end - at));
    at = end + 1;
  }
  return parts;
}

bool IsName(std::string_view name) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
  for (char c : name)
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) return false;
  return true;
}

std::optional<int64_t> Integer(std::string_view text) {
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Turns one entry's texts into a description, checking each part against
// the catalogue. One entry, one thread.
class EntryReader {
 public:
  EntryReader(const MetricEntry& entry, const std::vector<TableDescription>& tables) : entry_(entry), tables_(tables) {}

  std::optional<MetricFamilyDescription> Read(std::string* error) {
    family_.name = entry_.name;
    family_.help = entry_.help;
    const bool read = Name() && Kind() && Source() && Conversion() && Series() && Labels();
    if (!read) {
      *error = std::string(entry_.name) + ": " + problem_;
      return std::nullopt;
    }
    return family_;
  }

 private:
  bool Fail(std::string problem) {
    problem_ = std::move(problem);
    return false;
  }

  bool Name() {
    const std::string_view name = entry_.name;
    if (!IsName(name) || name.rfind("kzq_", 0) != 0) return Fail("a name is kzq_ and lower-case letters, digits, _");
    // The raw per-table gauges and the agent's own health families.
    for (const char* taken : {"kzq_kzq", "kzq_sample", "kzq_collector_", "kzq_sqlserver_", "kzq_error_events",
                              "kzq_errorlog_", "kzq_http_", "kzq_channel_"})
      if (name.starts_with(taken)) return Fail("names starting " + std::string(taken) + " are the agent's own");
    if (family_.help.empty() || family_.help.find_first_of("\\\n") != std::string::npos)
      return Fail("the help is one line of text");
    return true;
  }

  bool Kind() {
    const std::string_view kind = entry_.kind;
    const bool total = family_.name.size() > 6 && family_.name.ends_with("_total");
    if (kind == "counter" && total) family_.kind = framework::MetricKind::kCounter;
    else if (kind == "gauge" && !total) family_.kind = framework::MetricKind::kGauge;
    else return Fail("a counter's name ends in _total and only a counter's does ('" + std::string(kind) + "')");
    return true;
  }

  // An attribute of the entry's table; fails when there is none.
  const framework::AttributeDescription* Attribute(const std::string& name) {
    const framework::AttributeDescription* a = table_ != nullptr ? table_->Attribute(name) : nullptr;
    if (a == nullptr) Fail("table " + family_.table + " has no attribute " + name);
    return a;
  }

  bool Source() {
    const std::string_view source = entry_.source;
    const size_t dot = source.find('.');
    if (dot == std::string_view::npos) return Fail("the source is TABLE.ATTRIBUTE");
    family_.table = source.substr(0, dot);
    family_.attribute = source.substr(dot + 1);
    for (const TableDescription& t : tables_)
      if (t.key == family_.table) table_ = &t;
    if (table_ == nullptr) return Fail("no table " + family_.table);
    return Attribute(family_.attribute) != nullptr;
  }

  bool Conversion() {
    static const std::pair<std::string_view, UnitConversion> kNames[] = {
        {"", UnitConversion::kAsIs},          {"MB", UnitConversion::kMegabytes},
        {"KB", UnitConversion::kKilobytes},   {"%", UnitConversion::kPercent},
        {"ms", UnitConversion::kMilliseconds}, {"min", UnitConversion::kMinutes},
        {"stamp", UnitConversion::kTimeStamp}, {"stamp-age", UnitConversion::kTimeStampAge},
        {"date-age", UnitConversion::kDateAge}};
    const std::string_view text = entry_.conversion;
    const auto named = std::find_if(std::begin(kNames), std::end(kNames), [&](const auto& n) { return n.first == text; });
    if (named != std::end(kNames)) {
      family_.conversion = named->second;
    } else if (text.starts_with("=")) {
      const auto equals = Integer(text.substr(1));
      if (!equals) return Fail("'" + std::string(text) + "' is = and an integer");
      family_.conversion = UnitConversion::kEquals;
      family_.equals = *equals;
    } else {
      return Fail("unknown conversion '" + std::string(text) + "'");
    }
    const bool text_field = Attribute(family_.attribute)->type == framework::kTextType;
    if (framework::ReadsTime(family_.conversion) && !text_field)
      return Fail("a time conversion reads a text attribute, not " + family_.attribute);
    return true;
  }

  bool Series() {
    std::string_view text = entry_.series;
    if (text.starts_with("head-blockers ")) {
      family_.aggregate = framework::RowAggregate::kHeadBlockers;
      family_.blocker = text.substr(14);
      return Attribute(family_.blocker) != nullptr;
    }
    if (text == "max" || text.starts_with("max ")) {
      family_.aggregate = framework::RowAggregate::kMaximum;
      text.remove_prefix(std::min<size_t>(4, text.size()));
    }
    if (text.empty()) return true;
    const size_t equal = text.find('=');
    if (equal == std::string_view::npos || equal == 0) return Fail("rows are chosen by ATTR=value or ATTR!=value");
    const bool negated = text[equal - 1] == '!';
    family_.rows = {std::string(text.substr(0, equal - (negated ? 1 : 0))), std::string(text.substr(equal + 1)), !negated};
    return Attribute(family_.rows.attribute) != nullptr;
  }

  bool Label(const std::string& text) {
    const size_t equal = text.find('=');
    MetricLabel label;
    label.name = text.substr(0, equal);
    static const std::set<std::string> kTaken = {"server_id", "host", "instance", "job", "row", "le", "quantile"};
    if (equal == std::string::npos || !IsName(label.name) || label.name.starts_with("__") || kTaken.count(label.name))
      return Fail("bad label '" + text + "' (names are lower case; server_id, host, row, and job and instance that Prometheus sets, are taken)");
    std::string value = text.substr(equal + 1);
    if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') {
      label.constant = value.substr(1, value.size() - 2);
    } else {
      if (const size_t brace = value.find('{'); brace != std::string::npos) {
        if (value.back() != '}') return Fail("label " + label.name + ": unclosed {");
        for (const std::string& pair : Split(value.substr(brace + 1, value.size() - brace - 2), ',')) {
          const size_t colon = pair.find(':');
          const auto code = Integer(std::string_view(pair).substr(0, colon));
          if (colon == std::string::npos || !code) return Fail("label " + label.name + ": '" + pair + "' is not code:word");
          label.words[*code] = pair.substr(colon + 1);
        }
        value.resize(brace);
      }
      label.attributes = Split(value, '|');
      if (label.attributes.empty()) return Fail("label " + label.name + " names no attribute");
      for (const std::string& attribute : label.attributes)
        if (Attribute(attribute) == nullptr) return false;
      if (family_.aggregate != framework::RowAggregate::kEachRow)
        return Fail("a series over all rows has constant labels only");
    }
    for (const MetricLabel& other : family_.labels)
      if (other.name == label.name) return Fail("label " + label.name + " twice");
    family_.labels.push_back(std::move(label));
    return true;
  }

  bool Labels() {
    for (const std::string& text : Split(entry_.labels, ' '))
      if (!Label(text)) return false;
    return true;
  }

  const MetricEntry& entry_;
  const std::vector<TableDescription>& tables_;
  const TableDescription* table_ = nullptr;
  MetricFamilyDescription family_;
  std::string problem_;
};

std::vector<std::string> LabelNames(const MetricFamilyDescription& family) {
  std::vector<std::string> names;
  for (const MetricLabel& label : family.labels) names.push_back(label.name);
  return names;
}

std::string Constants(const MetricFamilyDescription& family) {
  std::string constants;
  for (const MetricLabel& label : family.labels)
    if (label.attributes.empty()) constants += label.name + "=" + label.constant + ",";
  return constants;
}

// Entries of one name are one family: the same kind, help and label names,
// and series that constant labels tell apart.
bool FitsItsFamily(const MetricFamilyDescription& family, const std::vector<MetricFamilyDescription>& before,
                   std::string* error) {
  for (const MetricFamilyDescription& other : before) {
    if (other.name != family.name) continue;
    if (other.kind != family.kind || other.help != family.help || LabelNames(other) != LabelNames(family)) {
      *error = family.name + ": entries of one name differ in kind, help or label names";
      return false;
    }
    if (Constants(other) == Constants(family)) {
      *error = family.name + ": two entries with the same labels would give the same series";
      return false;
    }
  }
  return true;
}

}  // namespace

std::span<const MetricEntry> MetricEntries() { return kEntries; }

std::optional<std::vector<MetricFamilyDescription>> BuildMetricsMap(std::span<const MetricEntry> entries,
                                                                     const std::vector<TableDescription>& tables,
                                                                     std::string* error) {
  std::vector<MetricFamilyDescription> families;
  for (const MetricEntry& entry : entries) {
    std::optional<MetricFamilyDescription> family = EntryReader(entry, tables).Read(error);
    if (!family || !FitsItsFamily(*family, families, error)) return std::nullopt;
    families.push_back(std::move(*family));
  }
  return families;
}

}  // namespace kzq
