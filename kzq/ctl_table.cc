#include "kzq/ctl_table.h"

#include <algorithm>

namespace kzq {
namespace {

std::string Fit(const std::string& text, size_t width) {
  const bool cut = DisplayWidth(text) > width;
  std::string out;
  size_t shown = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool starts = (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
    if (starts && cut && shown == width - 1) return out + "~";
    if (starts) ++shown;
    out += text[i];
  }
  return out + std::string(width - shown, ' ');
}

std::vector<size_t> ColumnWidths(const TextTable& table) {
  std::vector<size_t> widths;
  for (size_t c = 0; c < table.columns.size(); ++c) {
    size_t width = DisplayWidth(table.columns[c]);
    for (const auto& row : table.rows) width = std::max(width, DisplayWidth(row[c]));
    widths.push_back(std::min(width, kMaxColumnWidth));
  }
  return widths;
}

std::string Line(const std::vector<std::string>& cells, const std::vector<size_t>& widths) {
  std::string text;
  for (size_t i = 0; i < cells.size(); ++i) text += (i ? "  " : "") + Fit(cells[i], widths[i]);
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text + "\n";
}

std::string SideBySide(const TextTable& table, const std::vector<size_t>& widths) {
  std::vector<std::string> rule;
  for (size_t w : widths) rule.push_back(std::string(w, '-'));
  std::string out = Line(table.columns, widths) + Line(rule, widths);
  for (const auto& row : table.rows) out += Line(row, widths);
  return out;
}

std::string Vertical(const TextTable& table) {
  size_t name_width = 0;
  for (const std::string& name : table.columns) name_width = std::max(name_width, DisplayWidth(name));
  std::string out;
  for (size_t r = 0; r < table.rows.size(); ++r) {
    if (r > 0) out += "\n";
    for (size_t c = 0; c < table.columns.size(); ++c) {
      std::string line = table.columns[c] + std::string(name_width - DisplayWidth(table.columns[c]), ' ') + " : " +
                         table.rows[r][c];
      while (line.back() == ' ') line.pop_back();
      out += line + "\n";
    }
  }
  return out;
}

}  // namespace

size_t DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text) width += (c & 0xC0) != 0x80;
  return width;
}

std::string RenderTable(const TextTable& table, size_t width) {
  const std::vector<size_t> widths = ColumnWidths(table);
  size_t row_width = 0;
  for (size_t w : widths) row_width += w + 2;
  if (row_width > 0) row_width -= 2;
  return row_width <= width ? SideBySide(table, widths) : Vertical(table);
}

}  // namespace kzq
