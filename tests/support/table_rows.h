// The agent's table rows as tests read them: fields by attribute name,
// the rows a request delivered, a filter over a table's attributes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "framework/situation.h"
#include "framework/tavra.h"
#include "kzq/catalogue.h"

namespace kzq_test {

// The field's bytes; `from` is where `row` starts in the table's layout
// (an error event starts at MSGTIME).
inline std::string FieldBytes(const kzq::TableSpec& spec, const std::string& row, const char* name, int from = 0) {
  const int i = spec.IndexOf(name);
  EXPECT_GE(i, 0) << name;
  return row.substr(static_cast<size_t>(spec.offsets[i] - from), spec.attributes[i].width);
}

// The field's text without its padding.
inline std::string FieldText(const kzq::TableSpec& spec, const std::string& row, const char* name, int from = 0) {
  std::string text = FieldBytes(spec, row, name, from);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
  return text;
}

inline int32_t FieldInt(const kzq::TableSpec& spec, const std::string& row, const char* name, int from = 0) {
  int32_t value = 0;
  memcpy(&value, FieldBytes(spec, row, name, from).data(), sizeof value);
  return value;
}

// Keeps every row delivered to it, from any thread; Deliver answers `result`.
class CollectedRows : public framework::RowConsumer {
 public:
  int Deliver(const framework::tavra& table) override {
    std::lock_guard<std::mutex> guard(lock_);
    for (int i = 0; i < table.NumDataItems(); ++i)
      rows_.emplace_back(reinterpret_cast<const char*>(table.Data()) + static_cast<size_t>(i) * table.RowSize(),
                         static_cast<size_t>(table.RowSize()));
    return result;
  }
  std::vector<std::string> Rows() {
    std::lock_guard<std::mutex> guard(lock_);
    return rows_;
  }
  int result = 0;

 private:
  std::mutex lock_;
  std::vector<std::string> rows_;
};

// The filter `text` over the table's attributes; a failed parse fails the test.
inline std::optional<framework::SituationFilter> FilterFor(const kzq::TableSpec& spec, const char* text) {
  std::string error;
  auto filter = framework::SituationFilter::Parse(
      text,
      [&spec](std::string_view name) -> std::optional<framework::AttributeKind> {
        const int i = spec.IndexOf(name);
        if (i < 0) return std::nullopt;
        return spec.attributes[i].type == kzq::kTypeText ? framework::AttributeKind::kText
                                                         : framework::AttributeKind::kInteger;
      },
      &error);
  EXPECT_TRUE(filter.has_value()) << text << ": " << error;
  return filter;
}

}  // namespace kzq_test
