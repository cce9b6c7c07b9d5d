#include "platform/text.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/error.h"

namespace platform {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(char32_t c, std::string* out) {
  if (c < 0x80) {
    out->push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (c >> 6)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (c >> 12)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (c >> 18)));
    out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

bool IsHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// Decodes one UTF-8 sequence at `p`; returns its length and the code point,
// or length 1 and U+FFFD for a malformed lead or continuation.
size_t DecodeUtf8(std::string_view in, size_t p, char32_t* out) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(in[i]); };
  const uint8_t lead = byte(p);
  size_t length;
  char32_t c;
  char32_t minimum;
  if (lead < 0x80) {
    *out = lead;
    return 1;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, c = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, c = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, c = lead & 0x07, minimum = 0x10000;
  } else {
    *out = kReplacement;
    return 1;
  }
  if (p + length > in.size()) {
    *out = kReplacement;
    return 1;
  }
  for (size_t i = 1; i < length; ++i) {
    if ((byte(p + i) & 0xC0) != 0x80) {
      *out = kReplacement;
      return 1;
    }
    c = (c << 6) | (byte(p + i) & 0x3F);
  }
  const bool surrogate = c >= 0xD800 && c <= 0xDFFF;
  *out = (c < minimum || c > 0x10FFFF || surrogate) ? kReplacement : c;
  return *out == kReplacement ? 1 : length;
}

}  // namespace

std::string Utf16ToUtf8(std::u16string_view units) {
  std::string out;
  out.reserve(units.size());
  for (size_t i = 0; i < units.size(); ++i) {
    char32_t c = units[i];
    if (IsHighSurrogate(units[i]) && i + 1 < units.size() &&
        IsLowSurrogate(units[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (units[i + 1] - 0xDC00);
      ++i;
    } else if (IsHighSurrogate(units[i]) || IsLowSurrogate(units[i])) {
      c = kReplacement;
    }
    AppendUtf8(c, &out);
  }
  return out;
}

std::u16string Utf8ToUtf16(std::string_view bytes) {
  std::u16string out;
  out.reserve(bytes.size());
  for (size_t p = 0; p < bytes.size();) {
    char32_t c;
    p += DecodeUtf8(bytes, p, &c);
    if (c >= 0x10000) {
      c -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(c));
    }
  }
  return out;
}

namespace {

// glibc's name for a Windows code page number.
std::string IconvName(int number) {
  if (number == 65001) return "UTF-8";
  if (number == 20127) return "ASCII";
  if (number >= 28591 && number <= 28599) return "ISO-8859-" + std::to_string(number - 28590);
  if (number == 28603 || number == 28605) return "ISO-8859-" + std::to_string(number - 28590);
  return "CP" + std::to_string(number);
}

// Length of the UTF-8 sequence a lead byte starts (1 for a stray byte).
size_t SequenceLength(unsigned char lead) {
  if (lead >= 0xF0 && lead < 0xF8) return 4;
  if (lead >= 0xE0) return 3;
  if (lead >= 0xC0) return 2;
  return 1;
}

class IconvCodePage final : public CodePage {
 public:
  IconvCodePage(iconv_t to_utf8, iconv_t from_utf8) : to_utf8_(to_utf8), from_utf8_(from_utf8) {}
  ~IconvCodePage() override {
    iconv_close(to_utf8_);
    iconv_close(from_utf8_);
  }
  std::string ToUtf8(std::string_view bytes) override {
    return Convert(to_utf8_, bytes, "\xEF\xBF\xBD", [](unsigned char) { return size_t{1}; });
  }
  std::string FromUtf8(std::string_view utf8) override { return Convert(from_utf8_, utf8, "?", SequenceLength); }

 private:
  // Converts all of `in`; an input sequence the target cannot take is
  // replaced by `replacement` and skipped by its length.
  template <typename Skip>
  static std::string Convert(iconv_t cd, std::string_view in, const char* replacement, Skip skip) {
    std::string out;
    char buffer[1024];
    char* from = const_cast<char*>(in.data());
    size_t left = in.size();
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    while (left > 0) {
      char* to = buffer;
      size_t room = sizeof buffer;
      const size_t rc = iconv(cd, &from, &left, &to, &room);
      out.append(buffer, static_cast<size_t>(to - buffer));
      if (rc == static_cast<size_t>(-1) && errno != E2BIG) {
        const size_t n = std::min(left, skip(static_cast<unsigned char>(*from)));
        out += replacement;
        from += n;
        left -= n;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
      }
    }
    return out;
  }

  const iconv_t to_utf8_;
  const iconv_t from_utf8_;
};

}  // namespace

std::unique_ptr<CodePage> OpenCodePage(int number, int* error) {
  const std::string name = IconvName(number);
  const iconv_t to_utf8 = iconv_open("UTF-8", name.c_str());
  const iconv_t from_utf8 = iconv_open(name.c_str(), "UTF-8");
  const auto failed = reinterpret_cast<iconv_t>(-1);
  if (to_utf8 != failed && from_utf8 != failed && number != 1200 && number != 1201)
    return std::make_unique<IconvCodePage>(to_utf8, from_utf8);
  if (to_utf8 != failed) iconv_close(to_utf8);
  if (from_utf8 != failed) iconv_close(from_utf8);
  *error = kErrInvalidParameter;
  return nullptr;
}

}  // namespace platform
