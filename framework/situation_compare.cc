// The row-level comparisons tables use to answer one filter element.
#include <cstring>
#include <string_view>

#include "framework/int32_text.h"
#include "framework/situation.h"

namespace framework {
namespace {

std::string_view TrimTrailingBlanks(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// A row field ends at its first NUL: producers that write C strings leave
// the terminator and whatever follows it in the field.
std::string_view FieldText(const char* field, int width) {
  if (field == nullptr || width <= 0) return {};
  const void* nul = memchr(field, '\0', static_cast<size_t>(width));
  const size_t length =
      nul ? static_cast<size_t>(static_cast<const char*>(nul) - field) : static_cast<size_t>(width);
  return TrimTrailingBlanks(std::string_view(field, length));
}

std::string_view ValueText(const char* value) {
  return value == nullptr ? std::string_view() : TrimTrailingBlanks(value);
}

// Iterative wildcard match: on a mismatch, the last '%' seen takes one
// more byte and matching resumes after it. Quadratic at worst, no recursion.
bool MatchesPattern(std::string_view text, std::string_view pattern) {
  size_t t = 0;
  size_t p = 0;
  size_t last_percent = std::string_view::npos;
  size_t resume_at = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '%') {
      last_percent = p++;
      resume_at = t;
    } else if (p < pattern.size() && (pattern[p] == '_' || pattern[p] == text[t])) {
      ++t;
      ++p;
    } else if (last_percent != std::string_view::npos) {
      p = last_percent + 1;
      t = ++resume_at;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '%') ++p;
  return p == pattern.size();
}

// `order` is negative, zero or positive as the field sorts before, with or after the value.
int FromOrder(int op, int order) {
  switch (op) {
    case kOpEQ: return order == 0;
    case kOpNE: return order != 0;
    case kOpGE: return order >= 0;
    case kOpLE: return order <= 0;
    case kOpLT: return order < 0;
    case kOpGT: return order > 0;
    default: return 0;
  }
}

}  // namespace

const char* CompareOpName(int op) {
  switch (op) {
    case kOpEQ: return "EQ";
    case kOpNE: return "NE";
    case kOpGE: return "GE";
    case kOpLE: return "LE";
    case kOpLT: return "LT";
    case kOpGT: return "GT";
    case kOpLIKE: return "LIKE";
    default: return "?";
  }
}

int IsException(int op, const char* field, const char* value, int width) {
  const std::string_view text = FieldText(field, width);
  const std::string_view wanted = ValueText(value);
  if (op == kOpLIKE) return MatchesPattern(text, wanted) ? 1 : 0;
  // std::string_view compares bytes as unsigned char, as strcmp does.
  return FromOrder(op, text.compare(wanted));
}

int IsException(int op, int32_t field, const char* value) {
  if (value == nullptr) return 0;
  const std::optional<int32_t> wanted = ParseInt32(value);
  if (!wanted) return 0;
  return FromOrder(op, field < *wanted ? -1 : (field > *wanted ? 1 : 0));
}

}  // namespace framework
