#include "kzq/catalogue_json.h"

#include "kzq/catalogue.h"

namespace kzq {
namespace {

const char* SamplingName(SampleForm form) {
  switch (form) {
    case SampleForm::kFull:
      return "full";
    case SampleForm::kShort:
      return "short";
    case SampleForm::kPushed:
      return "pushed";
  }
  return "";
}

}  // namespace

nlohmann::ordered_json CatalogueJson() {
  nlohmann::ordered_json tables = nlohmann::ordered_json::array();
  for (const TableSpec* spec : kCatalogue) {
    nlohmann::ordered_json attributes = nlohmann::ordered_json::array();
    for (int i = 0; i < spec->attribute_count; ++i)
      attributes.push_back({{"name", spec->lower_names[i].data()},
                            {"offset", spec->offsets[i]},
                            {"length", spec->attributes[i].width},
                            {"type", spec->attributes[i].type},
                            {"identifies", spec->attributes[i].identifies}});
    tables.push_back({{"name", spec->name},
                      {"key", spec->key},
                      {"row_size", spec->row_size},
                      {"sampling", SamplingName(spec->form)},
                      {"attributes", attributes}});
  }
  return tables;
}

}  // namespace kzq
