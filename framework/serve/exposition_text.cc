#include "framework/serve/exposition_text.h"

#include <set>

#include "framework/serve/row_json.h"

namespace framework {
namespace {

// Length of the valid UTF-8 sequence at text[i], 0 when it is not one.
size_t Utf8Sequence(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  const size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
  if (length == 0 || i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k)
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  return length;
}

}  // namespace

std::string LabelText(const std::vector<Label>& labels) {
  std::string text = "{";
  for (const Label& l : labels) {
    if (text.size() > 1) text += ',';
    text += l.name + "=\"" + EscapeLabelValue(l.value) + "\"";
  }
  return text + "}";
}

void FamilyHeader(std::string* out, const std::string& name, const char* type, const std::string& help) {
  *out += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void SampleLine(std::string* out, const std::string& name, const std::vector<Label>& labels, const std::string& value) {
  *out += name + LabelText(labels) + " " + value + "\n";
}

void SampleLine(std::string* out, const std::string& name, const std::vector<Label>& labels, int64_t value) {
  SampleLine(out, name, labels, std::to_string(value));
}

// Label values must be UTF-8: bytes that are not (a collector may send
// anything) become U+FFFD rather than spoil the whole scrape.
std::string EscapeLabelValue(const std::string& value) {
  std::string escaped;
  for (size_t i = 0; i < value.size();) {
    const size_t length = Utf8Sequence(value, i);
    if (length == 0) {
      escaped += "\xEF\xBF\xBD";
      ++i;
      continue;
    }
    if (length > 1) {
      escaped.append(value, i, length);
      i += length;
      continue;
    }
    const char c = value[i++];
    if (c == '\\') escaped += "\\\\";
    else if (c == '"') escaped += "\\\"";
    else if (c == '\n') escaped += "\\n";
    else escaped += c;
  }
  return escaped;
}

std::string FieldLabelValue(const AttributeDescriptor& attribute, const unsigned char* row) {
  if (attribute.type == kTextType) return TextField(attribute, row).value_or("");
  const auto value = IntegerField(attribute, row);
  return value ? std::to_string(*value) : std::string();
}

void NumberAlikeRows(std::vector<std::vector<Label>>* rows) {
  std::set<std::string> seen;
  bool unique = true;
  for (const std::vector<Label>& labels : *rows) unique = seen.insert(LabelText(labels)).second && unique;
  if (!unique)
    for (size_t i = 0; i < rows->size(); ++i) (*rows)[i].push_back({"row", std::to_string(i + 1)});
}

}  // namespace framework
