// The values file of one key in the file-backed registry: text that people
// edit by hand, one value a line, kept apart from any file I/O so that tests
// and fuzzers drive it directly.
//
//   # comment
//   InstallDir = sz:/opt/kzq
//   Search = expand_sz:%HOME%/kzq
//   Retries = dword:3
//   Greeting = sz:"two\nlines"
//   "odd = name" = binary:01 02 ff
//   @ = sz:the key's default value
//
// A name is bare, or quoted when it holds '=', '"', control characters or
// blanks at its ends; `@` is the unnamed default value. Types: sz and
// expand_sz (text to the end of the line, or quoted with the escapes \\ \"
// \n \r \t \xHH), dword and qword (decimal, or 0x hex), binary (hex bytes),
// multi_sz (quoted texts separated by commas), and hex(N) for any type
// number N with hex bytes - the writer falls back to it for data that the
// friendly forms cannot hold exactly.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::posix {

struct StoredValue {
  std::string name;
  uint32_t type = 0;
  std::string data;  // the bytes as Windows would hold them (texts end in NUL)
};

// A line of the file: a value, or text kept as it stands - blank lines,
// comments and lines that did not parse, so a rewrite loses none of them.
struct ValuesLine {
  std::string text;
  std::optional<StoredValue> value;
};

struct ValuesProblem {
  int line = 0;  // from 1
  std::string message;
};

class ValuesDocument {
 public:
  std::vector<ValuesLine> lines;
  std::vector<ValuesProblem> problems;

  const StoredValue* Find(std::string_view name) const;
  // The value at `index` in file order, or null past the end.
  const StoredValue* At(size_t index) const;
  size_t Count() const;
  // Replaces the data of a value of the same name, which keeps its place and
  // spelling; a new value is appended.
  void Set(const StoredValue& value);
  // False when there is no such value.
  bool Remove(std::string_view name);
};

// Names of keys and values compare without regard to ASCII case.
bool SameName(std::string_view a, std::string_view b);

ValuesDocument ParseValues(std::string_view text);
std::string FormatValues(const ValuesDocument& document);

}  // namespace platform::posix
