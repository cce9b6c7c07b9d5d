#include "platform/text.h"

#include <windows.h>

namespace platform {

std::string Utf16ToUtf8(std::u16string_view units) {
  if (units.empty()) return {};
  const auto* wide = reinterpret_cast<const wchar_t*>(units.data());
  const int count = static_cast<int>(units.size());
  const int size = WideCharToMultiByte(CP_UTF8, 0, wide, count, nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide, count, out.data(), size, nullptr, nullptr);
  return out;
}

std::u16string Utf8ToUtf16(std::string_view bytes) {
  if (bytes.empty()) return {};
  const int count = static_cast<int>(bytes.size());
  const int size = MultiByteToWideChar(CP_UTF8, 0, bytes.data(), count, nullptr, 0);
  std::u16string out(static_cast<size_t>(size), u'\0');
  MultiByteToWideChar(CP_UTF8, 0, bytes.data(), count,
                      reinterpret_cast<wchar_t*>(out.data()), size);
  return out;
}

}  // namespace platform
