#include "platform/posix/registry_values.h"

#include <charconv>
#include <cstdio>
#include <utility>

#include "platform/registry_store.h"

namespace platform::posix {
namespace {

constexpr std::string_view kDefaultValueName = "@";

// How the data of a line is written, chosen by the type word.
enum class Form { kText, kDword, kQword, kHex, kTextList };

struct TypeWord {
  std::string_view word;
  uint32_t type;
  Form form;
};

constexpr TypeWord kTypeWords[] = {
    {"sz", kRegSz, Form::kText},         {"expand_sz", kRegExpandSz, Form::kText},
    {"binary", kRegBinary, Form::kHex},  {"dword", kRegDword, Form::kDword},
    {"qword", kRegQword, Form::kQword},  {"multi_sz", kRegMultiSz, Form::kTextList},
};

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

bool IsControl(char c) {
  const auto u = static_cast<unsigned char>(c);
  return u < 0x20 || u == 0x7f;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

std::string Printable(std::string_view s) {
  std::string out;
  for (char c : s) {
    if (IsControl(c)) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      out += hex;
    } else {
      out += c;
    }
  }
  return out;
}

// Reads one line from the left. Each Parse function returns false with
// `error` set on the first thing it cannot accept.
class LineCursor {
 public:
  explicit LineCursor(std::string_view text) : rest_(text) {}

  void SkipBlanks() {
    while (!rest_.empty() && IsBlank(rest_.front())) rest_.remove_prefix(1);
  }
  bool Take(char c) {
    if (rest_.empty() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }
  std::string_view TakeUntil(char c) {
    const std::string_view taken = rest_.substr(0, rest_.find(c));
    rest_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view TakeAll() { return std::exchange(rest_, {}); }
  bool AtEnd() const { return rest_.empty(); }
  char Peek() const { return rest_.empty() ? '\0' : rest_.front(); }

  bool ParseQuoted(std::string* out, std::string* error);

 private:
  bool ParseEscape(std::string* out, std::string* error);
  std::string_view rest_;
};

bool LineCursor::ParseQuoted(std::string* out, std::string* error) {
  Take('"');
  while (!rest_.empty()) {
    const char c = rest_.front();
    rest_.remove_prefix(1);
    if (c == '"') return true;
    if (c != '\\') {
      *out += c;
    } else if (!ParseEscape(out, error)) {
      return false;
    }
  }
  *error = "quoted text has no closing '\"'";
  return false;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool LineCursor::ParseEscape(std::string* out, std::string* error) {
  const char c = rest_.empty() ? '\0' : rest_.front();
  rest_.remove_prefix(rest_.empty() ? 0 : 1);
  switch (c) {
    case '\\': *out += '\\'; return true;
    case '"': *out += '"'; return true;
    case 'n': *out += '\n'; return true;
    case 'r': *out += '\r'; return true;
    case 't': *out += '\t'; return true;
    case 'x':
      if (rest_.size() >= 2 && HexDigit(rest_[0]) >= 0 && HexDigit(rest_[1]) >= 0) {
        *out += static_cast<char>(HexDigit(rest_[0]) * 16 + HexDigit(rest_[1]));
        rest_.remove_prefix(2);
        return true;
      }
      *error = "\\x must be followed by two hex digits";
      return false;
    default:
      *error = "unknown escape '\\" + Printable(std::string_view(&c, c ? 1 : 0)) +
               "' in quoted text (use \\\\ for a backslash)";
      return false;
  }
}

bool CheckPlain(std::string_view s, const char* what, std::string* error) {
  for (char c : s) {
    if (IsControl(c) && c != '\t') {
      *error = std::string("control character in ") + what + "; write it quoted with an escape";
      return false;
    }
  }
  return true;
}

bool ParseName(LineCursor& in, std::string* name, std::string* error) {
  if (in.Peek() == '"') return in.ParseQuoted(name, error);
  const std::string_view bare = Trim(in.TakeUntil('='));
  if (bare.empty()) {
    *error = "missing value name before '=' (use @ for the default value)";
    return false;
  }
  if (!CheckPlain(bare, "value name", error)) return false;
  *name = bare == kDefaultValueName ? std::string() : std::string(bare);
  return true;
}

const TypeWord* FindTypeWord(std::string_view word) {
  for (const TypeWord& t : kTypeWords)
    if (SameName(t.word, word)) return &t;
  return nullptr;
}

// "hex(N)" with N a decimal type number.
bool ParseHexTypeWord(std::string_view word, uint32_t* type) {
  if (word.size() < 6 || !SameName(word.substr(0, 4), "hex(") || word.back() != ')')
    return false;
  const std::string_view digits = word.substr(4, word.size() - 5);
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), *type);
  return ec == std::errc() && end == digits.data() + digits.size();
}

bool ParseType(std::string_view word, uint32_t* type, Form* form, std::string* error) {
  if (const TypeWord* known = FindTypeWord(word)) {
    *type = known->type;
    *form = known->form;
    return true;
  }
  if (ParseHexTypeWord(word, type)) {
    *form = Form::kHex;
    return true;
  }
  *error = "unknown type '" + Printable(word) +
           "' (expected sz, expand_sz, dword, qword, binary, multi_sz or hex(N))";
  return false;
}

bool ParseText(LineCursor& in, std::string* data, std::string* error) {
  in.SkipBlanks();
  if (in.Peek() == '"') {
    if (!in.ParseQuoted(data, error)) return false;
    in.SkipBlanks();
    if (!in.AtEnd()) {
      *error = "unexpected text after the closing '\"'";
      return false;
    }
  } else {
    const std::string_view bare = Trim(in.TakeAll());
    if (!CheckPlain(bare, "text", error)) return false;
    *data = bare;
  }
  *data += '\0';
  return true;
}

bool ParseNumber(std::string_view text, int bytes, std::string* data, std::string* error) {
  text = Trim(text);
  const bool hex = text.size() > 2 && text[0] == '0' && Lower(text[1]) == 'x';
  const std::string_view digits = hex ? text.substr(2) : text;
  uint64_t number = 0;
  const auto [end, ec] =
      std::from_chars(digits.data(), digits.data() + digits.size(), number, hex ? 16 : 10);
  if (ec != std::errc() || end != digits.data() + digits.size() || digits.empty() ||
      (bytes == 4 && number > 0xFFFFFFFFu)) {
    *error = "'" + Printable(text) + "' is not a number that fits " +
             (bytes == 4 ? "a dword (0 to 4294967295)" : "a qword");
    return false;
  }
  for (int i = 0; i < bytes; ++i) *data += static_cast<char>((number >> (8 * i)) & 0xFF);
  return true;
}

bool ParseHexBytes(std::string_view text, std::string* data, std::string* error) {
  for (size_t i = 0; i < text.size();) {
    if (IsBlank(text[i]) || text[i] == ',') {
      ++i;
      continue;
    }
    if (i + 1 >= text.size() || HexDigit(text[i]) < 0 || HexDigit(text[i + 1]) < 0) {
      *error = "'" + Printable(text.substr(i, 2)) + "' is not a hex byte (two digits 00 to ff)";
      return false;
    }
    *data += static_cast<char>(HexDigit(text[i]) * 16 + HexDigit(text[i + 1]));
    i += 2;
  }
  return true;
}

bool ParseTextList(LineCursor& in, std::string* data, std::string* error) {
  in.SkipBlanks();
  while (!in.AtEnd()) {
    std::string text;
    if (in.Peek() != '"') {
      *error = "multi_sz texts must each be quoted, separated by commas";
      return false;
    }
    if (!in.ParseQuoted(&text, error)) return false;
    *data += text;
    *data += '\0';
    in.SkipBlanks();
    if (in.AtEnd()) break;
    if (!in.Take(',')) {
      *error = "expected ',' between multi_sz texts";
      return false;
    }
    in.SkipBlanks();
    if (in.AtEnd()) {
      *error = "expected a quoted text after ','";
      return false;
    }
  }
  *data += '\0';
  return true;
}

bool ParseData(Form form, LineCursor& in, std::string* data, std::string* error) {
  switch (form) {
    case Form::kText: return ParseText(in, data, error);
    case Form::kDword: return ParseNumber(in.TakeAll(), 4, data, error);
    case Form::kQword: return ParseNumber(in.TakeAll(), 8, data, error);
    case Form::kHex: return ParseHexBytes(in.TakeAll(), data, error);
    case Form::kTextList: return ParseTextList(in, data, error);
  }
  return false;
}

bool ParseLine(std::string_view line, StoredValue* value, std::string* error) {
  LineCursor in(line);
  in.SkipBlanks();
  if (!ParseName(in, &value->name, error)) return false;
  in.SkipBlanks();
  if (!in.Take('=')) {
    *error = "expected '=' after the value name";
    return false;
  }
  in.SkipBlanks();
  const std::string_view type_word = Trim(in.TakeUntil(':'));
  if (!in.Take(':')) {
    *error = "expected type:value after '=', e.g. sz:text or dword:1";
    return false;
  }
  Form form;
  return ParseType(type_word, &value->type, &form, error) &&
         ParseData(form, in, &value->data, error);
}

// --- writing ---------------------------------------------------------------

bool IsPlainText(std::string_view s) {
  for (char c : s)
    if (IsControl(c)) return false;
  return s.empty() || (!IsBlank(s.front()) && !IsBlank(s.back()) && s.front() != '"');
}

std::string Quote(std::string_view s) {
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: out += IsControl(c) ? Printable(std::string_view(&c, 1)) : std::string(1, c);
    }
  }
  return out + '"';
}

std::string FormatName(const std::string& name) {
  if (name.empty()) return std::string(kDefaultValueName);
  const bool bare = IsPlainText(name) && name.find('=') == std::string::npos &&
                    name.front() != '#' && name != kDefaultValueName;
  return bare ? name : Quote(name);
}

std::string FormatText(std::string_view text) {
  return IsPlainText(text) ? std::string(text) : Quote(text);
}

std::string HexBytes(std::string_view data) {
  std::string out;
  for (char c : data) {
    char hex[4];
    snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(c));
    if (!out.empty()) out += ' ';
    out += hex;
  }
  return out;
}

uint64_t LittleEndian(std::string_view data) {
  uint64_t n = 0;
  for (size_t i = data.size(); i-- > 0;) n = (n << 8) | static_cast<unsigned char>(data[i]);
  return n;
}

// One text with its terminator and no NUL inside.
bool IsSingleText(std::string_view data) {
  return !data.empty() && data.find('\0') == data.size() - 1;
}

// Non-empty texts, each with its terminator, then one more terminator.
bool IsTextList(std::string_view data) {
  if (data.empty() || data.back() != '\0') return false;
  const std::string_view body = data.substr(0, data.size() - 1);
  return body.empty() || (body.front() != '\0' && body.back() == '\0' &&
                          body.find(std::string_view("\0\0", 2)) == std::string_view::npos);
}

std::string FormatTextList(std::string_view data) {
  std::string out;
  std::string_view body = data.substr(0, data.size() - 1);
  while (!body.empty()) {
    const size_t end = body.find('\0');
    if (!out.empty()) out += ", ";
    out += Quote(body.substr(0, end));
    body.remove_prefix(end + 1);
  }
  return out;
}

std::string FormatData(const StoredValue& v) {
  const std::string_view data = v.data;
  switch (v.type) {
    case kRegSz:
    case kRegExpandSz:
      if (!IsSingleText(data)) break;
      return (v.type == kRegSz ? "sz:" : "expand_sz:") +
             FormatText(data.substr(0, data.size() - 1));
    case kRegDword:
      if (data.size() == 4) return "dword:" + std::to_string(LittleEndian(data));
      break;
    case kRegQword:
      if (data.size() == 8) return "qword:" + std::to_string(LittleEndian(data));
      break;
    case kRegBinary:
      return "binary:" + HexBytes(data);
    case kRegMultiSz:
      if (IsTextList(data)) return "multi_sz:" + FormatTextList(data);
      break;
  }
  return "hex(" + std::to_string(v.type) + "):" + HexBytes(data);
}

std::string FormatLine(const StoredValue& v) { return FormatName(v.name) + " = " + FormatData(v); }

bool IsBlankOrComment(std::string_view line) {
  const std::string_view t = Trim(line);
  return t.empty() || t.front() == '#';
}

}  // namespace

bool SameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Lower(a[i]) != Lower(b[i])) return false;
  return true;
}

const StoredValue* ValuesDocument::Find(std::string_view name) const {
  for (const ValuesLine& line : lines)
    if (line.value && SameName(line.value->name, name)) return &*line.value;
  return nullptr;
}

const StoredValue* ValuesDocument::At(size_t index) const {
  for (const ValuesLine& line : lines)
    if (line.value && index-- == 0) return &*line.value;
  return nullptr;
}

size_t ValuesDocument::Count() const {
  size_t count = 0;
  for (const ValuesLine& line : lines) count += line.value.has_value();
  return count;
}

void ValuesDocument::Set(const StoredValue& value) {
  for (ValuesLine& line : lines) {
    if (line.value && SameName(line.value->name, value.name)) {
      line.value->type = value.type;
      line.value->data = value.data;
      line.text = FormatLine(*line.value);
      return;
    }
  }
  lines.push_back({FormatLine(value), value});
}

bool ValuesDocument::Remove(std::string_view name) {
  for (auto it = lines.begin(); it != lines.end(); ++it) {
    if (it->value && SameName(it->value->name, name)) {
      lines.erase(it);
      return true;
    }
  }
  return false;
}

ValuesDocument ParseValues(std::string_view text) {
  ValuesDocument document;
  int number = 0;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    ++number;
    // The text is kept with its carriage return, if any, so that a rewrite
    // gives back the line as it was: stripping it would take one more CR of
    // "...\r\r\n" at every rewrite, and could turn a refused line into a
    // value.
    ValuesLine kept{std::string(line), std::nullopt};
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    StoredValue value;
    std::string error;
    if (IsBlankOrComment(line)) {
      // kept as it stands
    } else if (!ParseLine(line, &value, &error)) {
      document.problems.push_back({number, error});
    } else if (document.Find(value.name) != nullptr) {
      document.problems.push_back(
          {number, "value '" + Printable(value.name) + "' appears twice; the first one is used"});
    } else {
      kept.value = std::move(value);
    }
    document.lines.push_back(std::move(kept));
  }
  return document;
}

std::string FormatValues(const ValuesDocument& document) {
  std::string text;
  for (const ValuesLine& line : document.lines) text += line.text + '\n';
  return text;
}

}  // namespace platform::posix
