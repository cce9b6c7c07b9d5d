// The table catalogue: every table's row layout as data. Offsets and row
// sizes are computed at compile time and checked against the published
// sizes; a bad entry (a width that does not fit its type, a duplicate or
// badly formed name) stops the build.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kzq {

// Type codes of attribute descriptors.
enum AttributeType : uint16_t { kTypeInt32 = 3, kTypeText = 9, kTypeInt64 = 13 };

enum class SampleForm { kFull, kShort, kPushed };

struct Attribute {
  const char* name;  // upper case, as the framework and filters know it
  uint16_t type;
  uint16_t width;
  bool identifies;  // part of what tells rows of one sample apart
};

constexpr Attribute Text(const char* name, uint16_t width) { return {name, kTypeText, width, false}; }
constexpr Attribute TextKey(const char* name, uint16_t width) { return {name, kTypeText, width, true}; }
constexpr Attribute Int(const char* name) { return {name, kTypeInt32, 4, false}; }
constexpr Attribute IntKey(const char* name) { return {name, kTypeInt32, 4, true}; }

inline constexpr size_t kMaxNameLength = 10;
using NameText = std::array<char, 16>;

constexpr NameText CaseCopy(const char* text, bool upper) {
  NameText out{};
  for (size_t i = 0; text[i] != '\0' && i + 1 < out.size(); ++i) {
    const char c = text[i];
    out[i] = upper ? (c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c)
                   : (c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c);
  }
  return out;
}

// One table's attributes with their offsets and lower-case names.
template <size_t N>
struct Layout {
  std::array<Attribute, N> attributes{};
  std::array<uint16_t, N> offsets{};
  std::array<NameText, N> lower_names{};
  int row_size = 0;

  constexpr explicit Layout(const std::array<Attribute, N>& list) : attributes(list) {
    for (size_t i = 0; i < N; ++i) {
      offsets[i] = static_cast<uint16_t>(row_size);
      lower_names[i] = CaseCopy(list[i].name, false);
      row_size += list[i].width;
    }
  }
};

template <size_t N>
constexpr bool IsWellFormed(const Layout<N>& layout) {
  for (size_t i = 0; i < N; ++i) {
    const Attribute& a = layout.attributes[i];
    const std::string_view name = a.name;
    if (name.empty() || name.size() > kMaxNameLength) return false;
    for (char c : name)
      if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) return false;
    if (a.type == kTypeInt32 && a.width != 4) return false;
    if (a.type == kTypeInt64 && a.width != 8) return false;
    if (a.type == kTypeText && a.width == 0) return false;
    for (size_t j = 0; j < i; ++j)
      if (name == std::string_view(layout.attributes[j].name)) return false;
  }
  return true;
}

// The run-time view of one table.
struct TableSpec {
  const char* name;  // "kzqsrvre"
  const char* key;   // "KZQSRVRE", the framework's name for it
  const char* source;
  SampleForm form;
  int attribute_count;
  int row_size;
  const Attribute* attributes;
  const uint16_t* offsets;
  const NameText* lower_names;

  // Index of an attribute by its upper-case name, or -1.
  constexpr int IndexOf(std::string_view upper_name) const {
    for (int i = 0; i < attribute_count; ++i)
      if (upper_name == attributes[i].name) return i;
    return -1;
  }
  // Offset of the collector's part of a row: everything after the leading
  // attributes the agent fills itself (ORIGINNODE, SAMPLENO, ROWNO,
  // TIMESTAMP). That is SERVERID in most tables; a few tables have their
  // own fields before it, and the collector sends those too.
  constexpr int CollectorOffset() const {
    int i = 0;
    while (i < attribute_count && IsLeadingAttribute(attributes[i].name)) ++i;
    return i < attribute_count ? offsets[i] : row_size;
  }
  static constexpr bool IsLeadingAttribute(std::string_view name) {
    return name == "ORIGINNODE" || name == "SAMPLENO" || name == "ROWNO" || name == "TIMESTAMP";
  }
};

template <typename... A>
constexpr std::array<Attribute, sizeof...(A)> Attributes(A... a) {
  return {a...};
}

#define KZQ_TABLE(table, source_id, sample_form, published_count, published_size, ...)                               \
  inline constexpr Layout table##_layout{Attributes(__VA_ARGS__)};                               \
  inline constexpr NameText table##_key = CaseCopy(#table, true);                                \
  static_assert(table##_layout.attributes.size() == (published_count), #table ": attribute count");\
  static_assert(table##_layout.row_size == (published_size), #table ": row size");\
  static_assert(IsWellFormed(table##_layout), #table ": bad attribute entry");                   \
  inline constexpr TableSpec table##_spec{#table,                                                \
                                          table##_key.data(),                                    \
                                          source_id,                                             \
                                          SampleForm::sample_form,                               \
                                          static_cast<int>(table##_layout.attributes.size()),    \
                                          table##_layout.row_size,                               \
                                          table##_layout.attributes.data(),                      \
                                          table##_layout.offsets.data(),                         \
                                          table##_layout.lower_names.data()};
#include "kzq/catalogue.def"
#undef KZQ_TABLE

#define KZQ_TABLE(table, ...) &table##_spec,
inline constexpr std::array kCatalogue = {
#include "kzq/catalogue.def"
};
#undef KZQ_TABLE

inline constexpr size_t kTableCount = kCatalogue.size();
static_assert(kTableCount == 33);

// The table with the given lower-case name or upper-case key, or null.
const TableSpec* FindTable(std::string_view name_or_key);

}  // namespace kzq
