// Rows as consumers read them: one JSON object per row, attributes by
// their upper-case names, integers as numbers, texts without their blank
// padding, and fields the agent filled with 0xFF (no value) as null.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "framework/serve/sample_capture.h"

namespace framework {

// The value of one field: a number, a string or null.
nlohmann::ordered_json FieldJson(const AttributeDescriptor& attribute, const unsigned char* row);
// An integer field's value; std::nullopt when it holds no value.
std::optional<int64_t> IntegerField(const AttributeDescriptor& attribute, const unsigned char* row);
// A text field without trailing blanks and NULs; std::nullopt when 0xFF-filled.
std::optional<std::string> TextField(const AttributeDescriptor& attribute, const unsigned char* row);

// {"NAME": value, ...}; a field holding a time stamp also as "NAME_ISO":
// "2026-11-23T18:29:47.000+01:00".
nlohmann::ordered_json RowJson(const CapturedSample& sample, int row);
// {"table", "taken_at", "rows": [...]}
nlohmann::ordered_json SampleJson(const CapturedSample& sample);

// Upper-case copy of an attribute's name.
std::string UpperName(const char* name);

// Serialises for the wire: bytes that are not UTF-8 (a collector may send
// anything) become U+FFFD instead of failing the answer.
std::string WireText(const nlohmann::ordered_json& value);

}  // namespace framework
