// The one pattern every table follows: the base knows the row layout from
// the catalogue, the agent adds sampling, the manager makes agents.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "framework/situation.h"
#include "framework/table_manager.h"
#include "framework/tavra.h"
#include "framework/trace.h"
#include "kzq/catalogue.h"

namespace kzq {

// How an agent object fills itself in TakeSample. Installed once by the
// sampling code; without one a sample has no rows.
using SampleFunction = int (*)(framework::tavra& object, const TableSpec& spec);
void SetSampleFunction(SampleFunction function);
SampleFunction CurrentSampleFunction();

// The producer behind the pushed table: told when an event request opens
// and when one closes, so it runs only while someone listens.
struct PushedTableHooks {
  void (*started)() = nullptr;
  void (*ended)() = nullptr;
};
void SetPushedTableHooks(PushedTableHooks hooks);
PushedTableHooks CurrentPushedTableHooks();

// The behaviour that depends only on the layout; shared by all tables.
int DumpRows(framework::tavra& object, const TableSpec& spec, unsigned samples, unsigned inserts);
int DescribeAttribute(const TableSpec& spec, int index, framework::AttributeDescriptor* out);
int TestAttributeOf(const TableSpec& spec, const void* row, const char* upper_name, int op, const char* value);
int AddRowsTo(framework::tavra& object, const TableSpec& spec, const void* rows, int32_t count);

template <const TableSpec& Spec>
class TableBase : public framework::tavra {
 public:
  TableBase(const framework::RequestDetail* detail, const framework::ContextInfo* context,
            framework::TableManager* manager)
      : tavra(detail, context, manager) {
    SetRowSize(Spec.row_size);
    SetAllocationDefault(1);
  }

  int Dump() override { return DumpRows(*this, Spec, SampleCount(), InsertCount()); }
  int NumAttributes() const override { return Spec.attribute_count; }
  int GetAttributeDescriptor(int index, framework::AttributeDescriptor* out) const override {
    return DescribeAttribute(Spec, index, out);
  }
  int TestAttribute(const void* row, const char* upper_name, int op, const char* value) const override {
    return TestAttributeOf(Spec, row, upper_name, op, value);
  }
  int AddRows(const void* rows, int32_t count) override { return AddRowsTo(*this, Spec, rows, count); }

  // The field of one buffered row: the integer (0 when out of range) or the
  // address of the text (null when out of range).
  int32_t IntAt(int row, int attribute) const {
    const unsigned char* field = Field(row, attribute, kTypeInt32);
    int32_t value = 0;
    if (field != nullptr) memcpy(&value, field, sizeof value);
    return value;
  }
  const char* TextAt(int row, int attribute) const {
    return reinterpret_cast<const char*>(Field(row, attribute, kTypeText));
  }

  static const TableSpec& Table() { return Spec; }

 private:
  const unsigned char* Field(int row, int attribute, uint16_t type) const {
    if (row < 0 || row >= NumDataItems() || attribute < 0 || attribute >= Spec.attribute_count ||
        Spec.attributes[attribute].type != type)
      return nullptr;
    return Data() + static_cast<size_t>(row) * Spec.row_size + Spec.offsets[attribute];
  }
};

template <typename Base>
class TableAgent : public Base {
 public:
  TableAgent(const framework::RequestDetail* detail, const framework::ContextInfo* context,
             framework::TableManager* manager)
      : Base(detail, context, manager) {
    TRC1_Event(Base::Table().key, this, "agent created");
  }
  int TakeSample() override {
    const SampleFunction sample = CurrentSampleFunction();
    return sample != nullptr ? sample(*this, Base::Table()) : 0;
  }
};

// Hands rows to every open event request of the manager, as pushed tables need,
// with the id of the event they make (empty: none). Returns the last
// non-zero Dispatch result, else 0.
int PushRowsToAll(framework::TableManager& manager, const void* rows, int32_t count,
                  const std::string& event_id = {});

template <typename Agent>
class TableManagerOf : public framework::TableManager {
 public:
  TableManagerOf() : TableManager("KZQ", Agent::Table().key) {}
  void EventRequestStarted(framework::tavra*) override {
    const PushedTableHooks hooks = CurrentPushedTableHooks();
    if (Agent::Table().form == SampleForm::kPushed && hooks.started != nullptr) hooks.started();
  }
  void EventRequestEnded(framework::tavra*) override {
    const PushedTableHooks hooks = CurrentPushedTableHooks();
    if (Agent::Table().form == SampleForm::kPushed && hooks.ended != nullptr) hooks.ended();
  }
  framework::tavra* CreateObject(const framework::RequestDetail* detail,
                                 const framework::ContextInfo* context) override {
    return new (std::nothrow) Agent(detail, context, this);
  }
};

// Error of a table initialiser that could not allocate its manager.
inline constexpr uint32_t kErrNoManager = 0x21060002;

}  // namespace kzq
