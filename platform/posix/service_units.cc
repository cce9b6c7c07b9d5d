#include "platform/posix/service_units.h"

#include <strings.h>

#include <cstdlib>
#include <string_view>

namespace platform::posix {
namespace {

constexpr const char* kDefaultMap = "MSSQLSERVER=mssql-server";
constexpr const char* kBlanks = " \t\r\n";
constexpr std::string_view kSuffix = ".service";

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The unit of one "NAME=unit" item when it names `name`.
std::optional<std::string> UnitOfItem(const std::string& item, const std::string& name) {
  const size_t equals = item.find('=');
  if (equals == std::string::npos) return std::nullopt;
  const std::string key = Trimmed(item.substr(0, equals));
  std::string unit = Trimmed(item.substr(equals + 1));
  if (unit.ends_with(kSuffix)) unit.resize(unit.size() - kSuffix.size());
  // A '/' would lead the probe out of the unit's own cgroup.
  if (key.empty() || unit.empty() || unit.find_first_of("/= \t") != std::string::npos) return std::nullopt;
  if (strcasecmp(key.c_str(), name.c_str()) != 0) return std::nullopt;
  return unit;
}

}  // namespace

std::optional<std::string> FindServiceUnit(const std::string& map, const std::string& name) {
  std::optional<std::string> found;
  for (size_t begin = 0;;) {
    const size_t end = map.find(',', begin);
    if (auto unit = UnitOfItem(map.substr(begin, end - begin), name)) found = std::move(unit);
    if (end == std::string::npos) return found;
    begin = end + 1;
  }
}

std::optional<std::string> ServiceUnit(const std::string& name) {
  const char* map = getenv("KZQ_SERVICE_UNITS");
  return FindServiceUnit(map != nullptr && *map != '\0' ? map : kDefaultMap, name);
}

}  // namespace platform::posix
