// Situation filter text: whatever parses must print canonically and parse
// back to the same text, and evaluating it must terminate without harm.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "framework/situation.h"

namespace {

std::optional<framework::AttributeKind> Attributes(std::string_view name) {
  if (name == "DBNAME" || name == "STATUS" || name == "SERVERID") return framework::AttributeKind::kText;
  if (name == "CPU" || name == "PCTDBFREE" || name == "ERRORNUM") return framework::AttributeKind::kInteger;
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  const std::optional<framework::SituationFilter> filter = framework::SituationFilter::Parse(text, Attributes, &error);
  if (!filter) {
    if (error.empty()) __builtin_trap();  // a refusal always says why
    return 0;
  }
  const std::string canonical = filter->ToString();
  if (canonical.size() <= framework::kMaxFilterLength) {
    const auto again = framework::SituationFilter::Parse(canonical, Attributes, &error);
    if (!again || again->ToString() != canonical) __builtin_trap();
    if (again->Elements().size() != filter->Elements().size()) __builtin_trap();
  }
  // Each comparison's outcome taken from the input's bytes.
  size_t asked = 0;
  (void)filter->Evaluate([&](const framework::FilterElement&) {
    ++asked;
    return size > 0 ? data[asked % size] & 1 : 0;
  });
  return 0;
}
