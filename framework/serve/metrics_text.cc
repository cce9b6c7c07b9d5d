#include "framework/serve/metrics_text.h"

#include <set>

#include "framework/serve/row_json.h"

namespace framework {
namespace {

struct Label {
  std::string name;
  std::string value;
};

std::string LabelText(const std::vector<Label>& labels) {
  std::string text = "{";
  for (const Label& l : labels) {
    if (text.size() > 1) text += ',';
    text += l.name + "=\"" + EscapeLabelValue(l.value) + "\"";
  }
  return text + "}";
}

void Family(std::string* out, const std::string& name, const char* type, const std::string& help) {
  *out += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void Sample(std::string* out, const std::string& name, const std::vector<Label>& labels, int64_t value) {
  *out += name + LabelText(labels) + " " + std::to_string(value) + "\n";
}

std::string LowerName(const std::string& text) {
  std::string lower = text;
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return lower;
}

// Bookkeeping the agent adds to every row, not a measurement.
bool IsBookkeeping(const std::string& attribute) { return attribute == "sampleno" || attribute == "rowno"; }

// A key's label value: a text as it stands, an integer in decimal (its
// bytes are no text), nothing for a field without a value.
std::string KeyText(const AttributeDescriptor& attribute, const unsigned char* row) {
  if (attribute.type == kTextType) return TextField(attribute, row).value_or("");
  const auto value = IntegerField(attribute, row);
  return value ? std::to_string(*value) : std::string();
}

// The labels of each row: the identifying attributes, and the row's position
// when they do not tell the rows apart.
std::vector<std::vector<Label>> RowLabels(const CapturedSample& sample, const std::vector<std::string>& keys,
                                          const std::vector<Label>& base) {
  std::vector<std::vector<Label>> rows;
  std::set<std::string> seen;
  bool unique = true;
  for (int i = 0; i < sample.count; ++i) {
    std::vector<Label> labels = base;
    for (const AttributeDescriptor& a : sample.attributes)
      for (const std::string& key : keys)
        if (key == a.name) labels.push_back({key, KeyText(a, sample.Row(i))});
    unique = seen.insert(LabelText(labels)).second && unique;
    rows.push_back(std::move(labels));
  }
  if (!unique)
    for (size_t i = 0; i < rows.size(); ++i) rows[i].push_back({"row", std::to_string(i + 1)});
  return rows;
}

void TableSeries(std::string* out, const CapturedSample& sample, const std::vector<std::string>& keys,
                 const std::vector<Label>& base) {
  const std::vector<std::vector<Label>> labels = RowLabels(sample, keys, base);
  const std::string table = LowerName(sample.table);
  for (const AttributeDescriptor& a : sample.attributes) {
    if (a.type == kTextType || IsBookkeeping(a.name) || a.offset + a.length > sample.row_size) continue;
    const std::string name = "kzq_" + table + "_" + a.name;
    bool announced = false;
    for (int i = 0; i < sample.count; ++i) {
      const auto value = IntegerField(a, sample.Row(i));
      if (!value) continue;
      if (!announced) Family(out, name, "gauge", UpperName(a.name) + " of table " + sample.table + ".");
      announced = true;
      Sample(out, name, labels[i], *value);
    }
  }
}

void HealthSeries(std::string* out, const std::map<std::string, CachedTable>& tables,
                  const std::vector<ServiceState>& services, const MetricsContext& context,
                  const std::vector<Label>& base) {
  for (const char* role : {"collector", "sqlserver"}) {
    const std::string name = std::string("kzq_") + role + "_up";
    Family(out, name, "gauge", std::string("Whether the ") + role + " service runs (1) or not (0).");
    for (const ServiceState& s : services) {
      if (s.role != role) continue;
      std::vector<Label> labels = base;
      labels.push_back({"service", s.name});
      Sample(out, name, labels, s.up ? 1 : 0);
    }
  }
  Family(out, "kzq_sqlserver_reachable", "gauge",
         "Whether the collector reaches SQL Server (1) or not (0); absent while the collector does not answer.");
  for (const ServiceState& s : services) {
    if (s.role != "sqlserver" || s.reachable < 0) continue;
    std::vector<Label> labels = base;
    labels.push_back({"service", s.name});
    Sample(out, "kzq_sqlserver_reachable", labels, s.reachable);
  }
  struct TableFigure {
    const char* name;
    const char* type;
    const char* help;
    bool needs_good;  // only once the table has had a good sample
    int64_t (*value)(const CachedTable&, int64_t now);
  };
  static const TableFigure figures[] = {
      {"kzq_sample_age_seconds", "gauge", "Seconds since the table's last sample that got its data.", true,
       [](const CachedTable& t, int64_t now) { return now - t.last_good->taken_at; }},
      {"kzq_sample_rows", "gauge", "Rows in the table's last sample that got its data.", true,
       [](const CachedTable& t, int64_t) { return static_cast<int64_t>(t.last_good->count); }},
      {"kzq_samples_total", "counter", "Samples the scheduler has taken of the table.", false,
       [](const CachedTable& t, int64_t) { return static_cast<int64_t>(t.samples); }},
      {"kzq_sample_errors_total", "counter", "Samples of the table that could not get its data.", false,
       [](const CachedTable& t, int64_t) { return static_cast<int64_t>(t.failures); }},
  };
  for (const TableFigure& f : figures) {
    Family(out, f.name, f.type, f.help);
    for (const auto& [key, table] : tables) {
      if (!table.last || (f.needs_good && !table.last_good)) continue;
      std::vector<Label> labels = base;
      labels.push_back({"table", key});
      Sample(out, f.name, labels, f.value(table, context.now));
    }
  }
  Family(out, "kzq_error_events_total", "counter", "Errorlog events delivered to event consumers.");
  Sample(out, "kzq_error_events_total", base, static_cast<int64_t>(context.events_emitted));
  for (const CounterFamily& family : context.application_counters) {
    Family(out, family.name, "counter", family.help);
    for (const auto& [extra, value] : family.samples) {
      std::vector<Label> labels = base;
      for (const auto& [name, label] : extra) labels.push_back({name, label});
      Sample(out, family.name, labels, static_cast<int64_t>(value));
    }
  }
}

// Length of the valid UTF-8 sequence at text[i], 0 when it is not one.
size_t Utf8Sequence(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  const size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
  if (length == 0 || i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k)
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  return length;
}

// The identifying attributes of a table (by key, any case); none for a
// table the catalogue does not hold.
std::vector<std::string> KeysOf(const std::vector<TableDescription>& catalogue, const std::string& table) {
  for (const TableDescription& t : catalogue)
    if (UpperName(t.key.c_str()) == UpperName(table.c_str())) return t.IdentifyingAttributes();
  return {};
}

}  // namespace

// Label values must be UTF-8: bytes that are not (a collector may send
// anything) become U+FFFD rather than spoil the whole scrape.
std::string EscapeLabelValue(const std::string& value) {
  std::string escaped;
  for (size_t i = 0; i < value.size();) {
    const size_t length = Utf8Sequence(value, i);
    if (length == 0) {
      escaped += "\xEF\xBF\xBD";
      ++i;
      continue;
    }
    if (length > 1) {
      escaped.append(value, i, length);
      i += length;
      continue;
    }
    const char c = value[i++];
    if (c == '\\') escaped += "\\\\";
    else if (c == '"') escaped += "\\\"";
    else if (c == '\n') escaped += "\\n";
    else escaped += c;
  }
  return escaped;
}

std::string MetricsText(const std::map<std::string, CachedTable>& tables, const std::vector<TableDescription>& catalogue,
                        const std::vector<ServiceState>& services, const MetricsContext& context) {
  const std::vector<Label> base = {{"server_id", context.server_id}, {"host", context.host}};
  std::string out;
  HealthSeries(&out, tables, services, context, base);
  for (const auto& [key, table] : tables)
    if (table.last_good && context.now - table.last_good->taken_at <= context.stale_after)
      TableSeries(&out, *table.last_good, KeysOf(catalogue, key), base);
  return out;
}

}  // namespace framework
