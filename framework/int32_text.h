// Reading 32-bit integers from decimal text.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace framework {

// An optional sign followed by one or more digits, nothing else; std::nullopt
// when the text has another form or the number does not fit in 32 bits.
std::optional<int32_t> ParseInt32(std::string_view text);

}  // namespace framework
