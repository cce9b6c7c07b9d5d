// The values of mapped metric families: a field read as a number or a time,
// turned into the family's base unit (bytes, seconds, ratios), and written
// as Prometheus text. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/serve/metric_family.h"
#include "framework/tavra.h"

namespace framework {

// The conversions that read a time from a text rather than a number.
bool ReadsTime(UnitConversion conversion);

// A number in the family's unit; std::nullopt for a time conversion.
std::optional<double> ConvertNumber(UnitConversion conversion, int64_t equals, int64_t value);

// A time text in the family's unit, `now` in Unix seconds; std::nullopt
// when the text is no time of the conversion's form (or the conversion
// reads no time). An age is never below 0: the server's clock may run
// ahead of the agent's.
std::optional<double> ConvertTime(UnitConversion conversion, const std::string& text, int64_t now);

// A field as a number: an integer field's value, or a text that is a
// decimal integer; std::nullopt without a value.
std::optional<int64_t> NumberField(const AttributeDescriptor& attribute, const unsigned char* row);

// A field's value in the family's unit; std::nullopt without one.
std::optional<double> FamilyValue(const MetricFamilyDescription& family, const AttributeDescriptor& attribute,
                                  const unsigned char* row, int64_t now);

// The shortest text that reads back as the same value ("1073741824", "0.42").
std::string ValueText(double value);

}  // namespace framework
