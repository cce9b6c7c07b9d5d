#include "kzq/catalogue.h"

#include <cctype>

namespace kzq {

const TableSpec* FindTable(std::string_view name_or_key) {
  for (const TableSpec* spec : kCatalogue) {
    const std::string_view name = spec->name;
    if (name.size() != name_or_key.size()) continue;
    bool same = true;
    for (size_t i = 0; same && i < name.size(); ++i)
      same = std::tolower(static_cast<unsigned char>(name_or_key[i])) == name[i];
    if (same) return spec;
  }
  return nullptr;
}

}  // namespace kzq
