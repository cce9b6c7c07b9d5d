#include "framework/serve/sample_capture.h"

#include "framework/request.h"
#include "framework/table_manager.h"
#include "platform/clock.h"

namespace framework {

void CaptureRows(const tavra& table, CapturedSample* sample) {
  if (sample->attributes.empty()) {
    sample->table = table.TableName();
    for (int i = 0; i < table.NumAttributes(); ++i) {
      AttributeDescriptor d;
      if (table.GetAttributeDescriptor(i, &d) == 0) sample->attributes.push_back(d);
    }
  }
  sample->row_size = table.RowSize();
  if (!table.SampleFailure().empty()) sample->failure = table.SampleFailure();
  const size_t bytes = static_cast<size_t>(table.NumDataItems()) * static_cast<size_t>(table.RowSize());
  sample->rows.append(reinterpret_cast<const char*>(table.Data()), bytes);
  sample->count += table.NumDataItems();
}

int CapturingConsumer::Deliver(const tavra& table) {
  CaptureRows(table, sample_);
  return 0;
}

std::optional<SituationFilter> ParseTableFilter(const TableDescription& table, const std::string& text,
                                                std::string* error) {
  const auto lookup = [&table](std::string_view name) -> std::optional<AttributeKind> {
    const AttributeDescription* a = table.Attribute(name);
    if (a == nullptr) return std::nullopt;
    return a->type == kTextType ? AttributeKind::kText : AttributeKind::kInteger;
  };
  return SituationFilter::Parse(text, lookup, error);
}

int CaptureReportSample(const std::string& table, const SituationFilter* filter, CapturedSample* out) {
  CapturingConsumer consumer(out);
  RequestDetail detail;
  detail.table = table;
  detail.filter = filter;
  detail.consumer = &consumer;
  out->taken_at = platform::NowUnixSeconds();
  if (TableManager* manager = TableManager::Find(table)) out->table = manager->Table();
  return RunReportSample(detail, &out->sample_result, nullptr);
}

}  // namespace framework
