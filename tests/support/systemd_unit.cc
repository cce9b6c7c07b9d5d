#include "tests/support/systemd_unit.h"

#include <cstring>
#include <sstream>

#include "tests/support/temp_dir.h"

namespace kzq_test {
namespace {

constexpr const char* kBlanks = " \t";

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Decodes the escape at text[*at] (just after the backslash) onto *out.
bool Unescape(const std::string& text, size_t* at, std::string* out) {
  static const std::map<char, char> kSimple = {{'a', '\a'}, {'b', '\b'}, {'f', '\f'}, {'n', '\n'}, {'r', '\r'},
                                               {'t', '\t'}, {'v', '\v'}, {'s', ' '},  {'\\', '\\'}, {'"', '"'},
                                               {'\'', '\''}};
  const auto simple = *at < text.size() ? kSimple.find(text[*at]) : kSimple.end();
  if (simple == kSimple.end()) return false;  // numeric escapes: the units use none
  out->push_back(simple->second);
  ++*at;
  return true;
}

bool ExpandSpecifiers(const std::string& word, const std::string& instance, std::string* out, std::string* error) {
  for (size_t i = 0; i < word.size(); ++i) {
    if (word[i] != '%') {
      out->push_back(word[i]);
    } else if (i + 1 < word.size() && word[i + 1] == 'i') {
      out->append(instance);
      ++i;
    } else if (i + 1 < word.size() && word[i + 1] == '%') {
      out->push_back('%');
      ++i;
    } else {
      *error = "unsupported specifier in '" + word + "'";
      return false;
    }
  }
  return true;
}

// Settings whose values are lists of words, and those with one value.
bool IsListSetting(const std::string& key) {
  for (const char* list : {"RuntimeDirectory", "StateDirectory", "LogsDirectory", "ConfigurationDirectory"})
    if (key == list) return true;
  return false;
}

// The [Service] section's assignments in order; a line ending in a
// backslash goes on in the next line.
std::vector<std::pair<std::string, std::string>> ServiceAssignments(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> assignments;
  std::istringstream in(text);
  std::string section, line;
  while (std::getline(in, line)) {
    for (std::string more; !line.empty() && line.back() == '\\' && std::getline(in, more);)
      line = line.substr(0, line.size() - 1) + " " + more;
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      section = line;
      continue;
    }
    const size_t equals = line.find('=');
    if (section == "[Service]" && equals != std::string::npos)
      assignments.emplace_back(Trim(line.substr(0, equals)), Trim(line.substr(equals + 1)));
  }
  return assignments;
}

}  // namespace

std::optional<std::vector<std::string>> SplitUnitWords(const std::string& value, const std::string& instance,
                                                       std::string* error) {
  std::vector<std::string> words;
  size_t i = value.find_first_not_of(kBlanks);
  while (i != std::string::npos && i < value.size()) {
    std::string word;
    char quote = '\0';
    for (; i < value.size() && (quote != '\0' || strchr(kBlanks, value[i]) == nullptr);) {
      const char c = value[i++];
      if (c == '\\') {
        if (!Unescape(value, &i, &word)) {
          *error = "bad escape in: " + value;
          return std::nullopt;
        }
      } else if (quote == '\0' && (c == '"' || c == '\'')) {
        quote = c;
      } else if (c == quote) {
        quote = '\0';
      } else {
        word.push_back(c);
      }
    }
    if (quote != '\0') {
      *error = "unfinished quote in: " + value;
      return std::nullopt;
    }
    std::string expanded;
    if (!ExpandSpecifiers(word, instance, &expanded, error)) return std::nullopt;
    words.push_back(expanded);
    i = value.find_first_not_of(kBlanks, i);
  }
  return words;
}

std::optional<std::vector<std::pair<std::string, std::string>>> ParseEnvironmentFile(const std::string& text,
                                                                                     std::string* error) {
  std::vector<std::pair<std::string, std::string>> assignments;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    const size_t equals = line.find('=');
    const std::string name = equals == std::string::npos ? "" : Trim(line.substr(0, equals));
    if (name.empty()) {
      *error = "no NAME= in: " + line;
      return std::nullopt;
    }
    std::string value = Trim(line.substr(equals + 1));
    const char quote = value.size() >= 2 && value.front() == value.back() ? value.front() : '\0';
    if (quote == '\'') {
      value = value.substr(1, value.size() - 2);
    } else if (quote == '"') {
      std::string plain;
      for (size_t i = 1; i + 1 < value.size(); ++i) {
        if (value[i] == '\\' && i + 2 < value.size() && strchr("\\\"$", value[i + 1]) != nullptr) ++i;
        plain.push_back(value[i]);
      }
      value = plain;
    }
    assignments.emplace_back(name, value);
  }
  return assignments;
}

std::optional<SystemdUnit> SystemdUnit::Load(const std::string& path, const std::string& instance, std::string* error) {
  const std::string text = ReadFile(path);
  if (text.empty()) {
    *error = "cannot read " + path;
    return std::nullopt;
  }
  SystemdUnit unit;
  // An empty assignment resets a list setting, as in drop-ins.
  for (const auto& [key, value] : ServiceAssignments(text)) {
    const auto words = SplitUnitWords(value, instance, error);
    if (!words) return std::nullopt;
    if (key == "ExecStart") {
      unit.command_ = *words;
      // Prefixes before the program change how systemd runs it (ignore
      // failure, full privileges...): the kzq units use none.
      if (!unit.command_.empty() && strchr("-@:+!", unit.command_[0][0]) != nullptr) {
        *error = "ExecStart= prefix not supported: " + value;
        return std::nullopt;
      }
    } else if (key == "Environment") {
      if (words->empty()) unit.environment_.clear();
      for (const std::string& word : *words) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos || equals == 0) {
          *error = "Environment= word without NAME=: " + word;
          return std::nullopt;
        }
        unit.environment_.emplace_back(word.substr(0, equals), word.substr(equals + 1));
      }
    } else if (key == "EnvironmentFile") {
      if (words->size() > 1) {
        *error = "EnvironmentFile= takes one path: " + value;
        return std::nullopt;
      }
      if (words->empty()) unit.environment_files_.clear();
      for (const std::string& word : *words) {
        const bool optional = word[0] == '-';
        unit.environment_files_.push_back({word.substr(optional ? 1 : 0), optional});
      }
    } else {
      std::vector<std::string>& list = unit.words_[key];
      if (!IsListSetting(key) || words->empty()) list.clear();
      list.insert(list.end(), words->begin(), words->end());
    }
  }
  if (unit.command_.empty()) {
    *error = path + " has no ExecStart=";
    return std::nullopt;
  }
  return unit;
}

std::string SystemdUnit::Value(const std::string& key) const {
  const std::vector<std::string>& words = Words(key);
  return words.empty() ? std::string() : words.back();
}

const std::vector<std::string>& SystemdUnit::Words(const std::string& key) const {
  static const std::vector<std::string> kNone;
  const auto found = words_.find(key);
  return found == words_.end() ? kNone : found->second;
}

}  // namespace kzq_test
