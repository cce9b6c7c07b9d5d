// The pieces of the Prometheus text format every family is written with:
// labels, the HELP and TYPE lines, sample lines. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "framework/tavra.h"

namespace framework {

struct Label {
  std::string name;
  std::string value;
};

// {a="x",b="y"}, values escaped.
std::string LabelText(const std::vector<Label>& labels);

void FamilyHeader(std::string* out, const std::string& name, const char* type, const std::string& help);

void SampleLine(std::string* out, const std::string& name, const std::vector<Label>& labels, const std::string& value);
void SampleLine(std::string* out, const std::string& name, const std::vector<Label>& labels, int64_t value);

// A label value with backslash, double quote and line feed escaped; bytes
// that are not UTF-8 become U+FFFD.
std::string EscapeLabelValue(const std::string& value);

// A field as a label value: a text as it stands, an integer in decimal (its
// bytes are no text), empty for a field without a value.
std::string FieldLabelValue(const AttributeDescriptor& attribute, const unsigned char* row);

// Gives every label set a `row` label with its position when two of them
// are the same: series must differ in their labels.
void NumberAlikeRows(std::vector<std::vector<Label>>* rows);

}  // namespace framework
