#include "framework/tavra.h"

#include <cstring>
#include <new>

#include "framework/situation.h"
#include "framework/table_manager.h"
#include "framework/trace.h"

namespace framework {

tavra::tavra(const RequestDetail* detail, const ContextInfo* context, TableManager* manager)
    : detail_(detail != nullptr ? *detail : RequestDetail{}),
      context_(context != nullptr ? *context : ContextInfo{}),
      manager_(manager) {}

tavra::~tavra() = default;

void tavra::Release() {
  if (uses_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

int tavra::TraceLevel() const { return framework::TraceLevel(); }

int tavra::ExecuteCommand(TavraAutomationCapsule* capsule) {
  return manager_ != nullptr ? manager_->RunCommand(this, capsule) : 1;
}

int tavra::CommandCompleted(TavraAutomationCapsule* capsule) { return CommandCompletedEx(capsule, 0); }

int tavra::CommandCompletedEx(TavraAutomationCapsule* capsule, int result) {
  if (capsule != nullptr) capsule->result = result;
  FinishedAutomationCommand(capsule);
  return 0;
}

void tavra::FinishedAutomationCommand(TavraAutomationCapsule* capsule) {
  if (capsule != nullptr) capsule->Finish();
}

int tavra::InsertRow(const void* row) {
  if (row == nullptr || row_size_ <= 0 || _data.count >= kMaxRowsPerSample) return 1;
  if (_data.count == _data.allocated) {
    const int grown = _data.allocated + (_data.alloc_size > _data.allocated ? _data.alloc_size : _data.allocated);
    try {
      rows_.resize(static_cast<size_t>(grown) * static_cast<size_t>(row_size_));
    } catch (const std::bad_alloc&) {
      return 1;
    }
    _data.allocated = grown;
  }
  memcpy(rows_.data() + static_cast<size_t>(_data.count) * static_cast<size_t>(row_size_), row,
         static_cast<size_t>(row_size_));
  ++_data.count;
  ++inserts_;
  return 0;
}

int tavra::CheckForException(const void* row) {
  if (detail_.filter == nullptr) return 1;
  return detail_.filter->Evaluate([&](const FilterElement& e) {
    return TestAttribute(row, e.attribute.c_str(), e.op, e.value.c_str());
  }) ? 1 : 0;
}

int tavra::Dispatch() {
  ++samples_;
  return detail_.consumer != nullptr ? detail_.consumer->Deliver(*this) : 0;
}

int tavra::GetFilterInfo(FilterInfo* out) {
  if (detail_.filter == nullptr || filter_index_ >= detail_.filter->Elements().size()) return 1;
  const FilterElement& e = detail_.filter->Elements()[filter_index_++];
  out->logical_op = e.logical_op;
  out->compare_op = e.op;
  out->function = 0;
  out->column = e.attribute.c_str();
  out->data_type = e.kind == AttributeKind::kInteger ? kFilterInteger : kFilterText;
  out->value_length = static_cast<int>(e.value.size());
  out->value = e.value.c_str();
  out->negated = e.negated;
  return 0;
}

}  // namespace framework
