#include "kzq/table_descriptions.h"

#include "kzq/catalogue.h"

namespace kzq {
namespace {

framework::SamplingForm FormOf(SampleForm form) {
  switch (form) {
    case SampleForm::kShort:
      return framework::SamplingForm::kShort;
    case SampleForm::kPushed:
      return framework::SamplingForm::kPushed;
    case SampleForm::kFull:
      break;
  }
  return framework::SamplingForm::kFull;
}

}  // namespace

std::vector<framework::TableDescription> TableDescriptions() {
  std::vector<framework::TableDescription> tables;
  for (const TableSpec* spec : kCatalogue) {
    framework::TableDescription table{spec->name, spec->key, spec->row_size, FormOf(spec->form), {}};
    for (int i = 0; i < spec->attribute_count; ++i)
      table.attributes.push_back({spec->lower_names[i].data(), spec->offsets[i], spec->attributes[i].width,
                                  spec->attributes[i].type, spec->attributes[i].identifies});
    tables.push_back(std::move(table));
  }
  return tables;
}

}  // namespace kzq
