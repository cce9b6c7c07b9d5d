#include "framework/serve/web_config.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include "framework/serve/bcrypt_hash.h"

namespace framework {
namespace {

// Bigger than any web configuration; a bigger file is a wrong path.
constexpr std::streamsize kMaxFileBytes = 1024 * 1024;

struct Entry {
  int line = 0;
  std::string key;
  std::string value;     // a scalar, or "" for a mapping
  bool mapping = false;  // a key with nothing after its colon: a block follows
  int indent = 0;
};

class Reader {
 public:
  Reader(std::string file, std::string* error) : file_(std::move(file)), error_(error) {}

  bool Fail(int line, const std::string& problem) {
    *error_ = file_ + ":" + std::to_string(line) + ": " + problem;
    return false;
  }

  // The file's meaningful lines as entries, or false after saying why.
  bool Entries(std::string_view text, std::vector<Entry>* entries) {
    int number = 0;
    for (size_t at = 0; at < text.size();) {
      const size_t end = std::min(text.find('\n', at), text.size());
      std::string line(text.substr(at, end - at));
      at = end + 1;
      ++number;
      if (!line.empty() && line.back() == '\r') line.pop_back();
      const size_t first = line.find_first_not_of(' ');
      if (first == std::string::npos || line[first] == '#') continue;
      if (line[first] == '\t') return Fail(number, "a tab indents this line; YAML indents with blanks");
      if (first == 0 && (line == "---" || line == "...")) continue;
      Entry entry;
      entry.line = number;
      entry.indent = static_cast<int>(first);
      if (!ReadEntry(line.substr(first), &entry)) return false;
      entries->push_back(std::move(entry));
    }
    return true;
  }

 private:
  // "key: value", "key:" or a list item; quoted keys and values allowed.
  bool ReadEntry(const std::string& text, Entry* entry) {
    if (text[0] == '-' && (text.size() == 1 || text[1] == ' '))
      return Fail(entry->line, "a list, which no setting this agent reads takes");
    size_t at = 0;
    if (!Scalar(text, &at, true, entry->line, &entry->key)) return false;
    if (at >= text.size() || text[at] != ':' || (at + 1 < text.size() && text[at + 1] != ' '))
      return Fail(entry->line, "expected 'name: value'");
    at = text.find_first_not_of(' ', at + 1);
    if (at == std::string::npos || text[at] == '#') {
      entry->mapping = true;
      return true;
    }
    if (text.compare(at, 2, "{}") == 0) {
      entry->mapping = true;
      at += 2;
    } else if (!Scalar(text, &at, false, entry->line, &entry->value)) {
      return false;
    }
    at = text.find_first_not_of(' ', at);
    if (at != std::string::npos && text[at] != '#') return Fail(entry->line, "unexpected text after the value");
    return true;
  }

  // A plain, 'single' or "double" quoted scalar from text[*at]; a key's
  // plain form ends at ": ", a value's at " #" or the line's end.
  bool Scalar(const std::string& text, size_t* at, bool key, int line, std::string* out) {
    const char open = text[*at];
    if (open == '\'' || open == '"') return Quoted(text, at, line, out);
    if (std::string("[{&*!|>%@`").find(open) != std::string::npos)
      return Fail(line, std::string("'") + open + "' begins YAML this agent does not read; quote the text");
    size_t end = *at;
    while (end < text.size()) {
      if (key && text[end] == ':' && (end + 1 == text.size() || text[end + 1] == ' ')) break;
      if (!key && text[end] == '#' && text[end - 1] == ' ') break;
      ++end;
    }
    *out = text.substr(*at, end - *at);
    out->erase(out->find_last_not_of(' ') + 1);
    *at = end;
    return true;
  }

  bool Quoted(const std::string& text, size_t* at, int line, std::string* out) {
    const char quote = text[(*at)++];
    out->clear();
    for (; *at < text.size(); ++*at) {
      char c = text[*at];
      if (c == quote) {
        if (quote == '\'' && *at + 1 < text.size() && text[*at + 1] == '\'') {
          out->push_back('\'');
          ++*at;
          continue;
        }
        ++*at;
        return true;
      }
      if (quote == '"' && c == '\\') {
        if (++*at == text.size()) break;
        c = text[*at];
        const std::string from = "\\\"/tn", to = "\\\"/\t\n";
        const size_t which = from.find(c);
        if (which == std::string::npos)
          return Fail(line, std::string("the escape \\") + c + " is not one this agent reads");
        c = to[which];
      }
      out->push_back(c);
    }
    return Fail(line, std::string("a ") + quote + " quote is not closed on its line");
  }

  std::string file_;
  std::string* error_;
};

const std::set<std::string> kClientAuthTypes = {"NoClientCert", "RequestClientCert", "RequireAnyClientCert",
                                                "VerifyClientCertIfGiven", "RequireAndVerifyClientCert"};
const std::set<std::string> kTlsVersions = {"TLS10", "TLS11", "TLS12", "TLS13"};
// Settings of the format that this agent does not honour: named, so that
// the error says so rather than calling them unknown.
const std::set<std::string> kUnsupported = {"cipher_suites", "curve_preferences", "max_version",
                                            "prefer_server_cipher_suites", "client_allowed_sans",
                                            "http_server_config"};

std::string Beside(const std::string& file, const std::string& path) {
  if (path.empty() || std::filesystem::path(path).has_root_path()) return path;
  return (std::filesystem::path(file).parent_path() / path).generic_string();
}

bool ReadTls(Reader& reader, const std::string& file, const std::vector<Entry>& entries, int header_line,
             TlsServerConfig* tls) {
  const std::map<std::string, std::string*> fields = {
      {"cert_file", &tls->cert_file},         {"key_file", &tls->key_file},
      {"client_ca_file", &tls->client_ca_file}, {"client_auth_type", &tls->client_auth_type},
      {"min_version", &tls->min_version}};
  for (const Entry& e : entries) {
    const auto field = fields.find(e.key);
    if (field == fields.end())
      return reader.Fail(e.line, kUnsupported.count(e.key) != 0
                                     ? "tls_server_config." + e.key + " is not supported by this agent"
                                     : "tls_server_config has no setting '" + e.key + "'");
    if (e.mapping) return reader.Fail(e.line, "tls_server_config." + e.key + " takes a single value");
    *field->second = e.value;
  }
  if (tls->cert_file.empty() || tls->key_file.empty())
    return reader.Fail(header_line, "tls_server_config needs both cert_file and key_file");
  if (kClientAuthTypes.count(tls->client_auth_type) == 0)
    return reader.Fail(header_line, "client_auth_type '" + tls->client_auth_type +
                                        "' is none of NoClientCert, RequestClientCert, RequireAnyClientCert, "
                                        "VerifyClientCertIfGiven, RequireAndVerifyClientCert");
  const bool verifies = tls->client_auth_type.find("Verify") != std::string::npos;
  if (verifies && tls->client_ca_file.empty())
    return reader.Fail(header_line, tls->client_auth_type + " needs client_ca_file");
  if (!verifies && !tls->client_ca_file.empty())
    return reader.Fail(header_line, "client_ca_file is set but client_auth_type " + tls->client_auth_type +
                                        " verifies no client certificate");
  if (kTlsVersions.count(tls->min_version) == 0)
    return reader.Fail(header_line, "min_version '" + tls->min_version + "' is none of TLS10, TLS11, TLS12, TLS13");
  for (std::string* path : {&tls->cert_file, &tls->key_file, &tls->client_ca_file}) *path = Beside(file, *path);
  return true;
}

bool ReadUsers(Reader& reader, const std::vector<Entry>& entries, std::map<std::string, std::string>* users) {
  for (const Entry& e : entries) {
    if (e.key.empty() || e.key.find(':') != std::string::npos)
      return reader.Fail(e.line, "a user name must be neither empty nor hold ':'");
    std::string reason;
    if (e.mapping || !IsBcryptHash(e.value, &reason))
      return reader.Fail(e.line, "the password hash of user '" + e.key + "' " +
                                     (e.mapping ? "is missing" : reason) + " (make one with htpasswd -nBC 10 " +
                                     e.key + ")");
    (*users)[e.key] = e.value;
  }
  return true;
}

}  // namespace

std::optional<WebConfig> ParseWebConfig(std::string_view text, const std::string& file, std::string* error) {
  Reader reader(file, error);
  std::vector<Entry> entries;
  if (!reader.Entries(text, &entries)) return std::nullopt;
  WebConfig config;
  std::set<std::string> seen;
  for (size_t i = 0; i < entries.size();) {
    const Entry& section = entries[i];
    if (section.indent != 0) return reader.Fail(section.line, "indented more than the lines before it"), std::nullopt;
    if (!seen.insert(section.key).second)
      return reader.Fail(section.line, "'" + section.key + "' appears twice"), std::nullopt;
    // The section's block: every deeper line up to the next top-level one,
    // all at the first one's indentation, each name once.
    std::vector<Entry> block;
    std::set<std::string> names;
    for (++i; i < entries.size() && entries[i].indent > 0; ++i) {
      const Entry& e = entries[i];
      if ((!block.empty() && e.indent != block.front().indent) || e.mapping)
        return reader.Fail(e.line, e.mapping ? "a nested mapping, which no setting this agent reads takes"
                                             : "indented unlike the lines before it"),
               std::nullopt;
      if (!names.insert(e.key).second)
        return reader.Fail(e.line, "'" + e.key + "' appears twice in " + section.key), std::nullopt;
      block.push_back(e);
    }
    if (!section.mapping && !(section.value.empty() || section.value == "null" || section.value == "~"))
      return reader.Fail(section.line, section.key + " takes a mapping, not a value"), std::nullopt;
    if (section.key == "basic_auth_users") {
      if (!ReadUsers(reader, block, &config.users)) return std::nullopt;
    } else if (section.key == "tls_server_config") {
      if (!ReadTls(reader, file, block, section.line, &config.tls.emplace())) return std::nullopt;
    } else {
      return reader.Fail(section.line, kUnsupported.count(section.key) != 0
                                           ? section.key + " is not supported by this agent"
                                           : "no setting '" + section.key +
                                                 "' (this agent reads basic_auth_users and tls_server_config)"),
             std::nullopt;
    }
  }
  return config;
}

std::optional<WebConfig> ReadWebConfig(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read the web configuration " + path;
    return std::nullopt;
  }
  std::string text(static_cast<size_t>(kMaxFileBytes) + 1, '\0');
  in.read(text.data(), kMaxFileBytes + 1);
  text.resize(static_cast<size_t>(in.gcount()));
  if (in.gcount() > kMaxFileBytes) {
    *error = path + ": larger than 1 MiB, which no web configuration is";
    return std::nullopt;
  }
  return ParseWebConfig(text, path, error);
}

}  // namespace framework
