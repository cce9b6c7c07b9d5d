#include "collector/replay_source.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "kvc/string_time.h"

namespace collector {
namespace {

std::string Upper(const std::string& name) {
  std::string out = name;
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// Writes one attribute's value into a collector row; an error text when it
// does not fit.
std::string PackValue(const kzq::TableSpec& table, int index, const nlohmann::json& value, kzq::CollectorText& encoder,
                      char* row) {
  const kzq::Attribute& a = table.attributes[index];
  char* field = row + (table.offsets[index] - table.CollectorOffset());
  if (value.is_null()) {
    memset(field, 0xFF, a.width);
    return {};
  }
  if (a.type == kzq::kTypeText) {
    if (!value.is_string()) return std::string(a.name) + " needs a text in quotes";
    const std::string text = encoder.Encode(value.get_ref<const std::string&>());
    if (text.size() > a.width)
      return std::string(a.name) + " holds at most " + std::to_string(a.width) + " bytes, got " +
             std::to_string(text.size());
    kvc::CopyFixed(field, a.width, text);
    return {};
  }
  if (!value.is_number_integer()) return std::string(a.name) + " needs an integer";
  const auto number = value.get<long long>();
  if (number < INT32_MIN || number > INT32_MAX)
    return std::string(a.name) + " value " + std::to_string(number) + " does not fit in 32 bits";
  const int32_t v = static_cast<int32_t>(number);
  memcpy(field, &v, sizeof v);
  return {};
}

// An empty collector row: texts blank, integers 0.
std::string BlankRow(const kzq::TableSpec& table) {
  std::string row(static_cast<size_t>(CollectorRowLength(table)), '\0');
  for (int i = 0; i < table.attribute_count; ++i)
    if (table.offsets[i] >= table.CollectorOffset() && table.attributes[i].type == kzq::kTypeText)
      memset(&row[table.offsets[i] - table.CollectorOffset()], ' ', table.attributes[i].width);
  return row;
}

std::string PackLine(const kzq::TableSpec& table, const nlohmann::json& line, kzq::CollectorText& encoder,
                     std::string* row) {
  if (!line.is_object()) return "a row must be a JSON object";
  *row = BlankRow(table);
  for (const auto& [name, value] : line.items()) {
    const int index = table.IndexOf(Upper(name));
    if (index < 0) return "unknown attribute '" + name + "' of " + table.name;
    if (table.offsets[index] < table.CollectorOffset())
      return "attribute " + std::string(table.attributes[index].name) + " of " + table.name +
             " is filled by the agent, not sent by a collector";
    const std::string problem = PackValue(table, index, value, encoder, row->data());
    if (!problem.empty()) return problem;
  }
  return {};
}

}  // namespace

bool ReplaySource::ParseRows(const kzq::TableSpec& table, std::string_view text, const std::string& name,
                             int code_page, std::string* rows, int32_t* count, std::string* error) {
  kzq::CollectorText encoder(code_page);
  std::istringstream in{std::string(text)};
  int line_number = 0;
  for (std::string line; std::getline(in, line);) {
    ++line_number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    const nlohmann::json parsed = nlohmann::json::parse(line, nullptr, false);
    std::string row;
    const std::string problem = parsed.is_discarded() ? "not valid JSON" : PackLine(table, parsed, encoder, &row);
    if (!problem.empty()) {
      *error = name + ":" + std::to_string(line_number) + ": " + problem;
      return false;
    }
    rows->append(row);
    ++*count;
  }
  return true;
}

std::unique_ptr<ReplaySource> ReplaySource::Load(const std::string& directory, int code_page, std::string* error) {
  std::error_code ec;
  std::filesystem::directory_iterator files(directory, ec);
  if (ec) {
    *error = directory + ": " + ec.message();
    return nullptr;
  }
  auto source = std::make_unique<ReplaySource>();
  for (const auto& entry : files) {
    const std::filesystem::path& path = entry.path();
    if (path.extension() != ".jsonl") continue;
    const kzq::TableSpec* table = kzq::FindTable(path.stem().string());
    if (table == nullptr) {
      *error = path.string() + ": no table named " + path.stem().string();
      return nullptr;
    }
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    TableRows& rows = source->tables_[table->name];
    if (!ParseRows(*table, text.str(), path.string(), code_page, &rows.bytes, &rows.count, error)) return nullptr;
  }
  return source;
}

int32_t ReplaySource::Rows(const kzq::TableSpec& table, const std::string&, std::string* bytes) {
  const auto it = tables_.find(table.name);
  if (it == tables_.end()) return 0;
  bytes->append(it->second.bytes);
  return it->second.count;
}

}  // namespace collector
