#include "framework/serve/mapped_metrics.h"

#include <algorithm>
#include <set>
#include <utility>

#include "framework/serve/metric_values.h"
#include "framework/serve/row_json.h"

namespace framework {
namespace {

const AttributeDescriptor* FindAttribute(const CapturedSample& sample, const std::string& upper_name) {
  for (const AttributeDescriptor& a : sample.attributes)
    if (a.offset + a.length <= sample.row_size && UpperName(a.name) == upper_name) return &a;
  return nullptr;
}

bool Chosen(const RowCondition& condition, const CapturedSample& sample, int row) {
  if (condition.attribute.empty()) return true;
  const AttributeDescriptor* a = FindAttribute(sample, condition.attribute);
  return a != nullptr && (FieldLabelValue(*a, sample.Row(row)) == condition.value) == condition.equal;
}

// The first of the label's attributes with a value, as a word when the
// label has words for its codes.
std::string LabelValue(const MetricLabel& label, const CapturedSample& sample, int row) {
  if (label.attributes.empty()) return label.constant;
  for (const std::string& name : label.attributes) {
    const AttributeDescriptor* a = FindAttribute(sample, name);
    if (a == nullptr) continue;
    if (!label.words.empty()) {
      const auto code = NumberField(*a, sample.Row(row));
      const auto word = code ? label.words.find(*code) : label.words.end();
      if (word != label.words.end()) return word->second;
    }
    std::string value = FieldLabelValue(*a, sample.Row(row));
    if (!value.empty()) return value;
  }
  return "";
}

// A series over all rows has constant labels only.
std::vector<Label> ConstantLabels(const MetricFamilyDescription& family, const std::vector<Label>& base) {
  std::vector<Label> labels = base;
  for (const MetricLabel& label : family.labels)
    if (label.attributes.empty()) labels.push_back({label.name, label.constant});
  return labels;
}

std::vector<Label> LabelsOf(const MetricFamilyDescription& family, const CapturedSample& sample, int row,
                            const std::vector<Label>& base) {
  std::vector<Label> labels = base;
  for (const MetricLabel& label : family.labels) labels.push_back({label.name, LabelValue(label, sample, row)});
  return labels;
}

void EachRow(std::string* out, const MetricFamilyDescription& family, const CapturedSample& sample,
             const AttributeDescriptor& attribute, const std::vector<Label>& base, int64_t now) {
  std::vector<std::vector<Label>> labels;
  std::vector<double> values;
  for (int i = 0; i < sample.count; ++i) {
    if (!Chosen(family.rows, sample, i)) continue;
    const auto value = FamilyValue(family, attribute, sample.Row(i), now);
    if (!value) continue;
    labels.push_back(LabelsOf(family, sample, i, base));
    values.push_back(*value);
  }
  NumberAlikeRows(&labels);
  for (size_t i = 0; i < values.size(); ++i) SampleLine(out, family.name, labels[i], ValueText(values[i]));
}

double Maximum(const MetricFamilyDescription& family, const CapturedSample& sample,
               const AttributeDescriptor& attribute, int64_t now) {
  double highest = 0;
  for (int i = 0; i < sample.count; ++i)
    if (Chosen(family.rows, sample, i))
      highest = std::max(highest, FamilyValue(family, attribute, sample.Row(i), now).value_or(0));
  return highest;
}

// Rows that block someone and wait for nobody: where a blocking chain starts.
double HeadBlockers(const MetricFamilyDescription& family, const CapturedSample& sample,
                    const AttributeDescriptor& id) {
  const AttributeDescriptor* blocker = FindAttribute(sample, family.blocker);
  if (blocker == nullptr) return 0;
  std::set<int64_t> blocking;
  for (int i = 0; i < sample.count; ++i)
    if (const auto by = NumberField(*blocker, sample.Row(i)); by && *by > 0) blocking.insert(*by);
  int heads = 0;
  for (int i = 0; i < sample.count; ++i) {
    const auto self = NumberField(id, sample.Row(i));
    const auto by = NumberField(*blocker, sample.Row(i));
    if (self && blocking.count(*self) > 0 && by.value_or(0) <= 0) ++heads;
  }
  return heads;
}

// The series of one description, without the family's header.
std::string Series(const MetricFamilyDescription& family, const CapturedSample& sample,
                   const std::vector<Label>& base, int64_t now) {
  std::string out;
  const AttributeDescriptor* attribute = FindAttribute(sample, family.attribute);
  if (attribute == nullptr) return out;
  switch (family.aggregate) {
    case RowAggregate::kEachRow:
      EachRow(&out, family, sample, *attribute, base, now);
      break;
    case RowAggregate::kMaximum:
      SampleLine(&out, family.name, ConstantLabels(family, base), ValueText(Maximum(family, sample, *attribute, now)));
      break;
    case RowAggregate::kHeadBlockers:
      SampleLine(&out, family.name, ConstantLabels(family, base), ValueText(HeadBlockers(family, sample, *attribute)));
      break;
  }
  return out;
}

}  // namespace

std::string MappedSeries(const std::vector<MetricFamilyDescription>& families,
                         const std::map<std::string, const CapturedSample*>& fresh, const std::vector<Label>& base,
                         int64_t now) {
  // Descriptions that share a name (told apart by constant labels) are one
  // family: one header, their series together.
  std::vector<std::pair<const MetricFamilyDescription*, std::string>> named;
  for (const MetricFamilyDescription& family : families) {
    const auto sample = fresh.find(family.table);
    if (sample == fresh.end()) continue;
    const std::string series = Series(family, *sample->second, base, now);
    const auto same = std::find_if(named.begin(), named.end(), [&](const auto& n) { return n.first->name == family.name; });
    if (same == named.end()) named.emplace_back(&family, series);
    else same->second += series;
  }
  std::string out;
  for (const auto& [family, series] : named) {
    if (series.empty()) continue;
    FamilyHeader(&out, family->name, family->kind == MetricKind::kCounter ? "counter" : "gauge", family->help);
    out += series;
  }
  return out;
}

}  // namespace framework
