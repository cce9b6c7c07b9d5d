// A text table as kzqctl prints it: side by side when a row fits the
// terminal, otherwise one "NAME : value" line per field.
#pragma once

#include <string>
#include <vector>

namespace kzq {

struct TextTable {
  std::vector<std::string> columns;
  std::vector<std::vector<std::string>> rows;  // one cell per column each
};

// Widest a column gets side by side; longer values are cut and end in "~".
inline constexpr size_t kMaxColumnWidth = 32;

// Display width in characters, counting each UTF-8 sequence once.
size_t DisplayWidth(const std::string& text);

// Side by side: a header line, a rule and one line per row. When that is
// wider than `width` characters, each row as "NAME : value" lines with its
// values whole, the rows apart by a blank line.
std::string RenderTable(const TextTable& table, size_t width);

}  // namespace kzq
