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
#include "kzq/row_source.h"

namespace kzq {

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

// A table's manager holds where its rows come from, given when it is made,
// and tells the producer of a pushed table when its listeners come and go.
// Made once and kept for the process; any thread.
class SourcedTableManager : public framework::TableManager {
 public:
  SourcedTableManager(const char* table, RowSource& source, EventRequestListener* listener)
      : TableManager("KZQ", table), source_(source), listener_(listener) {}
  RowSource& Source() const { return source_; }
  void EventRequestStarted(framework::tavra*) override {
    if (listener_ != nullptr) listener_->RequestStarted();
  }
  void EventRequestEnded(framework::tavra*) override {
    if (listener_ != nullptr) listener_->RequestEnded();
  }

 private:
  RowSource& source_;
  EventRequestListener* const listener_;
};

template <typename Base>
class TableAgent : public Base {
 public:
  TableAgent(const framework::RequestDetail* detail, const framework::ContextInfo* context,
             framework::TableManager* manager)
      : Base(detail, context, manager) {
    TRC1_Event(Base::Table().key, this, "agent created");
  }
  // An object made without its manager's source has no rows.
  int TakeSample() override {
    auto* manager = dynamic_cast<SourcedTableManager*>(Base::Manager());
    return manager != nullptr ? manager->Source().Sample(*this, Base::Table()) : 0;
  }
};

// Hands rows to every open event request of the manager, as pushed tables need,
// with the id of the event they make (empty: none). Returns the last
// non-zero Dispatch result, else 0.
int PushRowsToAll(framework::TableManager& manager, const void* rows, int32_t count,
                  const std::string& event_id = {});

template <typename Agent>
class TableManagerOf : public SourcedTableManager {
 public:
  explicit TableManagerOf(RowSource& source, EventRequestListener* listener = nullptr)
      : SourcedTableManager(Agent::Table().key, source, listener) {}
  framework::tavra* CreateObject(const framework::RequestDetail* detail,
                                 const framework::ContextInfo* context) override {
    return new (std::nothrow) Agent(detail, context, this);
  }
};

// Error of a table initialiser that could not allocate its manager.
inline constexpr uint32_t kErrNoManager = 0x21060002;

}  // namespace kzq
