// kzqctl: the command-line companion of the agent.
//   kzqctl tables --json   the table catalogue, offline
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "kzq/catalogue.h"

namespace {

nlohmann::ordered_json CatalogueJson() {
  nlohmann::ordered_json tables = nlohmann::ordered_json::array();
  for (const kzq::TableSpec* spec : kzq::kCatalogue) {
    nlohmann::ordered_json attributes = nlohmann::ordered_json::array();
    for (int i = 0; i < spec->attribute_count; ++i)
      attributes.push_back({{"name", spec->lower_names[i].data()},
                            {"offset", spec->offsets[i]},
                            {"length", spec->attributes[i].width},
                            {"type", spec->attributes[i].type}});
    tables.push_back({{"name", spec->name},
                      {"key", spec->key},
                      {"row_size", spec->row_size},
                      {"attributes", attributes}});
  }
  return tables;
}

int Usage() {
  fprintf(stderr, "usage: kzqctl tables --json\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "tables") == 0 && strcmp(argv[2], "--json") == 0) {
    printf("%s\n", CatalogueJson().dump(2).c_str());
    return 0;
  }
  return Usage();
}
