// UTF-16LE <-> UTF-8 conversion.
//
// Text is held in 16-bit code units (char16_t), never in wchar_t, which is
// 32 bits wide on Linux. Malformed input (a lone surrogate, a bad UTF-8
// sequence) is replaced with U+FFFD rather than rejected, so a damaged log
// line still reaches its reader.
#pragma once

#include <string>
#include <string_view>

namespace platform {

std::string Utf16ToUtf8(std::u16string_view units);
std::u16string Utf8ToUtf16(std::string_view bytes);

}  // namespace platform
