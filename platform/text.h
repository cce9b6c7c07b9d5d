// UTF-16LE <-> UTF-8 conversion, and text in a Windows code page.
//
// Text is held in 16-bit code units (char16_t), never in wchar_t, which is
// 32 bits wide on Linux. Malformed input (a lone surrogate, a bad UTF-8
// sequence) is replaced with U+FFFD rather than rejected, so a damaged log
// line still reaches its reader.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace platform {

std::string Utf16ToUtf8(std::u16string_view units);
std::u16string Utf8ToUtf16(std::string_view bytes);

// Converts between UTF-8 and one Windows code page (1252, 1250, 932,
// 28591...), by its number on every platform. One thread at a time.
class CodePage {
 public:
  virtual ~CodePage() = default;
  // Bytes that are no character of the code page become U+FFFD.
  virtual std::string ToUtf8(std::string_view bytes) = 0;
  // Characters the code page lacks become '?'.
  virtual std::string FromUtf8(std::string_view utf8) = 0;
};

// The converter for code page `number`; nullptr with *error
// (kErrInvalidParameter) for a number this system does not know.
std::unique_ptr<CodePage> OpenCodePage(int number, int* error);

}  // namespace platform
