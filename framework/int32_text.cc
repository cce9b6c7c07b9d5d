#include "framework/int32_text.h"

#include <limits>

namespace framework {

std::optional<int32_t> ParseInt32(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  // One past the largest magnitude; stopping there keeps long digit runs from overflowing.
  constexpr int64_t kBeyond = int64_t{std::numeric_limits<int32_t>::max()} + 2;
  int64_t magnitude = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    if (magnitude < kBeyond) magnitude = magnitude * 10 + (c - '0');
  }
  const int64_t value = negative ? -magnitude : magnitude;
  if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max())
    return std::nullopt;
  return static_cast<int32_t>(value);
}

}  // namespace framework
