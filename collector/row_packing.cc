#include "collector/row_packing.h"

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "collector/row_source.h"

namespace collector {
namespace {

// A value as it goes into a field: none (0xFF), an integer or a UTF-8 text.
struct Value {
  enum Kind { kNone, kInteger, kText } kind = kNone;
  int32_t integer = 0;
  std::string text;
};

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// The column that feeds each attribute (-1: none); false with *error when a
// column does not belong in the table's rows.
bool MapColumns(const kzq::TableSpec& table, const std::vector<std::string>& columns, std::vector<int>* column_of,
                std::string* error) {
  column_of->assign(static_cast<size_t>(table.attribute_count), -1);
  for (size_t c = 0; c < columns.size(); ++c) {
    const int index = table.IndexOf(Upper(columns[c]));
    const char* problem = index < 0                                                 ? "names no attribute of"
                          : table.offsets[index] < table.CollectorOffset()          ? "is filled by the agent in"
                          : (*column_of)[static_cast<size_t>(index)] >= 0            ? "comes twice in"
                                                                                     : nullptr;
    if (problem != nullptr) {
      *error = "column '" + columns[c] + "' " + problem + " " + table.key;
      return false;
    }
    (*column_of)[static_cast<size_t>(index)] = static_cast<int>(c);
  }
  return true;
}

bool IsNumber(const Cell& cell) { return cell.kind == CellKind::kInteger || cell.kind == CellKind::kReal; }

double AsDouble(const Cell& cell) {
  return cell.kind == CellKind::kInteger ? static_cast<double>(cell.integer) : cell.real;
}

// A whole number in 32 bits, or none with a problem named after the column.
Value ToInteger(const Cell& cell, const std::string& where, std::vector<std::string>* problems) {
  if (cell.kind == CellKind::kNull) return {};
  double number = 0;
  if (IsNumber(cell)) {
    number = cell.kind == CellKind::kInteger ? static_cast<double>(cell.integer) : std::trunc(cell.real);
  } else if (cell.kind == CellKind::kText) {
    char* end = nullptr;
    const long long parsed = strtoll(cell.text.c_str(), &end, 10);
    if (cell.text.empty() || *end != '\0') {
      problems->push_back(where + " holds a text that is not a number");
      return {};
    }
    number = static_cast<double>(parsed);
  } else {
    problems->push_back(where + " holds a time, not a number");
    return {};
  }
  if (cell.kind == CellKind::kInteger ? (cell.integer < INT32_MIN || cell.integer > INT32_MAX)
                                      : !(number >= INT32_MIN && number <= INT32_MAX)) {
    problems->push_back(where + " holds a value outside 32 bits");
    return {};
  }
  Value v;
  v.kind = Value::kInteger;
  v.integer = static_cast<int32_t>(number);
  return v;
}

// The 16-character time stamp CYYMMDDHHMMSSmmm of a time; empty when its
// year cannot be written in three digits from 1900.
std::string TimeStamp(const platform::LocalTime& t) {
  if (t.year < 1900 || t.year > 2899) return {};
  char text[32];
  snprintf(text, sizeof text, "%03d%02d%02d%02d%02d%02d%03d", t.year - 1900, t.month, t.day, t.hour, t.minute,
           t.second, t.millisecond);
  return text;
}

Value ToText(const Cell& cell) {
  Value v;
  v.kind = Value::kText;
  switch (cell.kind) {
    case CellKind::kNull:
      return {};
    case CellKind::kInteger:
      v.text = std::to_string(cell.integer);
      break;
    case CellKind::kReal: {
      char text[64];
      snprintf(text, sizeof text, "%.15g", cell.real);
      v.text = text;
      break;
    }
    case CellKind::kText:
      v.text = cell.text;
      break;
    case CellKind::kTime:
      v.text = TimeStamp(cell.time);
      if (v.text.empty()) return {};
      break;
  }
  return v;
}

// Where each character of a UTF-8 text starts, and its end.
std::vector<size_t> CharacterStarts(const std::string& utf8) {
  std::vector<size_t> starts;
  for (size_t i = 0; i < utf8.size(); ++i)
    if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) starts.push_back(i);
  starts.push_back(utf8.size());
  return starts;
}

// Cuts *utf8 to its longest prefix of whole characters whose encoding fits
// `width` bytes; returns that encoding. No code page makes a character
// longer than its UTF-8, so a fitting text is encoded once.
std::string FitText(std::string* utf8, size_t width, kzq::CollectorText& encoder) {
  std::string encoded = encoder.Encode(*utf8);
  if (encoded.size() <= width) return encoded;
  const std::vector<size_t> starts = CharacterStarts(*utf8);
  size_t low = 0, high = std::min(starts.size() - 1, width);  // characters that fit at least / at most
  while (low < high) {
    const size_t middle = (low + high + 1) / 2;
    if (encoder.Encode(utf8->substr(0, starts[middle])).size() <= width)
      low = middle;
    else
      high = middle - 1;
  }
  utf8->resize(starts[low]);
  return encoder.Encode(*utf8);
}

// The key of a row among the table's rows: its identifying cells.
std::string RowKey(const kzq::TableSpec& table, const std::vector<Cell>& row, const std::vector<int>& column_of) {
  std::string key;
  for (int i = 0; i < table.attribute_count; ++i) {
    if (!table.attributes[i].identifies || column_of[static_cast<size_t>(i)] < 0) continue;
    const Value v = ToText(row[static_cast<size_t>(column_of[static_cast<size_t>(i)])]);
    key += v.text + '\x1f';
  }
  return key;
}

}  // namespace

RowPacker::RowPacker(int code_page) : encoder_(code_page) {}

int32_t RowPacker::Pack(const kzq::TableSpec& table, const ResultSet& result, const std::vector<std::string>& rates,
                        const PackContext& context, std::string* bytes, std::string* replay,
                        std::vector<std::string>* problems, std::string* error) {
  std::vector<int> column_of;
  if (!MapColumns(table, result.columns, &column_of, error)) return -1;
  const std::set<std::string> rate_names(rates.begin(), rates.end());
  Counters& previous = counters_[table.name];
  Counters current;
  const int first = table.CollectorOffset();
  for (const std::vector<Cell>& cells : result.rows) {
    std::string row(static_cast<size_t>(CollectorRowLength(table)), '\xFF');
    nlohmann::ordered_json line = nlohmann::ordered_json::object();
    const std::string row_key = RowKey(table, cells, column_of);
    for (int i = 0; i < table.attribute_count; ++i) {
      const kzq::Attribute& a = table.attributes[i];
      if (table.offsets[i] < first) continue;
      const int column = column_of[static_cast<size_t>(i)];
      const std::string where = std::string(table.key) + "." + a.name;
      Value v;
      if (column >= 0) {
        const Cell& cell = cells[static_cast<size_t>(column)];
        if (rate_names.count(a.name) != 0 && IsNumber(cell)) {
          const Counter now{AsDouble(cell), context.sample_millis};
          current[row_key + a.name] = now;
          const auto before = previous.find(row_key + a.name);
          if (before != previous.end() && now.value >= before->second.value && now.millis > before->second.millis) {
            Cell rate;
            rate.kind = CellKind::kReal;
            rate.real = (now.value - before->second.value) * 1000.0 /
                        static_cast<double>(now.millis - before->second.millis);
            v = ToInteger(rate, where, problems);
          }
        } else {
          v = a.type == kzq::kTypeText ? ToText(cell) : ToInteger(cell, where, problems);
        }
      } else if (std::string_view(a.name) == "SERVERID") {
        v = {Value::kText, 0, context.server_id};
      } else if (std::string_view(a.name) == "SAMPTIME") {
        v = {Value::kText, 0, TimeStamp(context.sample_time)};
      }
      char* field = &row[static_cast<size_t>(table.offsets[i] - first)];
      if (v.kind == Value::kInteger) {
        memcpy(field, &v.integer, sizeof v.integer);
        line[a.name] = v.integer;
      } else if (v.kind == Value::kText) {
        const std::string encoded = FitText(&v.text, a.width, encoder_);
        memset(field, ' ', a.width);
        memcpy(field, encoded.data(), encoded.size());
        line[a.name] = v.text;
      } else if (replay != nullptr) {
        line[a.name] = nullptr;
      }
    }
    bytes->append(row);
    if (replay != nullptr) *replay += line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  }
  previous = std::move(current);
  return static_cast<int32_t>(result.rows.size());
}

}  // namespace collector
