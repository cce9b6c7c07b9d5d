#include "framework/serve/metrics_text.h"

#include "framework/serve/mapped_metrics.h"
#include "framework/serve/row_json.h"

namespace framework {
namespace {

std::string LowerName(const std::string& text) {
  std::string lower = text;
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return lower;
}

// Bookkeeping the agent adds to every row, not a measurement.
bool IsBookkeeping(const std::string& attribute) { return attribute == "sampleno" || attribute == "rowno"; }

// The labels of each row: the identifying attributes, and the row's position
// when they do not tell the rows apart.
std::vector<std::vector<Label>> RowLabels(const CapturedSample& sample, const std::vector<std::string>& keys,
                                          const std::vector<Label>& base) {
  std::vector<std::vector<Label>> rows;
  for (int i = 0; i < sample.count; ++i) {
    std::vector<Label> labels = base;
    for (const AttributeDescriptor& a : sample.attributes)
      for (const std::string& key : keys)
        if (key == a.name) labels.push_back({key, FieldLabelValue(a, sample.Row(i))});
    rows.push_back(std::move(labels));
  }
  NumberAlikeRows(&rows);
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
      if (!announced) FamilyHeader(out, name, "gauge", UpperName(a.name) + " of table " + sample.table + ".");
      announced = true;
      SampleLine(out, name, labels[i], *value);
    }
  }
}

void HealthSeries(std::string* out, const std::map<std::string, CachedTable>& tables,
                  const std::vector<ServiceState>& services, const MetricsContext& context,
                  const std::vector<Label>& base) {
  for (const char* role : {"collector", "sqlserver"}) {
    const std::string name = std::string("kzq_") + role + "_up";
    FamilyHeader(out, name, "gauge", std::string("Whether the ") + role + " service runs (1) or not (0).");
    for (const ServiceState& s : services) {
      if (s.role != role) continue;
      std::vector<Label> labels = base;
      labels.push_back({"service", s.name});
      SampleLine(out, name, labels, s.up ? 1 : 0);
    }
  }
  FamilyHeader(out, "kzq_sqlserver_reachable", "gauge",
               "Whether the collector reaches SQL Server (1) or not (0); absent while the collector does not answer.");
  for (const ServiceState& s : services) {
    if (s.role != "sqlserver" || s.reachable < 0) continue;
    std::vector<Label> labels = base;
    labels.push_back({"service", s.name});
    SampleLine(out, "kzq_sqlserver_reachable", labels, s.reachable);
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
    FamilyHeader(out, f.name, f.type, f.help);
    for (const auto& [key, table] : tables) {
      if (!table.last || (f.needs_good && !table.last_good)) continue;
      std::vector<Label> labels = base;
      labels.push_back({"table", key});
      SampleLine(out, f.name, labels, f.value(table, context.now));
    }
  }
  FamilyHeader(out, "kzq_error_events_total", "counter", "Errorlog events delivered to event consumers.");
  SampleLine(out, "kzq_error_events_total", base, static_cast<int64_t>(context.events_emitted));
  for (const CounterFamily& family : context.application_counters) {
    FamilyHeader(out, family.name, "counter", family.help);
    for (const auto& [extra, value] : family.samples) {
      std::vector<Label> labels = base;
      for (const auto& [name, label] : extra) labels.push_back({name, label});
      SampleLine(out, family.name, labels, static_cast<int64_t>(value));
    }
  }
}

// The identifying attributes of a table (by key, any case); none for a
// table the catalogue does not hold.
std::vector<std::string> KeysOf(const std::vector<TableDescription>& catalogue, const std::string& table) {
  for (const TableDescription& t : catalogue)
    if (UpperName(t.key.c_str()) == UpperName(table.c_str())) return t.IdentifyingAttributes();
  return {};
}

}  // namespace

std::string MetricsText(const std::map<std::string, CachedTable>& tables, const std::vector<TableDescription>& catalogue,
                        const std::vector<MetricFamilyDescription>& families, const std::vector<ServiceState>& services,
                        const MetricsContext& context) {
  const std::vector<Label> base = {{"server_id", context.server_id}, {"host", context.host}};
  std::string out;
  HealthSeries(&out, tables, services, context, base);
  std::map<std::string, const CapturedSample*> fresh;
  for (const auto& [key, table] : tables)
    if (table.last_good && context.now - table.last_good->taken_at <= context.stale_after)
      fresh[UpperName(key.c_str())] = table.last_good.get();
  out += MappedSeries(families, fresh, base, context.now);
  if (context.raw_tables)
    for (const auto& [key, sample] : fresh) TableSeries(&out, *sample, KeysOf(catalogue, key), base);
  return out;
}

}  // namespace framework
