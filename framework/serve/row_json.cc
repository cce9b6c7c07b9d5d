#include "framework/serve/row_json.h"

#include <cstring>

#include "framework/serve/time_stamp.h"

namespace framework {
namespace {

bool AllFilled(const unsigned char* field, size_t length) {
  for (size_t i = 0; i < length; ++i)
    if (field[i] != 0xFF) return false;
  return length > 0;
}

}  // namespace

std::string UpperName(const char* name) {
  std::string upper = name != nullptr ? name : "";
  for (char& c : upper)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
  return upper;
}

std::optional<int64_t> IntegerField(const AttributeDescriptor& attribute, const unsigned char* row) {
  const unsigned char* field = row + attribute.offset;
  if (AllFilled(field, attribute.length)) return std::nullopt;
  if (attribute.type == kInt64Type && attribute.length == 8) {
    int64_t value;
    memcpy(&value, field, sizeof value);
    return value;
  }
  if (attribute.length != 4) return std::nullopt;
  int32_t value;
  memcpy(&value, field, sizeof value);
  return value;
}

std::optional<std::string> TextField(const AttributeDescriptor& attribute, const unsigned char* row) {
  const char* field = reinterpret_cast<const char*>(row + attribute.offset);
  if (AllFilled(row + attribute.offset, attribute.length)) return std::nullopt;
  size_t length = strnlen(field, attribute.length);
  while (length > 0 && field[length - 1] == ' ') --length;
  return std::string(field, length);
}

nlohmann::ordered_json FieldJson(const AttributeDescriptor& attribute, const unsigned char* row) {
  if (attribute.type == kTextType) {
    const auto text = TextField(attribute, row);
    return text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
  }
  const auto value = IntegerField(attribute, row);
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json RowJson(const CapturedSample& sample, int row) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const AttributeDescriptor& a : sample.attributes) {
    if (a.offset + a.length > sample.row_size) continue;
    const std::string name = UpperName(a.name);
    object[name] = FieldJson(a, sample.Row(row));
    // A time stamp keeps its raw text and gains a form people and tools read.
    if (a.type != kTextType || a.length != 16 || !object[name].is_string()) continue;
    if (const auto moment = ReadTimeStamp(object[name].get<std::string>())) object[name + "_ISO"] = Iso8601(*moment);
  }
  return object;
}

nlohmann::ordered_json SampleJson(const CapturedSample& sample) {
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (int i = 0; i < sample.count; ++i) rows.push_back(RowJson(sample, i));
  return {{"table", sample.table}, {"taken_at", sample.taken_at}, {"rows", std::move(rows)}};
}

std::string WireText(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace framework
