#include "platform/text.h"

#include <windows.h>

#include "platform/error.h"

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

namespace {

class WindowsCodePage final : public CodePage {
 public:
  explicit WindowsCodePage(UINT number) : number_(number) {}
  std::string ToUtf8(std::string_view bytes) override {
    if (bytes.empty()) return {};
    const int count = static_cast<int>(bytes.size());
    const int size = MultiByteToWideChar(number_, 0, bytes.data(), count, nullptr, 0);
    std::u16string wide(static_cast<size_t>(size), u'\0');
    MultiByteToWideChar(number_, 0, bytes.data(), count, reinterpret_cast<wchar_t*>(wide.data()), size);
    return Utf16ToUtf8(wide);
  }
  std::string FromUtf8(std::string_view utf8) override {
    const std::u16string wide = Utf8ToUtf16(utf8);
    if (wide.empty()) return {};
    const auto* units = reinterpret_cast<const wchar_t*>(wide.data());
    const int count = static_cast<int>(wide.size());
    // UTF-8 and a few other code pages take no default character.
    const char* unknown = number_ == CP_UTF8 ? nullptr : "?";
    const int size = WideCharToMultiByte(number_, 0, units, count, nullptr, 0, unknown, nullptr);
    std::string out(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(number_, 0, units, count, out.data(), size, unknown, nullptr);
    return out;
  }

 private:
  const UINT number_;
};

}  // namespace

std::unique_ptr<CodePage> OpenCodePage(int number, int* error) {
  if (number <= 0 || number == 1200 || number == 1201 || !IsValidCodePage(static_cast<UINT>(number))) {
    *error = kErrInvalidParameter;
    return nullptr;
  }
  return std::make_unique<WindowsCodePage>(static_cast<UINT>(number));
}

}  // namespace platform
