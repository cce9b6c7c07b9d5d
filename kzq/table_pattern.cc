#include "kzq/table_pattern.h"

#include <cstring>

namespace kzq {

int DumpRows(framework::tavra& object, const TableSpec& spec, unsigned samples, unsigned inserts) {
  TRC1_Printf("kzq_%s_base @%p <%u,%u>\n", spec.name, static_cast<void*>(&object), samples, inserts);
  TRC1_Printf("\t::appl=%s,table=%s,interval=%d,samptype=%d\n", object.ApplicationName(),
              object.TableName(), object.SamplingInterval(), static_cast<int>(object.GetSampleType()));
  TRC1_Printf("\t_data {\n");
  TRC1_Printf("\t\tcount=%d, allocated=%d, allocSize=%d\n", object._data.count, object._data.allocated,
              object._data.alloc_size);
  for (int r = 0; r < object.NumDataItems(); ++r) {
    const unsigned char* row = object.Data() + static_cast<size_t>(r) * spec.row_size;
    TRC1_Printf("\t\t{\n");
    for (int i = 0; i < spec.attribute_count; ++i) {
      const unsigned char* field = row + spec.offsets[i];
      if (spec.attributes[i].type == kTypeInt32) {
        int32_t value;
        memcpy(&value, field, sizeof value);
        TRC1_Printf("\t\t%s=%d\n", spec.lower_names[i].data(), value);
      } else {
        TRC1_Printf("\t\t%s=\"%.*s\"\n", spec.lower_names[i].data(), spec.attributes[i].width,
                    reinterpret_cast<const char*>(field));
      }
    }
    TRC1_Printf("\t\t}\n");
  }
  return 0;
}

// An index equal to the count passes the range check and fills nothing:
// callers that walk one past the end get 0, as they always have.
int DescribeAttribute(const TableSpec& spec, int index, framework::AttributeDescriptor* out) {
  if (index < 0 || index > spec.attribute_count) return framework::kErrBadAttributeIndex;
  if (index == spec.attribute_count) return 0;
  out->name = spec.lower_names[index].data();
  out->offset = spec.offsets[index];
  out->length = spec.attributes[index].width;
  out->type = spec.attributes[index].type;
  return 0;
}

int TestAttributeOf(const TableSpec& spec, const void* row, const char* upper_name, int op,
                    const char* value) {
  for (int i = 0; i < spec.attribute_count; ++i) {
    if (strcmp(spec.attributes[i].name, upper_name) != 0) continue;
    const auto* field = static_cast<const unsigned char*>(row) + spec.offsets[i];
    if (spec.attributes[i].type == kTypeText)
      return framework::IsException(op, reinterpret_cast<const char*>(field), value, spec.attributes[i].width);
    int32_t number;
    memcpy(&number, field, sizeof number);
    return framework::IsException(op, number, value);
  }
  return 0;
}

int AddRowsTo(framework::tavra& object, const TableSpec& spec, const void* rows, int32_t count) {
  const auto* row = static_cast<const unsigned char*>(rows);
  int result = 0;
  for (int32_t i = 0; i < count && result == 0; ++i, row += spec.row_size) {
    if (object.CheckForException(row) == 0) continue;
    if (object.TraceLevel() & framework::kTraceDetail) TRC1_Printf("Passing row %d to InsertRow().", i);
    result = object.InsertRow(row);
  }
  return result;
}

int PushRowsToAll(framework::TableManager& manager, const void* rows, int32_t count, const std::string& event_id) {
  std::lock_guard<std::mutex> guard(manager.ObjectLock());
  int result = 0;
  framework::TavraListIter objects(manager);
  for (framework::tavra* object = objects.Next(); object != nullptr; object = objects.Next()) {
    // Only event requests take pushed rows; a report sample of the table,
    // open at the same moment, is filled by its own thread.
    if (object->GetSampleType() != framework::kSampleEvent) continue;
    object->Acquire();
    object->AddRows(rows, count);
    object->SetEventId(event_id);
    const int dispatched = object->Dispatch();
    if (dispatched != 0) result = dispatched;
    object->ClearRows();
    object->Release();
  }
  return result;
}

}  // namespace kzq
