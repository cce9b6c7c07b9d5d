// The UTF-16 line reader and the errorlog line functions over arbitrary
// bytes: the reader must hand back every unit exactly once and know where
// it is; the line functions must cope with any line.
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz/fuzz_input.h"
#include "kzq/errorlog_events.h"
#include "kzq/errorlog_line.h"
#include "kzq/utf16_line_reader.h"

namespace {

void CheckLine(const std::u16string& line) {
  kzq::LogLine split;
  if (kzq::SplitLogLine(line, &split)) {
    kzq::LogTime time;
    if (kzq::ParseLineTime(split, &time)) (void)kzq::IsLater(time, kzq::LogTime{});
    long error = 0;
    int severity = 0;
    int state = 0;
    (void)kzq::ParseErrorNumbers(split.text, &error, &severity, &state);
    (void)kzq::SymptomDumpSeverity(split.text);
  }
  (void)kzq::IsErrorLine(line);
  (void)kzq::IsSymptomDumpLine(line);
  (void)kzq::IsStackDumpSentLine(line);
}

// Reads the whole input; the lines put together are the input's units, and
// Tell() moves by exactly the bytes of each line.
void ReadAll(const uint8_t* data, size_t size, size_t buffer_bytes, size_t max_units, bool check_lines) {
  FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "rb");
  if (file == nullptr) return;
  kzq::Utf16LineReader reader(file, buffer_bytes);
  std::u16string all;
  std::u16string line;
  long at = reader.Tell();
  while (reader.ReadLine(&line, max_units)) {
    if (line.empty() || line.size() > max_units - 1) __builtin_trap();
    if (reader.Tell() != at + static_cast<long>(2 * line.size())) __builtin_trap();
    at = reader.Tell();
    all += line;
    if (check_lines) CheckLine(line);
  }
  fclose(file);
  if (all != fuzz::Utf16Units(data, size)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;  // fmemopen wants at least one byte
  ReadAll(data, size, kzq::Utf16LineReader::kDefaultBufferBytes, kzq::kMaxLogLineUnits, true);
  // Small buffers and limits make lines straddle refills and splits.
  ReadAll(data, size, size % 7, 2 + size % 11, false);
  return 0;
}
