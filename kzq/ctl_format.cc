#include "kzq/ctl_format.h"

#include <vector>

namespace kzq {
namespace {

using Json = nlohmann::ordered_json;

std::string Shown(const Json& value) {
  if (value.is_null()) return "";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

// Display width in characters, counting each UTF-8 sequence once.
size_t Width(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text) width += (c & 0xC0) != 0x80;
  return width;
}

std::string Fit(const std::string& text, size_t width) {
  std::string out;
  size_t shown = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool starts = (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
    if (starts && shown == width - 1 && Width(text) > width) return out + "~";
    if (starts) ++shown;
    out += text[i];
  }
  return out + std::string(width - shown, ' ');
}

bool IsBookkeeping(const std::string& column) {
  return column == "ORIGINNODE" || column == "SAMPLENO" || column == "ROWNO" || column == "TIMESTAMP";
}

}  // namespace

std::string SampleTable(const Json& sample) {
  const Json& rows = sample.contains("rows") ? sample["rows"] : Json::array();
  if (rows.empty()) return "(no rows)\n";
  std::vector<std::string> columns;
  std::vector<size_t> widths;
  for (const auto& [name, first] : rows[0].items()) {
    if (IsBookkeeping(name)) continue;
    size_t width = 0;
    for (const Json& row : rows) width = std::max(width, Width(Shown(row.value(name, Json()))));
    if (width == 0) continue;
    columns.push_back(name);
    widths.push_back(std::min(std::max(width, Width(name)), kMaxColumnWidth));
  }
  std::string out;
  const auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t i = 0; i < cells.size(); ++i) text += (i ? "  " : "") + Fit(cells[i], widths[i]);
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out += text + "\n";
  };
  line(columns);
  std::vector<std::string> rule;
  for (size_t w : widths) rule.push_back(std::string(w, '-'));
  line(rule);
  for (const Json& row : rows) {
    std::vector<std::string> cells;
    for (const std::string& c : columns) cells.push_back(Shown(row.value(c, Json())));
    line(cells);
  }
  return out;
}

std::string EventLine(const Json& event) {
  return Shown(event.value("MSGTIME", Json())) + "  " + Shown(event.value("ERRORID", Json())) + "  sev " +
         Shown(event.value("SEVERITY", Json())) + "  " + Shown(event.value("UMSGTEXT", Json()));
}

}  // namespace kzq
