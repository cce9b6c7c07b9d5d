// The table object of our agent framework. A table class derives from
// tavra, describes its row layout through the attribute operations, and
// fills rows in TakeSample; the framework buffers the rows, applies the
// request's situation filter and hands them to the request's consumer.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace framework {

class SituationFilter;
class TableManager;
class tavra;
struct TavraAutomationCapsule;

enum SampleType : int { kSampleReport = 1, kSampleEvent = 2 };

// Type codes of attribute descriptors.
inline constexpr uint16_t kTextType = 9;
inline constexpr uint16_t kInt32Type = 3;
inline constexpr uint16_t kInt64Type = 13;

// One attribute of a row: lower-case name, offset, length and type code.
struct AttributeDescriptor {
  const char* name = nullptr;
  uint16_t offset = 0;
  uint16_t length = 0;
  uint16_t type = 0;
};

// Error of the descriptor lookup for an index out of range.
inline constexpr int kErrBadAttributeIndex = 0x21060007;

// Data type codes of filter values.
inline constexpr int kFilterInteger = 496;
inline constexpr int kFilterText = 452;

// One comparison of the request's filter, as GetFilterInfo yields it.
struct FilterInfo {
  int logical_op = 0;  // how it joins what came before: 0 none, 7 OR, 8 AND
  int compare_op = 0;  // 1 EQ ... 6 GT, 10 LIKE; 9 (NOT) never stands here
  int function = 0;    // no functions in our filter syntax
  const char* column = nullptr;
  int data_type = 0;
  int value_length = 0;
  const char* value = nullptr;
  bool negated = false;  // the comparison sits under a NOT
};

// Receives the rows of one sample; returns 0 or an error.
class RowConsumer {
 public:
  virtual ~RowConsumer() = default;
  virtual int Deliver(const tavra& table) = 0;
};

// What a consumer asked for.
struct RequestDetail {
  std::string table;  // upper-case key, "KZQSRVR"
  const SituationFilter* filter = nullptr;
  SampleType type = kSampleReport;
  int interval = 0;  // seconds
  RowConsumer* consumer = nullptr;
};

struct ContextInfo {
  std::string application = "KZQ";
};

class tavra {
 public:
  tavra(const RequestDetail* detail, const ContextInfo* context, TableManager* manager);

  // The operations a table provides or may override, in slot order.
  virtual int Dump() = 0;
  virtual int TakeSample() = 0;
  virtual int NumAttributes() const = 0;
  virtual int GetAttributeDescriptor(int index, AttributeDescriptor* out) const = 0;
  virtual int ExecuteCommand(TavraAutomationCapsule* capsule);
  virtual ~tavra();
  virtual int InsertRow(const void* row);
  virtual int CheckForException(const void* row);
  virtual int TestAttribute(const void* row, const char* upper_name, int op,
                            const char* value) const = 0;
  virtual int CommandCompleted(TavraAutomationCapsule* capsule);
  virtual int CommandCompletedEx(TavraAutomationCapsule* capsule, int result);
  virtual int AddRows(const void* rows, int32_t count) = 0;

  void SetRowSize(int size) { row_size_ = size; }
  void SetAllocationDefault(int rows) { _data.alloc_size = rows > 0 ? rows : 1; }

  // Hands the buffered rows to the request's consumer; 0 or its error.
  int Dispatch();
  // Forgets the buffered rows (the buffer itself is kept for the next
  // sample) and the sample's failure.
  void ClearRows() {
    _data.count = 0;
    failure_.clear();
    event_id_.clear();
  }
  // Pushed rows may carry the id of the event they make: a text that grows
  // with every later event, so that a consumer can say where it stopped.
  void SetEventId(std::string id) { event_id_ = std::move(id); }
  const std::string& EventId() const { return event_id_; }

  // A table that could not get its data says why, so a consumer can tell a
  // failed sample from an empty table; the rows it added (a status row)
  // still go out.
  void ReportSampleFailure(std::string reason) { failure_ = std::move(reason); }
  // Empty when the sample got its data.
  const std::string& SampleFailure() const { return failure_; }

  // Walks the filter's comparisons: 0 with `out` filled, non-zero at the end.
  int GetFilterInfo(FilterInfo* out);
  void ResetFilterIndex() { filter_index_ = 0; }

  void FinishedAutomationCommand(TavraAutomationCapsule* capsule);

  const char* TableName() const { return detail_.table.c_str(); }
  const char* ApplicationName() const { return context_.application.c_str(); }
  int NumDataItems() const { return _data.count; }
  const unsigned char* Data() const { return rows_.data(); }
  int RowSize() const { return row_size_; }
  int SamplingInterval() const { return detail_.interval; }
  SampleType GetSampleType() const { return detail_.type; }
  int TraceLevel() const;
  TableManager* Manager() const { return manager_; }

  // Rows a single sample may hold; InsertRow refuses more, so a collector
  // that sends garbage counts cannot exhaust memory.
  static constexpr int kMaxRowsPerSample = 100000;

  // Shared ownership between the manager's list and whoever is using the
  // object (a push, a sample); the last release deletes it.
  void Acquire() { uses_.fetch_add(1, std::memory_order_relaxed); }
  void Release();

  struct RowBuffer {
    int count = 0;
    int allocated = 0;
    int alloc_size = 1;
  } _data;

 protected:
  // Counts shown by Dump: samples taken and rows inserted over the life of
  // the object.
  unsigned SampleCount() const { return samples_; }
  unsigned InsertCount() const { return inserts_; }
  void CountSample() { ++samples_; }

 private:
  const RequestDetail detail_;
  const ContextInfo context_;
  TableManager* const manager_;
  std::vector<unsigned char> rows_;
  int row_size_ = 0;
  std::string failure_;
  std::string event_id_;
  size_t filter_index_ = 0;
  unsigned samples_ = 0;
  unsigned inserts_ = 0;
  std::atomic<int> uses_{1};
};

}  // namespace framework
