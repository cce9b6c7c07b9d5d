// Bytes that tell every position apart, so a lost, doubled or shifted
// chunk shows.
#pragma once

#include <cstddef>
#include <string>

namespace kzq_test {

inline std::string PatternBytes(size_t n) {
  std::string bytes(n, '\0');
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
  return bytes;
}

}  // namespace kzq_test
