// Replay row files: the first byte picks the table, the rest is the file's
// text. Rows either pack whole or the file is refused with a reason.
#include <cstdint>
#include <string>
#include <string_view>

#include "collector/replay_source.h"
#include "collector/row_source.h"
#include "kzq/catalogue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const kzq::TableSpec& table = *kzq::kCatalogue[data[0] % kzq::kTableCount];
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  std::string rows;
  int32_t count = 0;  // ParseRows adds to it
  std::string error;
  if (collector::ReplaySource::ParseRows(table, text, "fuzz.jsonl", kzq::kDefaultCodePage, &rows, &count, &error)) {
    if (count < 0 || rows.size() != static_cast<size_t>(count) * collector::CollectorRowLength(table))
      __builtin_trap();
  } else if (error.empty()) {
    __builtin_trap();
  }
  return 0;
}
