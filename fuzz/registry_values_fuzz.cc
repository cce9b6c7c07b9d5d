// The registry store's values file, which people edit by hand: whatever
// it holds, writing it back and reading that again must give the same
// values and the same text.
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/posix/registry_values.h"

namespace {

bool SameValues(const platform::posix::ValuesDocument& a, const platform::posix::ValuesDocument& b) {
  if (a.Count() != b.Count()) return false;
  for (size_t i = 0; i < a.Count(); ++i) {
    const auto* x = a.At(i);
    const auto* y = b.At(i);
    if (x->name != y->name || x->type != y->type || x->data != y->data) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace platform::posix;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  ValuesDocument document = ParseValues(text);
  const std::string written = FormatValues(document);
  const ValuesDocument again = ParseValues(written);
  if (!SameValues(document, again) || FormatValues(again) != written) __builtin_trap();
  // Setting every value again as it is, through the writer's own forms,
  // must also read back unchanged.
  for (size_t i = 0; i < again.Count(); ++i) document.Set(*again.At(i));
  const ValuesDocument rewritten = ParseValues(FormatValues(document));
  if (!SameValues(again, rewritten)) __builtin_trap();
  return 0;
}
