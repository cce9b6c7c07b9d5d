#include "kzq/collector_text.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kvc/diagnostic_log.h"
#include "platform/environment.h"

namespace kzq {
namespace {

bool Known(int code_page) {
  int error = 0;
  return code_page > 0 && platform::OpenCodePage(code_page, &error) != nullptr;
}

bool PlainAscii(const unsigned char* field, int width) {
  for (int i = 0; i < width; ++i)
    if (field[i] >= 0x80) return false;
  return true;
}

bool WithoutValue(const unsigned char* field, int width) {
  for (int i = 0; i < width; ++i)
    if (field[i] != 0xFF) return false;
  return true;
}

// The longest prefix of `utf8` of at most `limit` bytes that ends on a
// character boundary.
size_t CutAtCharacter(const std::string& utf8, size_t limit) {
  if (utf8.size() <= limit) return utf8.size();
  size_t cut = limit;
  while (cut > 0 && (static_cast<unsigned char>(utf8[cut]) & 0xC0) == 0x80) --cut;
  return cut;
}

}  // namespace

// Every sample asks; the setting is parsed, and the system asked whether it
// knows the code page, only when the value changes.
int CollectorCodePage() {
  const std::string value = platform::GetEnv("COLL_CODEPAGE").value_or("");
  static std::mutex lock;
  static std::string last_value;
  static int last_code_page = kDefaultCodePage;
  std::lock_guard<std::mutex> guard(lock);
  if (value == last_value) return last_code_page;
  last_value = value;
  last_code_page = kDefaultCodePage;
  if (value.empty()) return last_code_page;
  char* end = nullptr;
  const long number = strtol(value.c_str(), &end, 10);
  if (*end == '\0' && number > 0 && number < 100000 && Known(static_cast<int>(number)))
    return last_code_page = static_cast<int>(number);
  kvc::Log('e', "kzq2320", "COLL_CODEPAGE '%s' is not a code page this system knows; texts are read as %d\n",
           value.c_str(), kDefaultCodePage);
  return last_code_page;
}

CollectorText::CollectorText(int code_page) : code_page_(code_page) {}

platform::CodePage* CollectorText::Converter() {
  if (converter_ == nullptr) {
    int error = 0;
    converter_ = platform::OpenCodePage(code_page_, &error);
  }
  return converter_.get();
}

void CollectorText::DecodeRow(const TableSpec& spec, unsigned char* row) {
  if (code_page_ == kUtf8CodePage) return;
  for (int i = 0; i < spec.attribute_count; ++i)
    if (spec.offsets[i] >= spec.CollectorOffset() && spec.attributes[i].type == kTypeText)
      DecodeField(row + spec.offsets[i], spec.attributes[i].width);
}

void CollectorText::DecodeField(unsigned char* field, int width) {
  if (PlainAscii(field, width) || WithoutValue(field, width) || Converter() == nullptr) return;
  const unsigned char pad = field[width - 1] == '\0' ? '\0' : ' ';
  int length = width;
  while (length > 0 && (field[length - 1] == ' ' || field[length - 1] == '\0')) --length;
  const std::string utf8 = converter_->ToUtf8(std::string_view(reinterpret_cast<const char*>(field), length));
  const size_t kept = CutAtCharacter(utf8, static_cast<size_t>(width));
  memcpy(field, utf8.data(), kept);
  memset(field + kept, pad, static_cast<size_t>(width) - kept);
}

std::string CollectorText::Encode(const std::string& utf8) {
  if (code_page_ == kUtf8CodePage || Converter() == nullptr) return utf8;
  for (const char c : utf8)
    if (static_cast<unsigned char>(c) >= 0x80) return converter_->FromUtf8(utf8);
  return utf8;
}

}  // namespace kzq
