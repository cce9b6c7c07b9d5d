#include "framework/serve/catalogue_json.h"

namespace framework {
namespace {

const char* SamplingName(SamplingForm form) {
  switch (form) {
    case SamplingForm::kFull:
      return "full";
    case SamplingForm::kShort:
      return "short";
    case SamplingForm::kPushed:
      return "pushed";
  }
  return "";
}

}  // namespace

nlohmann::ordered_json CatalogueJson(const std::vector<TableDescription>& tables) {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const TableDescription& table : tables) {
    nlohmann::ordered_json attributes = nlohmann::ordered_json::array();
    for (const AttributeDescription& a : table.attributes)
      attributes.push_back(
          {{"name", a.name}, {"offset", a.offset}, {"length", a.length}, {"type", a.type}, {"identifies", a.identifies}});
    out.push_back({{"name", table.name},
                   {"key", table.key},
                   {"row_size", table.row_size},
                   {"sampling", SamplingName(table.sampling)},
                   {"attributes", attributes}});
  }
  return out;
}

}  // namespace framework
