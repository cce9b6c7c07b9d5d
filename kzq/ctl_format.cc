#include "kzq/ctl_format.h"

#include <cctype>
#include <cstdio>

#include "kvc/string_time.h"
#include "platform/clock.h"

namespace kzq {
namespace {

using Json = nlohmann::ordered_json;

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return text;
}

bool IsBookkeeping(const std::string& column) {
  return column == "ORIGINNODE" || column == "SAMPLENO" || column == "ROWNO" || column == "TIMESTAMP";
}

bool AllDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// The row's columns that hold something in at least one row, bookkeeping left out.
std::vector<std::string> FilledColumns(const Json& rows) {
  std::vector<std::string> columns;
  for (const auto& [name, first] : rows[0].items()) {
    if (IsBookkeeping(name)) continue;
    for (const Json& row : rows) {
      if (Shown(row.value(name, Json())).empty()) continue;
      columns.push_back(name);
      break;
    }
  }
  return columns;
}

// The chosen columns as the rows spell them; nothing when one is missing.
std::optional<std::vector<std::string>> ChosenColumns(const Json& rows, const std::vector<std::string>& chosen,
                                                      std::string* error) {
  std::vector<std::string> columns;
  for (const std::string& wanted : chosen) {
    const std::string name = Upper(wanted);
    if (!rows[0].contains(name)) {
      std::string known;
      for (const auto& [column, value] : rows[0].items()) known += (known.empty() ? "" : ",") + column;
      *error = "no column '" + wanted + "' in these rows; they have " + known;
      return std::nullopt;
    }
    columns.push_back(name);
  }
  return columns;
}

std::string Cell(const Json& row, const std::string& column, const SampleView& view) {
  const std::string text = Shown(row.value(column, Json()));
  if (!view.stamp_columns.count(column)) return text;
  return ReadableStamp(text, view.utc).value_or(text);
}

}  // namespace

std::string Shown(const Json& value) {
  if (value.is_null()) return "";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::optional<std::string> ReadableStamp(const std::string& text, bool utc) {
  if (text.size() != kvc::kTimeStampLength || !AllDigits(text)) return std::nullopt;
  platform::LocalTime t;
  if (!kvc::ReadTimeStamp(text, &t)) return "";
  if (utc) {
    const int64_t moment = platform::FromLocal(&t);
    if (moment == -1 || !platform::ToUtc(moment, &t)) return "";
  }
  char shown[32];
  snprintf(shown, sizeof shown, "%04d-%02d-%02d %02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.minute, t.second);
  return std::string(shown);
}

std::set<std::string> StampColumns(const Json& catalogue, const std::string& table) {
  std::set<std::string> columns;
  for (const Json& entry : catalogue) {
    if (Upper(entry.value("key", "")) != Upper(table) && Upper(entry.value("name", "")) != Upper(table)) continue;
    for (const Json& attribute : entry.value("attributes", Json::array()))
      if (attribute.value("type", 0) == 9 && attribute.value("length", 0) == int(kvc::kTimeStampLength))
        columns.insert(Upper(attribute.value("name", "")));
  }
  return columns;
}

std::optional<TextTable> SampleTable(const Json& sample, const SampleView& view, std::string* error) {
  const Json rows = sample.value("rows", Json::array());
  if (rows.empty()) return TextTable{};
  const std::optional<std::vector<std::string>> columns =
      view.columns.empty() ? FilledColumns(rows) : ChosenColumns(rows, view.columns, error);
  if (!columns) return std::nullopt;
  TextTable table{*columns, {}};
  for (const Json& row : rows) {
    std::vector<std::string> cells;
    for (const std::string& column : table.columns) cells.push_back(Cell(row, column, view));
    table.rows.push_back(std::move(cells));
  }
  return table;
}

std::string EventLine(const Json& event, bool utc) {
  const std::string time = Shown(event.value("MSGTIME", Json()));
  return ReadableStamp(time, utc).value_or(time) + "  " + Shown(event.value("ERRORID", Json())) + "  sev " +
         Shown(event.value("SEVERITY", Json())) + "  " + Shown(event.value("UMSGTEXT", Json()));
}

}  // namespace kzq
