#include "kzq/option_words.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"

namespace kzq {
namespace {

enum class Target { kLogon, kPassword, kCtlHome, kIgnored, kServerId, kOutDir, kErrorLog, kPrefixLocal,
                    kPrefix, kMaxRead, kDbHome, kDbVersion, kConsole, kCfgDir, kVersion, kDebug };

struct Keyword {
  const char* word;
  Target target;
};

constexpr Keyword kKeywords[] = {
    {"logonid", Target::kLogon},      {"loginid", Target::kLogon},        {"password", Target::kPassword},
    {"ctldir", Target::kCtlHome},     {"rdbms", Target::kIgnored},        {"serverid", Target::kServerId},
    {"logsdir", Target::kOutDir},     {"errlog", Target::kErrorLog},      {"dbtype", Target::kIgnored},
    {"ltempdir", Target::kPrefixLocal}, {"tempdir", Target::kPrefix},    {"maxread", Target::kMaxRead},
    {"dbhome", Target::kDbHome},      {"dbversion", Target::kDbVersion},  {"console", Target::kConsole},
    {"initfile", Target::kCfgDir},    {"version", Target::kVersion},      {"debug", Target::kDebug},
    {"azzzzzzzzz", Target::kIgnored},  // end marker: sorts after every keyword
};
constexpr size_t kKeywordCount = sizeof kKeywords / sizeof kKeywords[0] - 1;
constexpr size_t kShortest = 3;

std::string Lower(const std::string& text) {
  std::string out = text;
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// The keyword a word names: whole, or a prefix of at least three letters,
// taken by the first keyword in table order that starts with it.
const Keyword* Find(const std::string& word) {
  if (word.size() < kShortest) return nullptr;
  for (size_t i = 0; i < kKeywordCount; ++i)
    if (strncmp(kKeywords[i].word, word.c_str(), word.size()) == 0) return &kKeywords[i];
  return nullptr;
}

// Options come after the environment has been read, before anything uses
// the record, so the value they replace can go.
void Replace(char*& field, const std::string& value) {
  char* copy = new (std::nothrow) char[value.size() + 1];
  if (copy == nullptr) return;
  memcpy(copy, value.c_str(), value.size() + 1);
  delete[] field;
  field = copy;
}

void Store(Target target, const std::string& value, kvc::AgentConfig& c) {
  switch (target) {
    case Target::kLogon: Replace(c.logon, value); break;
    case Target::kPassword: Replace(c.password, value); break;
    case Target::kCtlHome: Replace(c.ctlHome, value); break;
    case Target::kServerId: Replace(c.serverId, value); break;
    case Target::kOutDir: Replace(c.outDir, value); break;
    case Target::kErrorLog: Replace(c.errorLog, value); break;
    case Target::kPrefixLocal: Replace(c.prefixLocal, value); break;
    case Target::kPrefix: Replace(c.prefix, value); break;
    case Target::kMaxRead: c.maxReadErrorLog = atoi(value.c_str()); break;
    case Target::kDbHome: Replace(c.dbHome, value); break;
    case Target::kDbVersion: Replace(c.dbVersion, value); break;
    case Target::kCfgDir: Replace(c.cfgDir, value); break;
    case Target::kVersion: Replace(c.version, value); break;
    case Target::kDebug:
      kvc::ParseDebugWord(value.c_str(), &kvc::Debug());
      c.debugFlag = kvc::Debug().debug ? 1 : 0;
      memcpy(c.DebugLevels, kvc::Debug().levels, sizeof c.DebugLevels);
      break;
    case Target::kConsole:
    case Target::kIgnored:
      break;
  }
}

std::vector<std::string> SplitWords(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

struct Walker {
  kvc::AgentConfig& config;
  const OptionFileReader& read_file;
  OptionResult result;

  void Problem(const std::string& text) {
    kvc::Log('w', "opt0010", "%s\n", text.c_str());
    result.problems.push_back(text);
  }

  void Walk(const std::vector<std::string>& words, int depth) {
    for (size_t i = 0; i < words.size(); ++i) {
      const std::string& word = words[i];
      if (word.size() < 2 || word[0] != '-') continue;  // values of words already taken, or stray text
      const std::string name = Lower(word.substr(1));
      const bool has_value = i + 1 < words.size();
      if (name == "filein") {
        if (has_value) Include(words[++i], depth);
        continue;
      }
      if (name == "hkey") {
        ++i;
        continue;
      }
      const Keyword* keyword = Find(name);
      if (keyword == nullptr) {
        Problem("Unknown option word: " + word);
        continue;
      }
      if (keyword->target == Target::kConsole) {
        result.console = true;
        continue;
      }
      if (!has_value) {
        Problem("Option word " + word + " needs a value");
        continue;
      }
      Store(keyword->target, words[++i], config);
    }
  }

  void Include(const std::string& path, int depth) {
    if (depth + 1 > kMaxNestedFiles) {
      kvc::Log('e', "opt0020", "Nested file %s exceded max of 10 files\n", path.c_str());
      result.problems.push_back("Nested file " + path + " exceded max of 10 files");
      return;
    }
    const std::optional<std::string> text = read_file(path);
    if (!text.has_value()) {
      Problem("Cannot read option file " + path);
      return;
    }
    Walk(SplitWords(*text), depth + 1);
  }
};

}  // namespace

OptionResult ApplyOptionWords(const std::vector<std::string>& words, kvc::AgentConfig& config,
                              const OptionFileReader& read_file) {
  Walker walker{config, read_file, {}};
  walker.Walk(words, 0);
  return walker.result;
}

std::optional<std::string> ReadOptionFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kzq
