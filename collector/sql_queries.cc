#include "collector/sql_queries.h"

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "kzq/catalogue.h"

namespace collector {
namespace {

std::string Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  const size_t last = text.find_last_not_of(" \t\r");
  return std::string(text.substr(first, last - first + 1));
}

std::vector<std::string> RateNames(std::string_view list) {
  std::vector<std::string> names;
  std::stringstream in{std::string(list)};
  for (std::string name; std::getline(in, name, ',');) {
    name = Trim(name);
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (!name.empty()) names.push_back(name);
  }
  return names;
}

}  // namespace

SqlQuery ParseSqlQuery(const std::string& table, std::string_view text) {
  SqlQuery query{table, std::string(text), {}};
  constexpr std::string_view kRate = "-- rate:";
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string line = Trim(text.substr(start, end - start));
    if (line.compare(0, kRate.size(), kRate) == 0) {
      const std::vector<std::string> names = RateNames(std::string_view(line).substr(kRate.size()));
      query.rates.insert(query.rates.end(), names.begin(), names.end());
    }
    start = end + 1;
  }
  return query;
}

bool LoadSqlQueries(const std::string& directory, SqlQueries* queries, std::string* error) {
  std::error_code ec;
  std::filesystem::directory_iterator files(directory, ec);
  if (ec) {
    *error = directory + ": " + ec.message();
    return false;
  }
  for (const auto& entry : files) {
    const std::filesystem::path& path = entry.path();
    if (path.extension() != ".sql") continue;
    const kzq::TableSpec* table = kzq::FindTable(path.stem().string());
    if (table == nullptr || table->form == kzq::SampleForm::kPushed) {
      *error = path.string() + ": no collector table named " + path.stem().string();
      return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    (*queries)[table->name] = ParseSqlQuery(table->name, text.str());
  }
  return true;
}

}  // namespace collector
